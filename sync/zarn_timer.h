// SPDX-License-Identifier: MIT
//
// zarn_timer: one wheel of 512 slots, one thread, many timers. What the operations promise to clients is
// in <zarn/zarn_timer.h> and with the table of <zarn/zarn_util.h>; here are the records and the inside.
//
//      wheel[0]    -> null
//      wheel[1]    -> timer <-> timer        the last armed stands first; laps are mixed
//      ...
//      wheel[511]  -> timer
//
// A timer of appointment `appt` lies in the slot behind that of the tick of `appt`, so that it has come
// due when the thread gets to its slot. The thread wakes once per tick and visits the slots from
// `cursor` to the current one; a timer of a later lap stays where it is.

#ifndef ZARN_SYNC_ZARN_TIMER_H
#define ZARN_SYNC_ZARN_TIMER_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_tallylock.h>
#include <zarn/zarn_timer.h>

constexpr uint32_t kTimerSlots = 512;
constexpr uint32_t kTimerTickShift = 12;
constexpr int32_t kTimerTick = 1 << kTimerTickShift;              // microseconds
constexpr int32_t kTimerLap = kTimerTick * (int32_t)kTimerSlots;  // microseconds
constexpr int32_t kTimerPriority = 20;

// How far the thread may have fallen behind and still walk: a greater distance forward is taken for a
// cursor that is already past the current slot.
constexpr uint32_t kTimerWalkLimit = kTimerSlots / 2;

static_assert((kTimerSlots & (kTimerSlots - 1)) == 0 && kTimerLap == 2097152);

// `appt` is not 0 exactly when the timer is on the chain of slot `index`; the links of an idle timer are
// null.
struct zarn_timer_t {
    // Under the wheel lock, as `appt` is; a timer keeps its old slot when it goes idle.
    uint32_t index;
    zarn_timer_t *next;
    zarn_timer_t *prev;
    int64_t appt;  // microseconds on the clock of `kern_time_us`, 0 when idle; also read without the lock
    // Written only while the timer is idle.
    zarn_timer_hook hook;
    void *arg;
};

// On i386 a 64-bit word is aligned to 4, so there is no hole in front of `appt`.
static_assert(offsetof(zarn_timer_t, next) == sizeof(void *));
static_assert(offsetof(zarn_timer_t, prev) == 2 * sizeof(void *));
static_assert(offsetof(zarn_timer_t, appt) == 3 * sizeof(void *));
static_assert(offsetof(zarn_timer_t, hook) == 3 * sizeof(void *) + 8);
static_assert(offsetof(zarn_timer_t, arg) == 4 * sizeof(void *) + 8);
static_assert(sizeof(zarn_timer_t) == (sizeof(void *) == 4 ? 28 : 48));

// Lock order: `delete_lock`, then the wheel lock.
struct zarn_timer_data {
    int32_t thread;       // constant from before the thread's first pass
    uint32_t cursor;      // the next slot to visit; the thread's own
    int64_t next_wakeup;  // end of the current sleep, for whoever looks with a debugger; the thread's own
    int32_t running;      // 0 makes the thread leave
    int32_t exit_sem;     // made by the stop before it takes `running` away
    zarn_timer_t *wheel[kTimerSlots];  // under the wheel lock
    int32_t lock_sem;                  // the wheel lock: a counter in front of a semaphore
    int32_t lock_count;
    zarn_tallylock_t delete_lock;  // the thread holds it through every pass, hooks included
};

static_assert(offsetof(zarn_timer_data, next_wakeup) == 8);
static_assert(offsetof(zarn_timer_data, wheel) == 24);
static_assert(offsetof(zarn_timer_data, lock_sem) == 24 + kTimerSlots * sizeof(void *));
static_assert(sizeof(zarn_timer_data) == 24 + kTimerSlots * sizeof(void *) + 16);

extern zarn_timer_data gZarnTimerData;

// Makes the wheel and starts its thread. 0, or -1 with nothing left.
int32_t init_zarn_timers();

// Stops the thread, waiting for its pass to end, and takes the wheel down. Timers that are still armed
// are neither fired nor freed. Returns the status of the debugger command's removal; or, with the wheel
// still running, the error of the semaphore that it needs for the wait.
int32_t uninit_zarn_timers();

// Makes an armed timer idle; on an idle one it changes nothing. Under the wheel lock.
void zarn_remove_timer(zarn_timer_t *timer);

extern "C" {

zarn_timer_t *create_zarn_timer(zarn_timer_hook hook, void *arg);
void delete_zarn_timer(zarn_timer_t *timer);
void zarn_set_timer_hook(zarn_timer_t *timer, zarn_timer_hook hook, void *arg);
void zarn_set_timer(zarn_timer_t *timer, int64_t delay, uint8_t replace);
void zarn_cancel_timer(zarn_timer_t *timer);
int64_t zarn_timer_appointment(zarn_timer_t *timer);

// The body of the timer thread.
int32_t zarn_timer_thread(void *argument);

// The debugger command "zarn_timer": every armed timer, or the one at the address in `argv[1]`. Takes no
// lock, since the machine is stopped. Returns 1.
int32_t debug_zarn_timers(int32_t argc, char **argv);
}

#endif
