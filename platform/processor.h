// SPDX-License-Identifier: MIT
//
// What the module needs of the processor beyond C: a compare-exchange of twice the pointer width, and a hint
// for waiting.
//
// The rule for any further target: pointer and generation change together in one atomic step that is a full
// memory barrier, a failed step changes neither, and nothing here becomes a call into a library. gcc turns
// the `__atomic` form into a call for 16 bytes and clang does for 8 bytes that are aligned to 4; the `__sync`
// form stays inline with both.

#ifndef ZARN_PLATFORM_PROCESSOR_H
#define ZARN_PLATFORM_PROCESSOR_H

#include <stdint.h>

#if !defined(__x86_64__) && !defined(__i386__)
#error "platform/processor.h has no double-width compare-exchange for this target yet"
#endif

// A pointer and the number that tells two looks at the same pointer apart. On LP64 the exchange faults on a
// pair that isn't aligned to its size; on ILP32 the pair keeps the alignment of its words, and whoever embeds
// it sees to it that it doesn't lie across two cache lines.
#if defined(__x86_64__)
struct alignas(16) tagged_pointer {
    void *pointer;
    uintptr_t generation;
};
__extension__ typedef unsigned __int128 __attribute__((may_alias)) tagged_pointer_bits;
#else
struct tagged_pointer {
    void *pointer;
    uintptr_t generation;
};
typedef uint64_t __attribute__((may_alias, aligned(4))) tagged_pointer_bits;
#endif

static_assert(sizeof(tagged_pointer) == 2 * sizeof(void *) &&
              sizeof(tagged_pointer_bits) == sizeof(tagged_pointer));

// Replaces `*pair` by `desired` if it still holds `expected`; tells whether it did.
static inline bool compare_exchange_tagged(tagged_pointer *pair, tagged_pointer expected,
                                           tagged_pointer desired) {
    tagged_pointer_bits before, after;
    __builtin_memcpy(&before, &expected, sizeof(before));
    __builtin_memcpy(&after, &desired, sizeof(after));
    return __sync_bool_compare_and_swap((tagged_pointer_bits *)pair, before, after);
}

// Tells the processor that this thread waits for another one's store.
static inline void pause_processor() {
    __builtin_ia32_pause();
}

#endif
