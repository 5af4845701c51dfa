// SPDX-License-Identifier: MIT
//
// bell: lets one thread wait until others have changed something that it has looked at.
//
//     waiter                                  the others
//     while (!try()) {                        make try() come true
//         announce_wait(bell);                ring_bell(bell);
//         if (try()) break;
//         wait_for_bell(bell);
//     }
//
// No ring is lost: the announcement and the ring are full barriers. Either the ring sees the announcement and
// gives a unit, or it came first, and then the second try sees what was changed before it. A unit that nobody
// waits for any more makes a later wait come back early, which costs one more try.

#ifndef ZARN_HOST_BELL_H
#define ZARN_HOST_BELL_H

#include "platform/hosted/hosted_kernel.h"

struct bell {
    int32_t sem;
    int32_t waiting;  // atomic: 1 from the announcement to the ring
};

// 0, or the semaphore's failure. A bell ends with its semaphore.
inline int32_t create_bell(bell *bell, const char *name) {
    *bell = {kern_sem_create(0, name), 0};
    return bell->sem < 0 ? bell->sem : 0;
}

// On one thread at a time, as the wait.
inline void announce_wait(bell *bell) {
    kern_fetch_or(&bell->waiting, 1);
}

constexpr int64_t kLongestWait = 100'000;  // usec

// May come back early, when a signal arrives or now and then: the caller tries again. False when nobody has
// rung for kLongestWait.
inline bool wait_for_bell(bell *bell) {
    return kern_sem_acquire_ex(bell->sem, 1, KERN_SEM_INTERRUPTIBLE | KERN_SEM_RELATIVE_TIMEOUT,
                               kLongestWait) != KERN_ERR_TIMED_OUT;
}

// At any level.
inline void ring_bell(bell *bell) {
    if (kern_fetch_and(&bell->waiting, 0) != 0) kern_sem_release_ex(bell->sem, 1, KERN_SEM_NO_RESCHEDULE);
}

#endif
