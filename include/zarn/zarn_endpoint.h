// SPDX-License-Identifier: MIT
//
// zarn_endpoint_t: one communication end with its private chain of protocols, and perhaps a listener with
// children.
//
// - An endpoint belongs to the client that created it; a child belongs to its listener until it is dequeued.
// - Protocol modules read and write most fields directly: the order of the fields is interface.
// - A child's `parent`, `next` and `prev_link` are guarded by its parent's lock.

#ifndef ZARN_ENDPOINT_H
#define ZARN_ENDPOINT_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_tallylock.h>

#ifdef __cplusplus
extern "C" {
#endif

struct protocol_module;
struct zarn_endpoint_t;

#define EP_BLOB_BYTES 32
#define EP_EVENTS 3         // event numbers are 0, 1 and 2
#define EP_EVENT_READY 1u   // raised on a listener, with the value 1, when a child has become ready
#define EP_EVENT_STORED 2u  // its value is stored in `event2_value` before the hooks run
#define EP_TIMEOUT_FOREVER INT64_MAX

// A block of bytes with room inside the record.
typedef struct ep_blob {
    uint8_t *data;  // points at `storage` of the same record, so an endpoint can't be moved as bytes
    uint8_t storage[EP_BLOB_BYTES];  // the room inside
    uint32_t length;  // bytes in use, at most EP_BLOB_BYTES as long as `data` points at `storage`
} ep_blob;

// A group of values that the module sets up and copies to children; their meaning is the protocols'.
typedef struct ep_tuning {
    uint32_t word;    // 0 at creation
    uint32_t mark;    // 1 at creation
    int64_t timeout;  // EP_TIMEOUT_FOREVER at creation
} ep_tuning;

// One protocol on one endpoint's chain.
typedef struct proto_node {
    struct zarn_endpoint_t *endpoint;
    const struct protocol_module *module;
    uintptr_t data;           // the protocol's own; 0 at creation
    struct proto_node *next;  // the protocol named next in the settings; null at the end
    struct proto_node *prev;  // the protocol named just before; null at the head
} proto_node;

// One hook on one of an endpoint's lists. `next` is first: a walk treats the hook's address as that of a
// link.
typedef struct ep_hook {
    struct ep_hook *next;
    void (*func)(struct zarn_endpoint_t *ep, uint32_t value, uintptr_t arg1, uintptr_t arg2);
    uintptr_t arg1;
    uintptr_t arg2;
    uint8_t one_shot;  // not 0: taken off the list and given to `zarn_free` after its call
} ep_hook;

typedef struct zarn_endpoint_t {
    zarn_tallylock_t lock;  // guards the child lists, `backlog`, `room`, the hook lists and `event2_value`
    const struct protocol_module *top_module;  // the module named first in the settings
    proto_node *protocols;                     // head of the chain
    uint32_t event2_value;                     // the value of the latest EP_EVENT_STORED
    ep_blob inherited_blob;                    // a spawned child gets a copy
    ep_blob own_blob;                          // not copied to children
    uint32_t module_word;                      // never read or written by the module
    uint32_t family;
    uint32_t key1;
    uint32_t key2;
    uint32_t copied_word_1;  // copied to spawned children, like the next three
    uint32_t copied_word_2;
    ep_tuning tuning_a;
    ep_tuning tuning_b;
    struct zarn_endpoint_t *parent;        // the listener on whose list this endpoint stands
    struct zarn_endpoint_t *next;          // next child on the same list
    struct zarn_endpoint_t **prev_link;    // the pointer that points at this child
    struct zarn_endpoint_t *ready_head;    // children ready to be handed out, oldest first
    struct zarn_endpoint_t *ready_tail;    // meaningful only while `ready_head` is not null
    struct zarn_endpoint_t *pending_head;  // children not ready yet, newest first
    int32_t backlog;                       // most children at one time
    int32_t room;                          // how many more may be spawned; -1 from the moment of deletion
    ep_hook *hooks[EP_EVENTS];
} zarn_endpoint_t;

#ifdef __cplusplus
}

// Protocol modules were compiled against these offsets. They are those of i386, where a 64-bit integer is
// aligned to four bytes, and of LP64.
#define EP_OFFSET(field, ilp32, lp64) \
    static_assert(offsetof(zarn_endpoint_t, field) == (sizeof(void *) == 4 ? (ilp32) : (lp64)))
static_assert(offsetof(zarn_endpoint_t, top_module) == 8);
EP_OFFSET(protocols, 12, 16);
EP_OFFSET(event2_value, 16, 24);
EP_OFFSET(inherited_blob, 20, 32);
EP_OFFSET(own_blob, 60, 80);
EP_OFFSET(module_word, 100, 128);
EP_OFFSET(family, 104, 132);
EP_OFFSET(key1, 108, 136);
EP_OFFSET(key2, 112, 140);
EP_OFFSET(copied_word_1, 116, 144);
EP_OFFSET(copied_word_2, 120, 148);
EP_OFFSET(tuning_a, 124, 152);
EP_OFFSET(tuning_b, 140, 168);
EP_OFFSET(parent, 156, 184);
EP_OFFSET(next, 160, 192);
EP_OFFSET(prev_link, 164, 200);
EP_OFFSET(ready_head, 168, 208);
EP_OFFSET(ready_tail, 172, 216);
EP_OFFSET(pending_head, 176, 224);
EP_OFFSET(backlog, 180, 232);
EP_OFFSET(room, 184, 236);
EP_OFFSET(hooks, 188, 240);
#undef EP_OFFSET
static_assert(sizeof(zarn_endpoint_t) == (sizeof(void *) == 4 ? 200 : 264));
static_assert(sizeof(ep_blob) == (sizeof(void *) == 4 ? 40 : 48));
static_assert(sizeof(ep_tuning) == 16);
static_assert(sizeof(proto_node) == 5 * sizeof(void *));
static_assert(offsetof(ep_hook, next) == 0 && offsetof(ep_hook, one_shot) == 4 * sizeof(void *));
#endif

#endif
