// SPDX-License-Identifier: MIT
//
// The clock and sleeping, both on the monotonic clock of the host.

#include <errno.h>
#include <time.h>

#include "platform/hosted/internal.h"

int64_t kern_time_us(void) {
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) hosted::broken("reading the clock", errno);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

int32_t kern_sleep_us(int64_t microseconds) {
    if (hosted_at_interrupt_level()) {
        hosted::complain("sleep at interrupt level");
        return KERN_ERR_NOT_ALLOWED;
    }
    if (microseconds <= 0) return 0;
    int64_t until;
    if (__builtin_add_overflow(kern_time_us(), microseconds, &until)) until = KERN_TIMEOUT_FOREVER;
    hosted::note_wait(hosted::kSleeps);
    // In pieces that any width of timespec holds. Signals and interrupts don't shorten the sleep.
    for (int64_t left; (left = until - kern_time_us()) > 0;) {
        if (left > 1'000'000'000'000) left = 1'000'000'000'000;
        timespec piece = {static_cast<time_t>(left / 1'000'000), static_cast<long>(left % 1'000'000 * 1000)};
        int error = clock_nanosleep(CLOCK_MONOTONIC, 0, &piece, nullptr);
        if (error != 0 && error != EINTR) hosted::broken("sleeping", error);
    }
    hosted::note_wait(0);
    return 0;
}
