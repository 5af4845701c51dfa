// SPDX-License-Identifier: MIT

#include <zarn/status.h>

#include "module/allocator.h"
#include "module/tallylock.h"
#include "roster/zarn_endpoint.h"

void run_hooks_locked(zarn_endpoint_t *ep, uint32_t event, uint32_t value) {
    ep_hook **link = &ep->hooks[event];
    for (ep_hook *hook = *link, *following; hook != nullptr; hook = following) {
        following = hook->next;
        hook->func(ep, value, hook->arg1, hook->arg2);
        if (hook->one_shot) {
            *link = hook->next;
            zarn_free(hook);
        } else {
            link = &hook->next;
        }
    }
}

int32_t ep_notify_endpoint(zarn_endpoint_t *ep, uint32_t event, uint32_t value) {
    if (event >= EP_EVENTS) return ERR_BAD_VALUE;
    zarn_lock_tallylock(&ep->lock);
    if (event == EP_EVENT_STORED) ep->event2_value = value;
    run_hooks_locked(ep, event, value);
    return zarn_unlock_tallylock(&ep->lock);
}
