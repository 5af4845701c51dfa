// SPDX-License-Identifier: MIT
//
// Bytes compared and copied under a mask. Plain computations: any context, any alignment.
// Both are operations of the table: see include/zarn/zarn_util.h.

#ifndef ZARN_MODULE_MASKED_H
#define ZARN_MODULE_MASKED_H

#include <stdint.h>

extern "C" {
int32_t zarn_masked_cmp(const void *a, const void *b, const void *mask, int32_t length);
void zarn_masked_copy(void *dst, const void *src, const void *mask, int32_t length);
}

#endif
