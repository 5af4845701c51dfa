// SPDX-License-Identifier: MIT
//
// What passes between `zarn_notify` and the module "network/zarn_notify": one message in one buffer, and the
// record through which it is delivered. That module is no part of zarn_util; the stack works without it.

#ifndef ZARN_NOTIFY_H
#define ZARN_NOTIFY_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/module.h>
#include <zarn/zarn_data.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZARN_NOTIFY_MODULE_NAME "network/zarn_notify"

// The bytes of the buffer: this head and `length` bytes of payload right behind it, all in one piece. Words
// in the machine's byte order.
typedef struct zarn_notification {
    uint32_t kind;    // the sender's first word
    uint32_t detail;  // the sender's second word
    uint32_t length;  // bytes of payload; zeros if the sender gave a length and no payload
} zarn_notification;

typedef struct zarn_notify_module {
    module_head head;
    void (*other_operations[11])(void);  // the module's own; zarn_util doesn't call them

    // Takes over `data` and deletes it, now or later. Runs on the notifying thread, which keeps the module
    // acquired for the length of the call. The result is ignored.
    int32_t (*deliver_notification)(zarn_data_t *data);
} zarn_notify_module;

#ifdef __cplusplus
}

// Senders and receivers agree on bytes, and the delivery is found by position.
static_assert(sizeof(zarn_notification) == 12);
static_assert(offsetof(zarn_notify_module, deliver_notification) == 14 * sizeof(void *));
#endif

#endif
