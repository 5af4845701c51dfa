// SPDX-License-Identifier: MIT
//
// The check of a buffer's invariants.

#ifndef ZARN_TESTS_SUPPORT_ZARN_DATA_FAULT_H
#define ZARN_TESTS_SUPPORT_ZARN_DATA_FAULT_H

#include <zarn/zarn_data.h>

// Null when the buffer is sound, otherwise what is wrong. Walks both lists and all pools of nodes. The
// caller owns the buffer; one that went through `isafe_delete_zarn_data` is no longer anybody's to look at.
const char *zarn_data_fault(const zarn_data_t *data);

#endif
