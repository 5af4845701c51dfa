// SPDX-License-Identifier: MIT

#include "module/masked.h"

#include "platform/libc.h"

// The areas have no alignment, so a word goes through memcpy, which the compiler turns into one load or
// store.
template <typename Unit>
static Unit load_masked(const void *area, const void *mask, int32_t offset) {
    Unit value, bits;
    memcpy(&value, (const uint8_t *)area + offset, sizeof value);
    memcpy(&bits, (const uint8_t *)mask + offset, sizeof bits);
    return (Unit)(value & bits);
}

template <typename Unit>
static int32_t compare_at(const void *a, const void *b, const void *mask, int32_t offset) {
    const Unit left = load_masked<Unit>(a, mask, offset);
    const Unit right = load_masked<Unit>(b, mask, offset);
    return left > right ? 1 : left < right ? -1 : 0;
}

template <typename Unit>
static void copy_at(void *dst, const void *src, const void *mask, int32_t offset) {
    const Unit value = load_masked<Unit>(src, mask, offset);
    memcpy((uint8_t *)dst + offset, &value, sizeof value);
}

int32_t zarn_masked_cmp(const void *a, const void *b, const void *mask, int32_t length) {
    int32_t offset = 0, order = 0;
    for (; order == 0 && length - offset >= 4; offset += 4)
        order = compare_at<uint32_t>(a, b, mask, offset);
    for (; order == 0 && offset < length; ++offset)
        order = compare_at<uint8_t>(a, b, mask, offset);
    return order;
}

void zarn_masked_copy(void *dst, const void *src, const void *mask, int32_t length) {
    int32_t offset = 0;
    for (; length - offset >= 4; offset += 4)
        copy_at<uint32_t>(dst, src, mask, offset);
    for (; offset < length; ++offset)
        copy_at<uint8_t>(dst, src, mask, offset);
}
