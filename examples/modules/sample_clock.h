// SPDX-License-Identifier: MIT
//
// A clock for protocols that wait for something: it counts seconds, and has the stack's thread look at them.
// Include it behind sample_module.h.

#ifndef SAMPLE_CLOCK_H
#define SAMPLE_CLOCK_H

#define SECOND INT64_C(1000000)

static zarn_timer_t *gClock;
static uint32_t gSeconds;  // counted by the timer thread; atomic

static inline void count_second(zarn_timer_t *timer, void *arg) {
    const sample_device *device = arg;
    __atomic_fetch_add(&gSeconds, 1, __ATOMIC_RELAXED);
    if (device != NULL) device->request_attention(device);
    gUtil->zarn_set_timer(timer, SECOND, 1);
}

static inline uint32_t read_clock(void) {
    return __atomic_load_n(&gSeconds, __ATOMIC_RELAXED);
}

// On return nobody asks for attention any more. A clock that doesn't run stays as it is.
static inline void stop_clock(void) {
    if (gClock != NULL) gUtil->delete_zarn_timer(gClock);
    gClock = NULL;
}

// Starts the clock, again if need be; it goes on from where it stands. With a device that isn't null each
// second asks for attention. ERR_NO_MEMORY: it stands as before.
static inline int32_t start_clock(const sample_device *device) {
    zarn_timer_t *timer = gUtil->create_zarn_timer(count_second, (void *)(uintptr_t)device);
    if (timer == NULL) return ERR_NO_MEMORY;
    stop_clock();
    gClock = timer;
    gUtil->zarn_set_timer(timer, SECOND, 1);
    return 0;
}

#endif
