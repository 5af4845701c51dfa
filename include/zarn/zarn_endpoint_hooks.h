// SPDX-License-Identifier: MIT
//
// Hooks on the events of an endpoint: how a module gets them on and off an endpoint's lists. The functions
// are inline over the lock operations of the table, because the table itself has no operation for this.
//
// - A hook runs on the thread that raises the event, with the lock held of the endpoint whose list it stands
//   on: the endpoint's own in `ep_notify_endpoint`, the listener's in `ep_ready_endpoint`. It must not call
//   any operation on that endpoint, these two included; it may wake a thread that does. It should be short.
// - Hooks of one list run in the order in which they were added.
// - The record belongs to whoever adds it, and lies still while it is on a list. A hook with `one_shot` set
//   comes from the table's allocator: it is taken off the list and given to `zarn_free` after its call.
// - Whoever adds a hook that is not one-shot removes it before the endpoint is deleted; deleting an endpoint
//   neither calls nor releases what is on its lists.

#ifndef ZARN_ENDPOINT_HOOKS_H
#define ZARN_ENDPOINT_HOOKS_H

#include <zarn/zarn_util.h>

#ifdef __cplusplus
extern "C" {
#endif

// Links `hook` at the end of the list of `event`, under the endpoint's lock. May block: thread level only.
// On failure nothing has changed:
//
//     ERR_BAD_VALUE    no such event, a hook without a function, or a hook that is on this list already
//     else negative    the lock can't be had
static inline int32_t ep_add_hook(const zarn_util_module_t *util, zarn_endpoint_t *ep, uint32_t event,
                                  ep_hook *hook) {
    ep_hook **link;
    int32_t status;
    if (event >= EP_EVENTS || hook->func == NULL) return ERR_BAD_VALUE;
    status = util->zarn_lock_tallylock(&ep->lock);
    if (status != 0) return status;
    for (link = &ep->hooks[event]; *link != NULL && *link != hook; link = &(*link)->next) {
    }
    if (*link == hook) {
        status = ERR_BAD_VALUE;
    } else {
        hook->next = NULL;
        *link = hook;
    }
    util->zarn_unlock_tallylock(&ep->lock);
    return status;
}

// Takes `hook` off the list of `event`, under the endpoint's lock. Once it has returned 0 the hook doesn't
// run and won't, and the record is the caller's again. May block: thread level only. On failure nothing has
// changed:
//
//     ERR_BAD_VALUE    no such event, or not on that list: a one-shot hook that has run is gone already
//     else negative    the lock can't be had
static inline int32_t ep_remove_hook(const zarn_util_module_t *util, zarn_endpoint_t *ep, uint32_t event,
                                     ep_hook *hook) {
    ep_hook **link;
    int32_t status;
    if (event >= EP_EVENTS) return ERR_BAD_VALUE;
    status = util->zarn_lock_tallylock(&ep->lock);
    if (status != 0) return status;
    for (link = &ep->hooks[event]; *link != NULL && *link != hook; link = &(*link)->next) {
    }
    if (*link == hook) {
        *link = hook->next;
    } else {
        status = ERR_BAD_VALUE;
    }
    util->zarn_unlock_tallylock(&ep->lock);
    return status;
}

#ifdef __cplusplus
}
#endif

#endif
