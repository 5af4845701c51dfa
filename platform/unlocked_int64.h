// SPDX-License-Identifier: MIT
//
// A 64-bit word that one thread at a time writes and others read without its lock. Where the pointer has
// 64 bits this is a plain load and a plain store. Where it has 32, the compiler's 64-bit atomics are
// calls into a library (the word is aligned to 4 only), and a vector or floating-point register is not a
// kernel's to use; so the halves travel singly, and the reader looks again until two looks agree.
//
// A load sees what was written before the value that it returns: the acquire pairs with the release of
// the store.

#ifndef ZARN_PLATFORM_UNLOCKED_INT64_H
#define ZARN_PLATFORM_UNLOCKED_INT64_H

#include <stdint.h>

// The caller keeps other writers out.
static inline void store_int64_unlocked(int64_t *word, int64_t value) {
#if __SIZEOF_POINTER__ == 8
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
#else
    typedef uint32_t __attribute__((may_alias)) half_word;
    half_word *halves = (half_word *)word;
    __atomic_store_n(&halves[0], (uint32_t)value, __ATOMIC_RELEASE);
    __atomic_store_n(&halves[1], (uint32_t)((uint64_t)value >> 32), __ATOMIC_RELEASE);
#endif
}

// Where halves travel singly, looking twice keeps a new upper half from an old lower one. While the writer
// stands between its two stores both looks agree on the new lower half with the old upper one. So callers
// take a decision only from whether the word is 0, and only if either value would do.
static inline int64_t load_int64_unlocked(const int64_t *word) {
#if __SIZEOF_POINTER__ == 8
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
#else
    typedef uint32_t __attribute__((may_alias)) half_word;
    const half_word *halves = (const half_word *)word;
    uint32_t low = __atomic_load_n(&halves[0], __ATOMIC_ACQUIRE);
    uint32_t high = __atomic_load_n(&halves[1], __ATOMIC_ACQUIRE);
    for (;;) {
        uint32_t low_again = __atomic_load_n(&halves[0], __ATOMIC_ACQUIRE);
        uint32_t high_again = __atomic_load_n(&halves[1], __ATOMIC_ACQUIRE);
        if (low == low_again && high == high_again) return (int64_t)((uint64_t)high << 32 | low);
        low = low_again;
        high = high_again;
    }
#endif
}

#endif
