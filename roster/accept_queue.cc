// SPDX-License-Identifier: MIT
//
// The children of a listener. A child stands on one of two lists, linked through its `next` and `prev_link`,
// which its parent's lock guards:
//
//     spawn --> pending (newest first) --ready--> ready (oldest first) --dequeue--> the caller's
//
// `backlog` minus `room` is the number of children on both lists together.

#include "module/tallylock.h"
#include "platform/libc.h"
#include "roster/zarn_endpoint.h"

// `parent` is read once without the lock that guards it, by a thread that readies its child, so it goes by
// atomics. No order is needed: what the reader does next is done under the parent's lock.
static void set_parent(zarn_endpoint_t *child, zarn_endpoint_t *parent) {
    __atomic_store_n(&child->parent, parent, __ATOMIC_RELAXED);
}

static zarn_endpoint_t *get_parent(const zarn_endpoint_t *child) {
    return __atomic_load_n(&child->parent, __ATOMIC_RELAXED);
}

// Takes a child off whichever list it is on. `ready_tail` is left alone: it means nothing once the list is
// empty, and only a ready child that leaves out of turn could be the tail of a list that isn't.
static void unlink_child(zarn_endpoint_t *child) {
    if (child->next != nullptr) child->next->prev_link = child->prev_link;
    if (child->prev_link != nullptr) *child->prev_link = child->next;
    child->next = nullptr;
}

zarn_endpoint_t *ep_spawn_endpoint(zarn_endpoint_t *parent) {
    zarn_endpoint_t *child = nullptr;
    zarn_lock_tallylock(&parent->lock);
    if (parent->room <= 0) goto unlock;
    // A child has room for so much and no more, wherever the parent keeps its bytes.
    if (parent->inherited_blob.length > EP_BLOB_BYTES) goto unlock;
    if (ep_new_endpoint(&child, (int32_t)parent->family, (int32_t)parent->key1, (int32_t)parent->key2) < 0) {
        goto unlock;
    }

    child->inherited_blob.length = parent->inherited_blob.length;
    if (child->inherited_blob.length != 0)
        memcpy(child->inherited_blob.data, parent->inherited_blob.data, child->inherited_blob.length);
    child->copied_word_1 = parent->copied_word_1;
    child->copied_word_2 = parent->copied_word_2;
    child->tuning_a = parent->tuning_a;
    child->tuning_b = parent->tuning_b;
    set_parent(child, parent);
    --parent->room;

    child->next = parent->pending_head;
    if (child->next != nullptr) child->next->prev_link = &child->next;
    child->prev_link = &parent->pending_head;
    parent->pending_head = child;

unlock:
    zarn_unlock_tallylock(&parent->lock);
    return child;
}

void ep_ready_endpoint(zarn_endpoint_t *child) {
    zarn_endpoint_t *parent = get_parent(child);
    if (parent == nullptr) return;
    zarn_lock_tallylock(&parent->lock);
    if (parent->room != kRoomClosed) {
        unlink_child(child);
        child->prev_link = parent->ready_head == nullptr ? &parent->ready_head : &parent->ready_tail->next;
        *child->prev_link = child;
        parent->ready_tail = child;
        run_hooks_locked(parent, EP_EVENT_READY, 1);
    }
    zarn_unlock_tallylock(&parent->lock);
}

zarn_endpoint_t *ep_dequeue_endpoint(zarn_endpoint_t *listener) {
    zarn_endpoint_t *child = nullptr;
    zarn_lock_tallylock(&listener->lock);
    if (listener->room >= 0 && listener->ready_head != nullptr) {
        child = listener->ready_head;
        listener->ready_head = child->next;
        if (child->next != nullptr) child->next->prev_link = &listener->ready_head;
        set_parent(child, nullptr);
        ++listener->room;
    }
    zarn_unlock_tallylock(&listener->lock);
    return child;
}

int32_t ep_set_backlog(zarn_endpoint_t *listener, uint32_t backlog) {
    const auto limit = (int32_t)backlog;
    zarn_lock_tallylock(&listener->lock);
    // In 64 bits, because a negative limit is no error and may lie as far away as 32 bits reach.
    int64_t excess = int64_t{listener->backlog} - listener->room - limit;
    zarn_endpoint_t *const heads[] = {listener->pending_head, listener->ready_head};
    for (zarn_endpoint_t *head : heads) {
        for (zarn_endpoint_t *child = head, *following; child != nullptr && excess > 0; child = following) {
            following = child->next;
            unlink_child(child);
            delete_child(child);
            ++listener->room;
            --excess;
        }
    }
    listener->room = limit - (listener->backlog - listener->room);
    listener->backlog = limit;
    return zarn_unlock_tallylock(&listener->lock);
}
