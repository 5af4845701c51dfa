// SPDX-License-Identifier: MIT
//
// One's complement sums in machine words and plain registers: what every form of `chksum` and `cpysum` is
// made of.
//
// A sum may be taken in units of any width, since 2^16, 2^32 and 2^64 are all 1 modulo 2^16 - 1, and folding
// brings each of them back to 16 bits. So a run is read in words at whatever address it starts; nothing is
// aligned, because on the targets an unaligned word costs less than the branches that would avoid it. What
// matters is only that every byte keeps its place in its pair, counted from the start of the run.
//
// Pure computations, callable anywhere.

#ifndef ZARN_DATA_CHECKSUM_WORDS_H
#define ZARN_DATA_CHECKSUM_WORDS_H

#include <cstdint>

namespace checksum_words {

using word = uintptr_t;

constexpr uint32_t kWord = sizeof(word);
constexpr uint32_t kBlockWords = 8;
constexpr uint32_t kBlock = kBlockWords * kWord;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the first byte of a pair is the low half");

template <typename T>
inline T load(const uint8_t *from) {
    T value;
    __builtin_memcpy(&value, from, sizeof(value));
    return value;
}

template <typename T>
inline void store(uint8_t *to, T value) {
    __builtin_memcpy(to, &value, sizeof(value));
}

// `sum` + `value` with the carry taken in again. Never 0 unless both are.
inline word add(word sum, word value) {
    word result;
    word carry = __builtin_add_overflow(sum, value, &result) ? 1 : 0;
    return result + carry;
}

// Adds the block at `from`, and with `kCopy` writes it to `to` on the way.
template <bool kCopy>
inline word add_block(word sum, const uint8_t *from, uint8_t *to) {
#if defined(__x86_64__) || defined(__i386__)
    // Compilers make no chain of carries out of C. The moves between two adds leave the flags alone.
    struct block {
        uint8_t bytes[kBlock];
    };
    if constexpr (kCopy) {
        word t;
        asm("mov (%[from]), %[t]\n\tmov %[t], (%[to])\n\tadd %[t], %[sum]\n\t"
            "mov %c[w](%[from]), %[t]\n\tmov %[t], %c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 2*%c[w](%[from]), %[t]\n\tmov %[t], 2*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 3*%c[w](%[from]), %[t]\n\tmov %[t], 3*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 4*%c[w](%[from]), %[t]\n\tmov %[t], 4*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 5*%c[w](%[from]), %[t]\n\tmov %[t], 5*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 6*%c[w](%[from]), %[t]\n\tmov %[t], 6*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "mov 7*%c[w](%[from]), %[t]\n\tmov %[t], 7*%c[w](%[to])\n\tadc %[t], %[sum]\n\t"
            "adc $0, %[sum]"
            : [sum] "+&r"(sum), [t] "=&r"(t), "=m"(*(block *)to)
            : [from] "r"(from), [to] "r"(to), [w] "i"(kWord), "m"(*(const block *)from)
            : "cc");
    } else {
        asm("add (%[from]), %[sum]\n\t"
            "adc %c[w](%[from]), %[sum]\n\t"
            "adc 2*%c[w](%[from]), %[sum]\n\t"
            "adc 3*%c[w](%[from]), %[sum]\n\t"
            "adc 4*%c[w](%[from]), %[sum]\n\t"
            "adc 5*%c[w](%[from]), %[sum]\n\t"
            "adc 6*%c[w](%[from]), %[sum]\n\t"
            "adc 7*%c[w](%[from]), %[sum]\n\t"
            "adc $0, %[sum]"
            : [sum] "+&r"(sum)
            : [from] "r"(from), [w] "i"(kWord), "m"(*(const block *)from)
            : "cc");
    }
#else
    for (uint32_t i = 0; i < kBlock; i += kWord) {
        word value = load<word>(from + i);
        if constexpr (kCopy) store(to + i, value);
        sum = add(sum, value);
    }
#endif
    return sum;
}

// `to` moved on, where there is one.
template <bool kCopy>
inline uint8_t *ahead(uint8_t *to, uint32_t bytes) {
    return kCopy ? to + bytes : nullptr;
}

template <typename T, bool kCopy>
inline word add_one(word sum, const uint8_t *&from, uint8_t *&to) {
    T value = load<T>(from);
    from += sizeof(T);
    if constexpr (kCopy) store(to, value);
    to = ahead<kCopy>(to, sizeof(T));
    return add(sum, value);
}

// The sum of `length` bytes at `from`, in a word; with `kCopy` they are also written to `to`, which is not
// touched otherwise.
template <bool kCopy>
inline word sum_run(const uint8_t *from, uint8_t *to, uint32_t length) {
    word sum = 0;
    uint32_t left = length;
    // Two accumulators, so that one block's chain of carries runs beside the other's.
    if (left >= 2 * kBlock) {
        word other = 0;
        do {
            sum = add_block<kCopy>(sum, from, to);
            other = add_block<kCopy>(other, from + kBlock, ahead<kCopy>(to, kBlock));
            from += 2 * kBlock;
            to = ahead<kCopy>(to, 2 * kBlock);
            left -= 2 * kBlock;
        } while (left >= 2 * kBlock);
        sum = add(sum, other);
    }
    if (left & kBlock) {
        sum = add_block<kCopy>(sum, from, to);
        from += kBlock;
        to = ahead<kCopy>(to, kBlock);
    }
    if (left & 4 * kWord) {
        for (int i = 0; i < 4; ++i)
            sum = add_one<word, kCopy>(sum, from, to);
    }
    if (left & 2 * kWord) {
        for (int i = 0; i < 2; ++i)
            sum = add_one<word, kCopy>(sum, from, to);
    }
    if (left & kWord) sum = add_one<word, kCopy>(sum, from, to);
    left &= kWord - 1;
    if (left == 0) return sum;
    if (length >= kWord) {
        // The last word of the run holds the rest in its upper bytes; its lower ones are counted already.
        word last = load<word>(from + left - kWord);
        if constexpr (kCopy) store(to + left - kWord, last);
        return add(sum, last >> 8 * (kWord - left));
    }
    if constexpr (kWord > 4) {
        if (left & 4) sum = add_one<uint32_t, kCopy>(sum, from, to);
    }
    if (left & 2) sum = add_one<uint16_t, kCopy>(sum, from, to);
    if (left & 1) sum = add_one<uint8_t, kCopy>(sum, from, to);
    return sum;
}

// A sum of 32 or 64 bits as a 16-bit one: 0 only for 0. Adding the halves the other way round as well leaves
// their sum, with its carry, in the upper half.
inline uint32_t fold(uint32_t sum) {
    return (sum + (sum << 16 | sum >> 16)) >> 16;
}

inline uint32_t fold(uint64_t sum) {
    return fold((uint32_t)((sum + (sum << 32 | sum >> 32)) >> 32));
}

// The sum of a run that began at an odd distance from its pairs.
inline uint32_t swap_halves(uint32_t sum) {
    return __builtin_bswap16((uint16_t)sum);
}

}  // namespace checksum_words

#endif
