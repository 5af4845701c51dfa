// SPDX-License-Identifier: MIT
//
// Invariant of a live lock: `count` is the holder plus all who are on their way in, and the units that the
// semaphore has seen released are exactly the unlocks that found somebody on the way. No wake-up is lost,
// because the semaphore remembers: a contender that has added itself but not yet reached its acquire finds
// the unit of the unlock that came between. `zarn_lock_tallylock` and `zarn_unlock_tallylock` are each
// other's partner in this, on the order of their atomic adds.

#include "module/tallylock.h"

#include "platform/kern.h"

// Set in `count` by the deletion. Adds and subtractions of threads never bring such a value back to 0 or 1,
// so that both fast paths are closed and every call meets the deleted semaphore.
static constexpr int32_t kDeletedBits = (int32_t)0xc0000000u;

int32_t zarn_create_tallylock(zarn_tallylock_t *lock, const char *name) {
    __atomic_store_n(&lock->count, 0, __ATOMIC_RELAXED);
    int32_t sem = kern_sem_create(0, name != nullptr ? name : "anonymous zarn_tallylock_t");
    __atomic_store_n(&lock->sem, sem, __ATOMIC_RELAXED);
    if (sem >= 0) kern_sem_set_owner(sem, KERN_TEAM);
    return sem;
}

int32_t zarn_delete_tallylock(zarn_tallylock_t *lock) {
    kern_fetch_or(&lock->count, kDeletedBits);
    int32_t status = kern_sem_delete(lock->sem);
    // Threads that were on their way read `sem` without the lock: they meet the dead id or -1, and fail on
    // either.
    __atomic_store_n(&lock->sem, -1, __ATOMIC_RELAXED);
    return status;
}

__attribute__((noinline, cold)) static int32_t lock_tallylock_contended(zarn_tallylock_t *lock) {
    int32_t sem = __atomic_load_n(&lock->sem, __ATOMIC_RELAXED);
    int32_t status = kern_sem_acquire_ex(sem, 1, 0, KERN_TIMEOUT_FOREVER);
    if (status != 0) kern_fetch_add(&lock->count, -1);
    return status;
}

__attribute__((noinline, cold)) static int32_t unlock_tallylock_contended(zarn_tallylock_t *lock) {
    int32_t sem = __atomic_load_n(&lock->sem, __ATOMIC_RELAXED);
    int32_t status = kern_sem_release_ex(sem, 1, KERN_SEM_NO_RESCHEDULE);
    if (status != 0) kern_fetch_add(&lock->count, 1);
    return status;
}

int32_t zarn_lock_tallylock(zarn_tallylock_t *lock) {
    if (kern_fetch_add(&lock->count, 1) == 0) return 0;
    return lock_tallylock_contended(lock);
}

int32_t zarn_unlock_tallylock(zarn_tallylock_t *lock) {
    if (kern_fetch_add(&lock->count, -1) == 1) return 0;
    return unlock_tallylock_contended(lock);
}
