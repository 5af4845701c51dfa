// SPDX-License-Identifier: MIT
//
// The partition keeps what equals the pivot at both ends until it is through:
//
//     | = pivot | < pivot | not yet seen | > pivot | = pivot |
//     0         less      left      right     greater        count
//
// `less` and `left` are the first of their parts, `right` and `greater` the last of theirs.

#include "diagnostics/quick_sort.h"

#include <stddef.h>

#include "platform/libc.h"

namespace {

constexpr uint32_t kInsertionBelow = 7;
constexpr uint32_t kMedianAbove = 7;
constexpr uint32_t kNintherAbove = 40;

using comparison = int32_t (*)(const void *a, const void *b);

enum class swap_mode { kOneWord, kWords, kBytes };

template <typename unit>
void swap_units(uint8_t *a, uint8_t *b, size_t bytes) {
    for (size_t at = 0; at < bytes; at += sizeof(unit)) {
        unit x, y;
        memcpy(&x, a + at, sizeof x);
        memcpy(&y, b + at, sizeof y);
        memcpy(a + at, &y, sizeof y);
        memcpy(b + at, &x, sizeof x);
    }
}

// A range that is being sorted.
struct range {
    uint8_t *base;
    size_t size;  // of an element, in bytes
    comparison compare;
    swap_mode mode;

    uint8_t *at(size_t index) const { return base + index * size; }

    void swap_bytes(uint8_t *a, uint8_t *b, size_t bytes) const {
        if (mode == swap_mode::kBytes)
            swap_units<uint8_t>(a, b, bytes);
        else
            swap_units<uint32_t>(a, b, bytes);
    }

    void swap(size_t a, size_t b) const {
        if (mode == swap_mode::kOneWord)
            swap_units<uint32_t>(at(a), at(b), sizeof(uint32_t));
        else
            swap_bytes(at(a), at(b), size);
    }

    // Swaps the `n` elements from `a` on with those from `b` on.
    void swap_runs(size_t a, size_t b, size_t n) const {
        if (n > 0) swap_bytes(at(a), at(b), n * size);
    }
};

size_t smaller(size_t a, size_t b) {
    return a < b ? a : b;
}

swap_mode choose_mode(const void *base, size_t size) {
    if (((uintptr_t)base | size) % sizeof(uint32_t) != 0) return swap_mode::kBytes;
    return size == sizeof(uint32_t) ? swap_mode::kOneWord : swap_mode::kWords;
}

void insertion_sort(const range &in, size_t count) {
    for (size_t i = 1; i < count; ++i)
        for (size_t j = i; j > 0 && in.compare(in.at(j - 1), in.at(j)) > 0; --j)
            in.swap(j, j - 1);
}

size_t median_of(const range &in, size_t a, size_t b, size_t c) {
    auto compare = [&](size_t x, size_t y) { return in.compare(in.at(x), in.at(y)); };
    if (compare(a, b) < 0) return compare(b, c) < 0 ? b : compare(a, c) < 0 ? c : a;
    return compare(b, c) > 0 ? b : compare(a, c) < 0 ? a : c;
}

size_t choose_pivot(const range &in, size_t count) {
    size_t first = 0, middle = count / 2, last = count - 1;
    if (count <= kMedianAbove) return middle;
    if (count > kNintherAbove) {
        const size_t d = count / 8;
        first = median_of(in, first, first + d, first + 2 * d);
        middle = median_of(in, middle - d, middle, middle + d);
        last = median_of(in, last - 2 * d, last - d, last);
    }
    return median_of(in, first, middle, last);
}

struct parts {
    size_t below, above;  // elements less and greater than the pivot
    bool swapped;         // whether the partition has moved anything
};

parts partition(const range &in, size_t count) {
    in.swap(0, choose_pivot(in, count));
    bool swapped = false;
    size_t less = 1, left = 1, right = count - 1, greater = count - 1;
    for (;;) {
        int32_t order;
        for (; left <= right && (order = in.compare(in.at(left), in.base)) <= 0; ++left) {
            if (order < 0) continue;
            swapped = true;
            in.swap(less++, left);
        }
        for (; left <= right && (order = in.compare(in.at(right), in.base)) >= 0; --right) {
            if (order > 0) continue;
            swapped = true;
            in.swap(right, greater--);
        }
        if (left > right) break;
        swapped = true;
        in.swap(left++, right--);
    }
    const size_t below = left - less, above = greater - right;
    size_t run = smaller(less, below);
    in.swap_runs(0, left - run, run);
    run = smaller(above, count - 1 - greater);
    in.swap_runs(left, count - run, run);
    return {below, above, swapped};
}

}  // namespace

void q_sort(void *base, uint32_t count, uint32_t size, int32_t (*compare)(const void *a, const void *b)) {
    uint8_t *from = (uint8_t *)base;
    while (count > 1) {
        const range in = {from, size, compare, choose_mode(from, size)};
        if (count < kInsertionBelow) {
            insertion_sort(in, count);
            return;
        }
        const parts found = partition(in, count);
        // Most likely in order but for little. When it is not, this is slow and nothing worse.
        if (!found.swapped) {
            insertion_sort(in, count);
            return;
        }
        if (found.below > 1) q_sort(from, (uint32_t)found.below, size, compare);
        from = in.at(count - found.above);
        count = (uint32_t)found.above;
    }
}
