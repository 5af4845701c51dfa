// SPDX-License-Identifier: MIT
//
// The purgatory: buffers that were deleted where nothing may block wait here for a thread that takes them
// apart.
//
// - `isafe_delete_zarn_data` may be called from any thread and any interrupt level, also many times at once.
// - One thread of low priority empties the stack in batches. Only it pops, so it may free what it has popped.
// - `init_data_purgatory` and `uninit_data_purgatory` belong to thread level, one at a time; nobody
//   deletes buffers here while the stop runs.

#ifndef ZARN_DATA_PURGATORY_H
#define ZARN_DATA_PURGATORY_H

#include <stddef.h>
#include <stdint.h>

#include "memory/atomic_stack.h"

struct data_purgatory {
    // Constant while the purgatory is in service
    int32_t thread;  // id, or the error of its creation

    // Shared without a lock
    int32_t running;   // 1 in service; 0 tells the thread to leave once it has found the stack empty
    int32_t sleeping;  // 1 from the thread's announcement of a sleep until somebody takes it away

    int32_t sem;  // constant; wakes the thread, and in the end tells the stop that the thread has left
    atomic_stack_t stack;  // the buffers, linked by their `next`
    int32_t count;         // about how many buffers lie on the stack; a hint, put right at each sleep
    int32_t threshold;     // constant; how many may lie there before a deletion wakes the thread
};

static_assert(sizeof(void *) != 4 || (offsetof(data_purgatory, stack) == 16 &&
                                      offsetof(data_purgatory, count) == 28 && sizeof(data_purgatory) == 36));

extern data_purgatory gPurgy;

// How many deleted buffers may wait before the thread is woken for them.
constexpr int32_t kPurgatoryThreshold = 8;

// Starts the thread. 0, or the error of the semaphore's or the thread's creation, with nothing left.
int32_t init_data_purgatory(int32_t threshold);

// Returns when the thread has released every buffer on the stack and has left. The result is that of the
// semaphore's deletion.
int32_t uninit_data_purgatory();

// The thread's function; `arg` is `&gPurgy`.
int32_t purgatory_thread_func(void *arg);

#endif
