// SPDX-License-Identifier: MIT
//
// The sender's side of notifications. No state; blocks, so it is for thread level.
// An operation of the table: see include/zarn/zarn_util.h.

#ifndef ZARN_MODULE_NOTIFY_H
#define ZARN_MODULE_NOTIFY_H

#include <stdint.h>

extern "C" {
int32_t zarn_notify(uint32_t kind, uint32_t detail, void *payload, uint32_t length);
}

#endif
