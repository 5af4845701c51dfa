// SPDX-License-Identifier: MIT
//
// Call a consumer pending from the moment that it raises `waiters` to the moment that its acquire has an
// outcome. The invariant: `waiters` plus the units of `wait_sem` that are on offer are never fewer than
// the pending consumers. Every step keeps it:
//
// - A consumer raises `waiters` as it becomes pending; as it ceases, it has either taken a unit or
//   lowered `waiters`.
// - An enqueue turns `waiters` into units. If a consumer lowers `waiters` between the two accesses of
//   the enqueue, or the enqueue finds it below 0, there is a unit too many and never one too few.
// - A consumer that a clear sends away took a unit, lowers `waiters` and gives a unit back; the clear
//   makes n units and takes n.
//
// So when an enqueue finds `waiters` at 0 or below, every pending consumer has a unit on offer, perhaps
// released while it was still between its unlock and its acquire: the semaphore remembers, no wake-up is
// lost. A unit too many only makes a consumer look at the queue once for nothing.
//
// `waiters` is raised and reset under `lock`, so that a consumer that found the queue empty is on the
// tally before an enqueue can look at it; it is lowered without the lock, which is why all changes are
// atomic.

#include "sync/zarn_fifo.h"

#include <zarn/status.h>

#include "data/zarn_data.h"
#include "module/tallylock.h"
#include "platform/kern.h"
#include "platform/libc.h"

// Read without the lock by `enqueue_zarn_fifo_data`; the limit is soft, so that needs no order.
static void set_current_bytes(zarn_fifo_t *fifo, uint32_t bytes) {
    __atomic_store_n(&fifo->current_bytes, bytes, __ATOMIC_RELAXED);
}

static bool fits(const zarn_fifo_t *fifo, uint32_t length) {
    uint32_t current = __atomic_load_n(&fifo->current_bytes, __ATOMIC_RELAXED);
    return length <= fifo->max_bytes && current <= fifo->max_bytes - length;
}

static void append_locked(zarn_fifo_t *fifo, zarn_data_t *data) {
    set_current_bytes(fifo, fifo->current_bytes + data->length);
    data->next = nullptr;
    if (fifo->head != nullptr) {
        fifo->tail->next = data;
    } else {
        fifo->head = data;
    }
    fifo->tail = data;
}

static zarn_data_t *take_first_locked(zarn_fifo_t *fifo) {
    zarn_data_t *data = fifo->head;
    fifo->head = data->next;
    set_current_bytes(fifo, fifo->current_bytes - data->length);
    return data;
}

static void delete_queued_locked(zarn_fifo_t *fifo) {
    while (fifo->head != nullptr) {
        delete_zarn_data(take_first_locked(fifo));
    }
    set_current_bytes(fifo, 0);
    fifo->tail = nullptr;
}

// A clone of the first buffer, or null.
static zarn_data_t *clone_first_locked(const zarn_fifo_t *fifo) {
    zarn_data_t *clone = new_zarn_data();
    if (clone == nullptr) return nullptr;
    if (clone_zarn_data(clone, fifo->head, 0, fifo->head->length) < 0) {
        delete_zarn_data(clone);
        return nullptr;
    }
    clone->user_word_1 = fifo->head->user_word_1;
    clone->user_word_2 = fifo->head->user_word_2;
    return clone;
}

// Sleeps until the queue may hold something. Called with the lock held; on 0 it is held again, on
// failure it isn't.
static int32_t wait_for_data(zarn_fifo_t *fifo, int64_t timeout) {
    kern_fetch_add(&fifo->waiters, 1);
    zarn_unlock_tallylock(&fifo->lock);
    int32_t status =
        kern_sem_acquire_ex(fifo->wait_sem, 1, KERN_SEM_INTERRUPTIBLE | KERN_SEM_RELATIVE_TIMEOUT, timeout);
    if (status != 0) {
        kern_fetch_add(&fifo->waiters, -1);
        return status;
    }
    // A unit of a clear was released behind its store to `clearing`, so whoever got one sees the 1 here.
    if (__atomic_load_n(&fifo->clearing, __ATOMIC_RELAXED) != 0) {
        kern_fetch_add(&fifo->waiters, -1);
        kern_sem_release_ex(fifo->wait_sem, 1, 0);
        return ERR_WOULD_BLOCK;
    }
    // The enqueue that released the unit has taken this thread off the tally.
    return zarn_lock_tallylock(&fifo->lock);
}

