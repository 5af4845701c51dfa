// SPDX-License-Identifier: MIT

#include "module/notify.h"

#include <zarn/zarn_notify.h>

#include "data/zarn_data.h"
#include "module/allocator.h"
#include "platform/kern.h"
#include "platform/libc.h"

// Packs the message into a block of its own. Null when it can't be had, or when a message of that size can't
// exist.
static zarn_notification *new_notification(uint32_t kind, uint32_t detail, const void *payload,
                                           uint32_t length) {
    uint32_t size;
    if (__builtin_add_overflow(length, (uint32_t)sizeof(zarn_notification), &size)) return nullptr;
    auto *message = (zarn_notification *)zarn_malloc(size);
    if (message == nullptr) return nullptr;
    *message = {kind, detail, length};
    if (payload != nullptr && length != 0) memcpy(message + 1, payload, length);
    return message;
}

int32_t zarn_notify(uint32_t kind, uint32_t detail, void *payload, uint32_t length) {
    void *table;
    zarn_data_t *data;
    zarn_notification *message = new_notification(kind, detail, payload, length);
    if (message == nullptr) {
        kern_log("zarn_util:zarn_notify: malloc failed...\n");
        goto failed;
    }
    data = new_zarn_data();
    if (data == nullptr) {
        kern_log("zarn_util: new_zarn_data failed...\n");
        goto free_message;
    }
    // Of the ways in which an append fails, one has linked the block already. None has made the buffer its
    // owner.
    if (append_zarn_data(data, message, length + (uint32_t)sizeof *message, zarn_free) != 0) goto delete_data;

    if (kern_module_acquire(ZARN_NOTIFY_MODULE_NAME, &table) != 0) {
        kern_log("zarn_util:zarn_notify: kern_module_acquire failed\n");
        delete_zarn_data(data);
        return -1;
    }
    ((const zarn_notify_module *)table)->deliver_notification(data);
    kern_module_release(ZARN_NOTIFY_MODULE_NAME);
    return 0;

delete_data:
    delete_zarn_data(data);
free_message:
    zarn_free(message);
failed:
    kern_log("zarn_util:zarn_notify:exiting with error\n");
    return -1;
}
