// SPDX-License-Identifier: MIT

#ifndef ZARN_DIAGNOSTICS_QUICK_SORT_H
#define ZARN_DIAGNOSTICS_QUICK_SORT_H

#include <stdint.h>

// Sorts `count` elements of `size` bytes from `base` in place: the quicksort of Bentley and McIlroy.
// `compare(a, b)` gets two elements and is negative, 0 or positive. Elements that compare equal come out in
// any order. Allocates nothing; the stack grows with the depth of the recursion, by log2(count) frames as a
// rule and by `count` at worst. Any context.
void q_sort(void *base, uint32_t count, uint32_t size, int32_t (*compare)(const void *a, const void *b));

#endif