int32_t create_zarn_fifo(zarn_fifo_t *fifo, const char *name, uint32_t limit) {
    memset(fifo, 0, sizeof(*fifo));
    if (zarn_create_tallylock(&fifo->lock, "fifo_lock") < 0) return -1;
    fifo->wait_sem = kern_sem_create(0, name);
    if (fifo->wait_sem < 0) {
        zarn_delete_tallylock(&fifo->lock);
        return -1;
    }
    fifo->max_bytes = limit;
    return 0;
}

void delete_zarn_fifo(zarn_fifo_t *fifo) {
    kern_sem_delete(fifo->wait_sem);
    // Waits for an operation that is under way; those that come later fail at the lock.
    zarn_lock_tallylock(&fifo->lock);
    zarn_delete_tallylock(&fifo->lock);
    delete_queued_locked(fifo);
}

int32_t enqueue_zarn_fifo_data(zarn_fifo_t *fifo, zarn_data_t *data) {
    if (!fits(fifo, data->length)) return ERR_NO_BUFFER_SPACE;
    int32_t status = zarn_lock_tallylock(&fifo->lock);
    if (status != 0) return status;
    append_locked(fifo, data);
    int32_t sleepers = __atomic_load_n(&fifo->waiters, __ATOMIC_RELAXED);
    __atomic_store_n(&fifo->waiters, 0, __ATOMIC_RELAXED);
    zarn_unlock_tallylock(&fifo->lock);
    // Below 0 the semaphore refuses, and there is nobody to wake.
    if (sleepers != 0) kern_sem_release_ex(fifo->wait_sem, sleepers, KERN_SEM_NO_RESCHEDULE);
    return 0;
}

int32_t dequeue_zarn_fifo_data(zarn_fifo_t *fifo, zarn_data_t **out, int64_t timeout, uint8_t peek) {
    *out = nullptr;
    int32_t status = zarn_lock_tallylock(&fifo->lock);
    if (status != 0) return status;
    while (fifo->head == nullptr) {
        if (timeout == 0) {
            zarn_unlock_tallylock(&fifo->lock);
            return ERR_WOULD_BLOCK;
        }
        status = wait_for_data(fifo, timeout);
        if (status != 0) return status;
    }
    zarn_data_t *data = peek != 0 ? clone_first_locked(fifo) : take_first_locked(fifo);
    status = data != nullptr ? (int32_t)data->length : ERR_NO_MEMORY;
    *out = data;
    zarn_unlock_tallylock(&fifo->lock);
    return status;
}

// The clear holds `lock` and waits for the sleepers, who need no lock to leave. It releases n units for
// the n that are on the tally and then waits in line for n: a semaphore hands units to those who wait
// already, so the clear can't take back what it gave before the sleepers had it, and `clearing` stands
// until they have all seen it.
//
// A consumer that is on the tally and hasn't reached its acquire doesn't hold the clear up: its unit
// stays on offer and is one of the n that the clear collects. The consumer then either meets a unit and
// goes the way of the others, or sleeps on, still on the tally, where the next enqueue or clear finds
// it.
//
// A consumer that an enqueue woke, and that sees `clearing` before it got to the lock, leaves as well.
// Its unit may complete the n before another sleeper has looked; that one goes on waiting, with its
// tally and units in balance.
int32_t clear_zarn_fifo(zarn_fifo_t *fifo) {
    int32_t status = zarn_lock_tallylock(&fifo->lock);
    if (status != 0) return status;
    delete_queued_locked(fifo);
    __atomic_store_n(&fifo->clearing, 1, __ATOMIC_RELAXED);
    int32_t sleepers = __atomic_load_n(&fifo->waiters, __ATOMIC_RELAXED);
    if (sleepers > 0) {
        kern_sem_release_ex(fifo->wait_sem, sleepers, KERN_SEM_NO_RESCHEDULE);
        kern_sem_acquire_ex(fifo->wait_sem, sleepers, 0, 0);
    }
    __atomic_store_n(&fifo->clearing, 0, __ATOMIC_RELAXED);
    zarn_unlock_tallylock(&fifo->lock);
    return 0;
}
