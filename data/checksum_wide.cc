// SPDX-License-Identifier: MIT
//
// Sums with vector registers: SSE2, and AVX2 where the processor and whoever switches its registers support
// it. Only in builds whose kernel lets the module touch these registers at every level it is called at.

#include "data/checksum.h"

#if ZARN_WIDE_CHECKSUMS && defined(__SSE2__)

#include <cpuid.h>
#include <immintrin.h>

#include "data/checksum_words.h"

using checksum_words::ahead;
using checksum_words::fold;
using checksum_words::sum_run;
using checksum_words::swap_halves;

namespace {

// The one instruction that adds neighbouring 16-bit words into 32 bits takes them as signed. Flipping the top
// bit makes a word w into w - 2^15, so that each lane ends 2^16 too low per addition, and all that goes back
// in at the end.
constexpr int16_t kBias = INT16_MIN;
constexpr uint64_t kLaneBias = 0x10000;

// A pass adds four vectors, and each changes a lane by -2^16 to 2^16 - 2: for this many passes a lane of
// their sum stays inside of 32 bits. Two accumulators do: with more, the eight registers of ILP32 would not
// hold everything.
constexpr uint32_t kMaxPasses = (1u << 31) / (4 * kLaneBias);

// A run this long is worth a first step to the boundary of a vector: of the source, or where a copy is made
// of the target, whose crossings of cache lines cost more. A shorter run is taken as it lies.
constexpr uint32_t kAlignLength = 2048;

uint64_t sum_lanes(__m128i lanes) {
    __m128i sign = _mm_srai_epi32(lanes, 31);
    __m128i sums = _mm_add_epi64(_mm_unpacklo_epi32(lanes, sign), _mm_unpackhi_epi32(lanes, sign));
    sums = _mm_add_epi64(sums, _mm_unpackhi_epi64(sums, sums));
    uint64_t sum;
    _mm_storel_epi64((__m128i *)&sum, sums);
    return sum;
}

struct sse2 {
    static constexpr uint32_t kVector = 16;
    static constexpr uint32_t kPass = 4 * kVector;

    template <bool kCopy>
    static __m128i pairs(const uint8_t *from, uint8_t *to) {
        __m128i bytes = _mm_loadu_si128((const __m128i *)from);
        if constexpr (kCopy) _mm_storeu_si128((__m128i *)to, bytes);
        return _mm_madd_epi16(_mm_xor_si128(bytes, _mm_set1_epi16(kBias)), _mm_set1_epi16(1));
    }

    template <bool kCopy>
    static uint64_t sum_passes(const uint8_t *from, uint8_t *to, uint32_t passes) {
        __m128i a = _mm_setzero_si128(), b = a;
        for (uint32_t i = 0; i < passes; ++i) {
            a = _mm_add_epi32(a, _mm_add_epi32(pairs<kCopy>(from, to),
                                               pairs<kCopy>(from + kVector, ahead<kCopy>(to, kVector))));
            b = _mm_add_epi32(b,
                              _mm_add_epi32(pairs<kCopy>(from + 2 * kVector, ahead<kCopy>(to, 2 * kVector)),
                                            pairs<kCopy>(from + 3 * kVector, ahead<kCopy>(to, 3 * kVector))));
            from += kPass;
            to = ahead<kCopy>(to, kPass);
        }
        __m128i sum = _mm_add_epi32(a, b);
        return sum_lanes(sum) + kLaneBias * (kPass / 4) * passes;
    }
};

#define ZARN_AVX2 __attribute__((target("avx2")))

struct avx2 {
    static constexpr uint32_t kVector = 32;
    static constexpr uint32_t kPass = 4 * kVector;

    template <bool kCopy>
    ZARN_AVX2 static __m256i pairs(const uint8_t *from, uint8_t *to) {
        __m256i bytes = _mm256_loadu_si256((const __m256i *)from);
        if constexpr (kCopy) _mm256_storeu_si256((__m256i *)to, bytes);
        return _mm256_madd_epi16(_mm256_xor_si256(bytes, _mm256_set1_epi16(kBias)), _mm256_set1_epi16(1));
    }

    template <bool kCopy>
    ZARN_AVX2 static uint64_t sum_passes(const uint8_t *from, uint8_t *to, uint32_t passes) {
        __m256i a = _mm256_setzero_si256(), b = a;
        for (uint32_t i = 0; i < passes; ++i) {
            a = _mm256_add_epi32(a,
                                 _mm256_add_epi32(pairs<kCopy>(from, to),
                                                  pairs<kCopy>(from + kVector, ahead<kCopy>(to, kVector))));
            b = _mm256_add_epi32(
                b, _mm256_add_epi32(pairs<kCopy>(from + 2 * kVector, ahead<kCopy>(to, 2 * kVector)),
                                    pairs<kCopy>(from + 3 * kVector, ahead<kCopy>(to, 3 * kVector))));
            from += kPass;
            to = ahead<kCopy>(to, kPass);
        }
        __m256i sum = _mm256_add_epi32(a, b);
        return sum_lanes(_mm256_castsi256_si128(sum)) + sum_lanes(_mm256_extracti128_si256(sum, 1)) +
               kLaneBias * (kPass / 4) * passes;
    }
};

template <typename form, bool kCopy>
uint32_t sum_wide(const uint8_t *from, uint8_t *to, uint32_t length) {
    uint32_t head = 0;
    uint32_t head_sum = 0;
    if (length >= kAlignLength) {
        head = -(uintptr_t)(kCopy ? to : from) & (form::kVector - 1);
        head_sum = fold(sum_run<kCopy>(from, to, head));
        from += head;
        to = ahead<kCopy>(to, head);
        length -= head;
    }
    uint64_t body = 0;
    while (length >= form::kPass) {
        uint32_t passes = length / form::kPass;
        if (passes > kMaxPasses) passes = kMaxPasses;
        body += form::template sum_passes<kCopy>(from, to, passes);
        from += passes * form::kPass;
        to = ahead<kCopy>(to, passes * form::kPass);
        length -= passes * form::kPass;
    }
    uint32_t sum = fold(fold(body) + fold(sum_run<kCopy>(from, to, length)));
    return fold((head & 1 ? swap_halves(sum) : sum) + head_sum);
}

template <typename form>
uint32_t sum(const void *data, uint32_t length) {
    return sum_wide<form, false>((const uint8_t *)data, nullptr, length);
}

template <typename form>
uint32_t copy(void *dest, const void *src, uint32_t length) {
    return sum_wide<form, true>((const uint8_t *)src, (uint8_t *)dest, length);
}

constexpr checksum_form kForms[] = {{"sse2", sum<sse2>, copy<sse2>}, {"avx2", sum<avx2>, copy<avx2>}};

// Asked of the processor itself: a kernel has no library that knows.
bool has_avx2() {
    constexpr uint32_t kOsSavesState = 1u << 27, kAvx2 = 1u << 5, kVectorState = 6;
    uint32_t a, b, c, d;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & kOsSavesState) == 0) return false;
    uint32_t low, high;
    asm("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    if ((low & kVectorState) != kVectorState) return false;
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & kAvx2) != 0;
}

}  // namespace

const checksum_form *get_wide_checksums(uint32_t *count) {
    *count = has_avx2() ? 2 : 1;
    return kForms;
}

#else

const checksum_form *get_wide_checksums(uint32_t *count) {
    *count = 0;
    return nullptr;
}

#endif
