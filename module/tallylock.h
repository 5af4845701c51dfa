// SPDX-License-Identifier: MIT
//
// The tallylock's operations. The record and its rules are in <zarn/zarn_tallylock.h>.

#ifndef ZARN_MODULE_TALLYLOCK_H
#define ZARN_MODULE_TALLYLOCK_H

#include <zarn/zarn_tallylock.h>

extern "C" {

// Sets the lock up, with a semaphore named `name` (null: "anonymous zarn_tallylock_t"). Returns the
// semaphore's id, 0 or above, or its negative error, with nothing to clean up.
int32_t zarn_create_tallylock(zarn_tallylock_t *lock, const char *name);

// Deletes the lock under whoever holds it or waits: every later or waiting call fails. Returns the
// semaphore's status.
int32_t zarn_delete_tallylock(zarn_tallylock_t *lock);

// 0 when the lock is held, otherwise the semaphore's error and it isn't. Blocks.
int32_t zarn_lock_tallylock(zarn_tallylock_t *lock);

// 0, or the semaphore's error.
int32_t zarn_unlock_tallylock(zarn_tallylock_t *lock);
}

#endif
