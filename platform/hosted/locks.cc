// SPDX-License-Identifier: MIT
//
// Futexes, the kernel's own lock, and the end of the process when something fails that cannot fail.

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hosted/internal.h"

namespace hosted {

void broken(const char *operation, int error) {
    char text[256];
    int length = snprintf(text, sizeof(text), "kernel: %s failed with error %d\n", operation, error);
    if (write(STDERR_FILENO, text, static_cast<size_t>(length)) < 0) _exit(127);
    abort();
}

int futex_wait(uint32_t *word, uint32_t value, int64_t caller_deadline) {
    int64_t deadline = caller_deadline;
    // A thread sanitizer delivers a signal that comes just before the call at the next atomic operation only,
    // which a sleep without end would never reach.
    if (kThreadSanitizer) deadline = std::min(deadline, kern_time_us() + 20'000);
    timespec until = {};
    timespec *limit = nullptr;
    // A deadline that doesn't fit the seconds of a 32-bit timespec is 68 years away.
    if (deadline / 1'000'000 < INT32_MAX) {
        until.tv_sec = static_cast<time_t>(deadline / 1'000'000);
        until.tv_nsec = static_cast<long>(deadline % 1'000'000 * 1000);
        limit = &until;
    }
    bool before = set_waiting(true);
    // The form with a bit set takes the timeout as a point of the monotonic clock.
    long result =
        syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value, limit, nullptr, FUTEX_BITSET_MATCH_ANY);
    int error = result == 0 ? 0 : errno;
    set_waiting(before);
    if (error != 0 && error != EAGAIN && error != EINTR && error != ETIMEDOUT) broken("futex wait", error);
    return error == ETIMEDOUT && deadline != caller_deadline ? EAGAIN : error;
}

void futex_wake(uint32_t *word, int count) {
    if (syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0) < 0)
        broken("futex wake", errno);
}

void lock::take() {
    uint32_t free_word = 0;
    if (__atomic_compare_exchange_n(&word_, &free_word, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return;
    // Whoever has slept can't know whether others still do, so it takes the lock as one with sleepers.
    while (__atomic_exchange_n(&word_, 2, __ATOMIC_ACQUIRE) != 0)
        futex_wait(&word_, 2, KERN_TIMEOUT_FOREVER);
}

void lock::give() {
    if (__atomic_exchange_n(&word_, 0, __ATOMIC_RELEASE) == 2) futex_wake(&word_, 1);
}

void copy_name(char *dest, size_t size, const char *source) {
    snprintf(dest, size, "%s", source ? source : "");
}

}  // namespace hosted
