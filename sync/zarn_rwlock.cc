// SPDX-License-Identifier: MIT
//
// The order of the atomic adds to `count` decides everything; the semaphores only carry it out, and
// because they remember units, it never matters whether the waiter or the waker gets to its semaphore
// first.
//
// - `read_sem`: whoever adds a reader while a writer is counted waits here for one unit. The last
//   writer's add tells it how many they are, r, and it releases r units. A reader that adds itself
//   behind that add finds no writer and needs no unit, one that added itself before is among the r:
//   nobody is forgotten and no unit is left over.
// - `drain_sem`, first use: a writer that finds no writer and r readers waits for r units. Each of those
//   readers finds the writer in `count` when it takes itself off, by `read_unlock` or by
//   `upgrade_to_write`, and gives one. Readers that come later wait on `read_sem` and so can't give a
//   unit for a reader that is still in.
// - `writer_sem` and `drain_sem`, second use: a writer that finds another one waits for one unit of
//   each, in this order. The writer that leaves finds it in `count` and gives both; one that turns
//   reader gives the first, and the second when it leaves as a reader, since then it finds the waiting
//   writer in `count`.
//
// `writer_sem` is the gate that keeps the two uses of `drain_sem` apart: only the first writer and the
// one that a leaving writer has let through ever wait on it, and never both at a time.
//
// `owner` is read without a lock. A thread finds its own id there only if it wrote it itself and hasn't
// taken it back since; whatever else it finds, stale or not, is not its id. So no order is needed.
// `depth` is the owner's alone and passes from one owner to the next through `count` and the semaphores.

#include "sync/zarn_rwlock.h"

#include <stddef.h>

#include "platform/kern.h"

static constexpr int32_t kReader = 1;
static constexpr int32_t kWriter = 0x10000;
static constexpr size_t kNameBytes = 100;

// The two halves of `count`, as they were before an add.
struct rwlock_tally {
    int32_t readers;
    int32_t writers;
};

static rwlock_tally add_to_count(rwlock_t *lock, int32_t amount) {
    uint32_t before = (uint32_t)kern_fetch_add((int32_t *)&lock->count, amount);
    return {.readers = (int32_t)(before & 0xffff), .writers = (int32_t)(before >> 16)};
}

static bool is_owner(const rwlock_t *lock) {
    return __atomic_load_n(&lock->owner, __ATOMIC_RELAXED) == kern_thread_self();
}

static void set_owner(rwlock_t *lock, int32_t owner) {
    __atomic_store_n(&lock->owner, owner, __ATOMIC_RELAXED);
}

// The write lock is won: all waits are over.
static int32_t become_owner(rwlock_t *lock) {
    set_owner(lock, kern_thread_self());
    lock->depth = 1;
    return 0;
}

// Waits for the writer in front to leave, and for the reader that it may have become.
static int32_t wait_behind_writer(rwlock_t *lock) {
    int32_t status = kern_sem_acquire(lock->writer_sem);
    if (status != 0) return status;
    return kern_sem_acquire(lock->drain_sem);
}

// A semaphore named `name` and `suffix`. A name that is too long loses its end; the suffix, which tells
// the three semaphores apart, always stands whole.
template <size_t kSuffixBytes>
static int32_t create_named_sem(const char *name, const char (&suffix)[kSuffixBytes]) {
    constexpr size_t kLongestSuffixBytes = sizeof(" rW1");
    static_assert(kSuffixBytes <= kLongestSuffixBytes);
    char text[kNameBytes];
    size_t length = 0;
    while (length < kNameBytes - kLongestSuffixBytes && name[length] != '\0') {
        text[length] = name[length];
        ++length;
    }
    for (size_t i = 0; i < kSuffixBytes; ++i) {
        text[length + i] = suffix[i];
    }
    return kern_sem_create(0, text);
}

