// SPDX-License-Identifier: MIT
//
// zarn_fifo_t: a byte-limited queue of buffers between producers that never wait for room and consumers
// that may wait for data.
//
// - The record lies in the caller's memory; no operation allocates or frees it. It is freed only when no
//   thread can still be inside an operation on it: a consumer that the deletion woke still writes to it
//   on its way out.
// - A queued buffer belongs to the queue, and its `length` must not change. Queueing copies and
//   allocates nothing.
// - The limit is soft: it is tested before the lock is taken, so that producers that come at the same
//   moment can go past it together.
// - Thread level only.
//
// Who may run beside whom, `-` freely, `X` the caller keeps them apart:
//
//                create   enqueue   dequeue   clear   delete
//     create       X         X         X        X       X
//     enqueue      X         -         -        -       - [1]
//     dequeue      X         -         -        -       - [1]
//     clear        X         -         -        -       - [1]
//     delete       X         - [1]     - [1]    - [1]   X
//
// [1] while the memory of the record stays: the operation then fails with the status of a dead
//     semaphore.

#ifndef ZARN_FIFO_H
#define ZARN_FIFO_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_data.h>
#include <zarn/zarn_tallylock.h>

typedef struct zarn_fifo_t {
    zarn_tallylock_t lock;   // guards the queue, `current_bytes`, and the reading and resetting of `waiters`
    int32_t wait_sem;        // consumers sleep here; constant after creation
    int32_t waiters;         // consumers asleep or about to be that no enqueue has released; atomic, may fall
                             // below 0
    int32_t clearing;        // 1 while a clear sends sleepers away; atomic
    uint32_t max_bytes;      // limit on `current_bytes`; constant after creation
    uint32_t current_bytes;  // sum of the `length` of the queued buffers; written under `lock`, read without
                             // it too
    zarn_data_t *head;       // first buffer, null when empty
    zarn_data_t *tail;       // last buffer, meaningful only while `head` is not null
} zarn_fifo_t;

#ifdef __cplusplus
// Clients embed the record.
static_assert(offsetof(zarn_fifo_t, wait_sem) == 8);
static_assert(offsetof(zarn_fifo_t, current_bytes) == 24);
static_assert(offsetof(zarn_fifo_t, head) == (sizeof(void *) == 4 ? 28 : 32));
static_assert(sizeof(zarn_fifo_t) == (sizeof(void *) == 4 ? 36 : 48));
#endif

#endif
