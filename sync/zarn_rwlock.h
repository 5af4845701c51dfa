// SPDX-License-Identifier: MIT
//
// The read-write lock's operations. The record, its rules and its state table are in
// <zarn/zarn_rwlock.h>, what each operation promises stands with the table of <zarn/zarn_util.h>.

#ifndef ZARN_SYNC_ZARN_RWLOCK_H
#define ZARN_SYNC_ZARN_RWLOCK_H

#include <zarn/zarn_rwlock.h>

extern "C" {

int32_t create_rwlock(rwlock_t *lock, const char *name);
int32_t delete_rwlock(rwlock_t *lock);
int32_t read_lock(rwlock_t *lock);
int32_t read_unlock(rwlock_t *lock);
int32_t write_lock(rwlock_t *lock);
int32_t write_unlock(rwlock_t *lock);
int32_t upgrade_to_write(rwlock_t *lock);
int32_t downgrade_to_read(rwlock_t *lock);
}

#endif
