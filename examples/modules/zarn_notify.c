// SPDX-License-Identifier: MIT
//
// The module that notifications are delivered to: it puts them into the kernel's log for people to read. Of
// each sort the first few get a line each, and when the module stops one line tells how many there were.
//
// Whoever sends notifications keeps this module acquired, otherwise it comes and goes with every one of them.

#include "sample_protocol.h"

#include <zarn/zarn_notify.h>

enum { kTold = 3 };  // of each sort

static zarn_util_module_t *gUtil;

typedef struct sort {
    uint32_t kind, detail;
    const char *what;
    uint32_t count;  // atomic: any thread may deliver
} sort;

// The last of each kind takes what is left of it, and the very last everything else.
static sort gSorts[] = {
    {SAMPLE_NOTIFY_BAD_CHECKSUM, 0, "a bad IPv4 header checksum", 0},
    {SAMPLE_NOTIFY_BAD_CHECKSUM, 1, "a bad ICMP checksum", 0},
    {SAMPLE_NOTIFY_BAD_CHECKSUM, 6, "a bad TCP checksum", 0},
    {SAMPLE_NOTIFY_BAD_CHECKSUM, 17, "a bad UDP checksum", 0},
    {SAMPLE_NOTIFY_BAD_CHECKSUM, UINT32_MAX, "a bad checksum", 0},
    {SAMPLE_NOTIFY_BACKLOG_FULL, UINT32_MAX, "a connection that was refused, the backlog is full", 0},
    {UINT32_MAX, UINT32_MAX, "a notification of an unknown kind", 0},
};

static sort *find_sort(const zarn_notification *message) {
    sort *found = gSorts;
    while ((found->kind != message->kind || found->detail != message->detail) &&
           (found->kind != message->kind || found->detail != UINT32_MAX) && found->kind != UINT32_MAX)
        found++;
    return found;
}

static int32_t deliver_notification(zarn_data_t *data) {
    struct {
        zarn_notification head;
        sample_notice notice;
    } message;
    if (gUtil->copy_from_zarn_data(data, 0, &message.head, sizeof(message.head)) != 0) {
        sort *found = find_sort(&message.head);
        if (__atomic_fetch_add(&found->count, 1, __ATOMIC_RELAXED) < kTold) {
            const uint8_t *from = message.notice.source, *to = message.notice.destination;
            if (gUtil->copy_from_zarn_data(data, 0, &message, sizeof(message)) != 0) {
                kern_log("zarn_notify: %s: from %u.%u.%u.%u to %u.%u.%u.%u\n", found->what, from[0], from[1],
                         from[2], from[3], to[0], to[1], to[2], to[3]);
            } else {
                kern_log("zarn_notify: %s\n", found->what);
            }
        }
    }
    gUtil->delete_zarn_data(data);
    return 0;
}

static void tell_totals(void) {
    for (size_t i = 0; i < sizeof(gSorts) / sizeof(gSorts[0]); i++) {
        if (gSorts[i].count > kTold)
            kern_log("zarn_notify: %s: %lu times in all\n", gSorts[i].what, (unsigned long)gSorts[i].count);
    }
}

static int32_t start_or_stop(int32_t op) {
    switch (op) {
        case MODULE_START:
            return kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&gUtil);
        case MODULE_STOP:
            tell_totals();
            return kern_module_release(ZARN_UTIL_MODULE_NAME);
        default:
            return -1;
    }
}

static const zarn_notify_module gNotify = {
    {ZARN_NOTIFY_MODULE_NAME, 0, start_or_stop}, {NULL}, deliver_notification};
const void *const modules[] = {&gNotify, NULL};