int32_t create_rwlock(rwlock_t *lock, const char *name) {
    lock->count = 0;
    set_owner(lock, -1);
    lock->depth = 0;
    lock->read_sem = create_named_sem(name, " Rw");
    if (lock->read_sem < 0) goto no_read_sem;
    lock->writer_sem = create_named_sem(name, " rW1");
    if (lock->writer_sem < 0) goto no_writer_sem;
    lock->drain_sem = create_named_sem(name, " rW2");
    if (lock->drain_sem < 0) goto no_drain_sem;

    kern_sem_set_owner(lock->read_sem, KERN_TEAM);
    kern_sem_set_owner(lock->writer_sem, KERN_TEAM);
    kern_sem_set_owner(lock->drain_sem, KERN_TEAM);
    return 0;

no_drain_sem:
    kern_sem_delete(lock->writer_sem);
no_writer_sem:
    kern_sem_delete(lock->read_sem);
no_read_sem:
    return -1;
}

int32_t delete_rwlock(rwlock_t *lock) {
    kern_sem_delete(lock->read_sem);
    kern_sem_delete(lock->writer_sem);
    int32_t status = kern_sem_delete(lock->drain_sem);
    set_owner(lock, -1);
    lock->depth = 0;
    return status;
}

int32_t read_lock(rwlock_t *lock) {
    if (is_owner(lock)) return 0;
    if (add_to_count(lock, kReader).writers == 0) return 0;
    return kern_sem_acquire(lock->read_sem);
}

int32_t read_unlock(rwlock_t *lock) {
    if (is_owner(lock)) return 0;
    if (add_to_count(lock, -kReader).writers == 0) return 0;
    return kern_sem_release_ex(lock->drain_sem, 1, KERN_SEM_NO_RESCHEDULE);
}

int32_t write_lock(rwlock_t *lock) {
    if (is_owner(lock)) {
        ++lock->depth;
        return 0;
    }
    rwlock_tally before = add_to_count(lock, kWriter);
    int32_t status = 0;
    if (before.writers != 0) {
        status = wait_behind_writer(lock);
    } else if (before.readers != 0) {
        status = kern_sem_acquire_ex(lock->drain_sem, before.readers, 0, 0);
    }
    return status != 0 ? status : become_owner(lock);
}

int32_t write_unlock(rwlock_t *lock) {
    if (--lock->depth != 0) return 0;
    set_owner(lock, -1);
    rwlock_tally before = add_to_count(lock, -kWriter);
    if (before.writers != 1) {
        int32_t status = kern_sem_release_ex(lock->writer_sem, 1, KERN_SEM_NO_RESCHEDULE);
        if (status != 0) return status;
        return kern_sem_release(lock->drain_sem);
    }
    if (before.readers == 0) return 0;
    return kern_sem_release_ex(lock->read_sem, before.readers, 0);
}

int32_t upgrade_to_write(rwlock_t *lock) {
    if (is_owner(lock)) {
        ++lock->depth;
        return 0;
    }
    rwlock_tally before = add_to_count(lock, kWriter - kReader);
    int32_t status = 0;
    if (before.writers != 0) {
        // The writer in front may be waiting for this very reader.
        status = kern_sem_release_ex(lock->drain_sem, 1, KERN_SEM_NO_RESCHEDULE);
        if (status == 0) status = wait_behind_writer(lock);
    } else if (before.readers > 1) {
        status = kern_sem_acquire_ex(lock->drain_sem, before.readers - 1, 0, 0);
    }
    return status != 0 ? status : become_owner(lock);
}

int32_t downgrade_to_read(rwlock_t *lock) {
    if (--lock->depth != 0) return 0;
    set_owner(lock, -1);
    rwlock_tally before = add_to_count(lock, kReader - kWriter);
    if (before.writers != 1) {
        // The next writer gets only the first of its two units: the second is this reader's to give.
        return kern_sem_release_ex(lock->writer_sem, 1, KERN_SEM_NO_RESCHEDULE);
    }
    if (before.readers == 0) return 0;
    return kern_sem_release_ex(lock->read_sem, before.readers, KERN_SEM_NO_RESCHEDULE);
}
