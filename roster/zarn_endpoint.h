// SPDX-License-Identifier: MIT
//
// Endpoints: their making and unmaking (zarn_endpoint.cc), children and the accept queue (accept_queue.cc),
// and event hooks (event_hooks.cc). The record and its rules are in <zarn/zarn_endpoint.h>; all but the last
// two functions here are operations of the table: see include/zarn/zarn_util.h.
//
// Locks, in this order: a listener, its child, the roster's. What each operation holds while it calls out:
//
//     operation            lock held                  runs under it
//     ep_new_endpoint      none                       the roster, init_protocol, uninit_protocol
//     ep_delete_endpoint   none                       uninit_protocol, the roster for its children
//     ep_spawn_endpoint    the listener's             the roster, init_protocol of the child
//     ep_set_backlog       the listener's             uninit_protocol of the children that go, the roster
//     ep_ready_endpoint    the listener's             the listener's hooks
//     ep_notify_endpoint   the endpoint's             the endpoint's hooks

#ifndef ZARN_ROSTER_ZARN_ENDPOINT_H
#define ZARN_ROSTER_ZARN_ENDPOINT_H

#include <stdint.h>

#include <zarn/zarn_endpoint.h>

extern "C" {
int32_t ep_new_endpoint(zarn_endpoint_t **out, int32_t family, int32_t key1, int32_t key2);
void ep_delete_endpoint(zarn_endpoint_t *ep);
zarn_endpoint_t *ep_spawn_endpoint(zarn_endpoint_t *parent);
zarn_endpoint_t *ep_dequeue_endpoint(zarn_endpoint_t *listener);
void ep_ready_endpoint(zarn_endpoint_t *child);
int32_t ep_set_backlog(zarn_endpoint_t *listener, uint32_t backlog);
int32_t ep_notify_endpoint(zarn_endpoint_t *ep, uint32_t event, uint32_t value);
}

// The `room` of an endpoint that is being deleted; operations on its child lists then leave them alone.
constexpr int32_t kRoomClosed = -1;

// Deletes a child and gives back the family reference that its creation took: nobody else knows of it. The
// reference goes after the child's chain is down, and it isn't the family's last as long as the listener's
// stands.
void delete_child(zarn_endpoint_t *child);

// Calls every hook of `event`, with the endpoint's lock held, and releases those that are one-shot.
void run_hooks_locked(zarn_endpoint_t *ep, uint32_t event, uint32_t value);

#endif
