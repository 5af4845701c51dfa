// SPDX-License-Identifier: MIT
//
// zarn_fifo_t: a byte-limited queue of buffers between producers that never block and consumers that may
// wait. The record lies in the caller's memory. A queued buffer belongs to the queue, and its `length` must
// not change.

#ifndef ZARN_FIFO_H
#define ZARN_FIFO_H

#include <stdint.h>

#include <zarn/zarn_data.h>
#include <zarn/zarn_tallylock.h>

typedef struct zarn_fifo_t {
    zarn_tallylock_t lock;  // guards the queue, `current_bytes`, and the reading and resetting of `waiters`
    int32_t wait_sem;       // consumers sleep here
    int32_t
        waiters;  // consumers asleep or about to be that no enqueue has released; atomic, may fall below 0
    int32_t clearing;        // 1 while a clear sends sleepers away
    uint32_t max_bytes;      // limit on `current_bytes`, constant after creation
    uint32_t current_bytes;  // sum of the `length` of the queued buffers
    zarn_data_t *head;       // first buffer, null when empty
    zarn_data_t *tail;       // last buffer, meaningful only while `head` is not null
} zarn_fifo_t;

#endif
