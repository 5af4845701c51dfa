// SPDX-License-Identifier: MIT
//
// zarn_timer_t: a timer that calls a hook once, after a delay. One wheel and one thread serve all timers.
//
// - The record is made by `create_zarn_timer` and freed by `delete_zarn_timer`; clients hold its address.
// - A timer never fires early. The wheel turns in ticks of 4096 microseconds, and a timer fires in the
//   first pass behind the end of the tick of its appointment: less than two ticks late, and the time
//   that a pass takes. If the timer thread has been kept from running for more than 256 ticks, or a
//   delay is negative, up to a lap of 2097152 microseconds comes on top.
// - Of several timers that come due in one tick, the one armed last fires first.
// - Arming and cancelling cost the same however many timers are armed, and allocate nothing.
// - Thread level only, but for asking for the appointment: the lock of the wheel may block.
//
// Hooks run on the timer thread. Held around a hook: the lock that keeps deletions out
// ("delete_zarn_timer"). Not held: the lock of the wheel ("zarntimerlock"). Therefore:
//
// - A hook may arm, cancel, re-hook and delete any timer, its own included.
// - While a hook runs, other threads arm and cancel freely; those that delete wait for the end of the
//   pass, which is the end of all hooks that are due.
// - A hook must not block for long, since every other timer waits for it, and must never wait for a
//   thread that may be deleting a timer, or for a lock that such a thread holds.
//
// What stops whom:
//
//     zarn_cancel_timer     From a hook: the timer won't fire. From another thread: it won't start to fire
//                           after the return, but a firing that has begun goes on: the hook may be running
//                           still, or be just about to. What the hook uses must outlive it. The call waits
//                           for no hook.
//     delete_zarn_timer     From another thread: on return the hook neither runs nor will run, and what
//                           it uses may go. From a hook: as a cancel, and nothing is waited for, since the
//                           caller is all that can run.
//     zarn_set_timer_hook   As a cancel.
//
// Two threads that arm or cancel one timer at once are served in some order. A timer that is being
// re-hooked must not be armed or re-hooked by anybody else meanwhile, one that is being deleted not be
// used at all.

#ifndef ZARN_TIMER_H
#define ZARN_TIMER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zarn_timer_t zarn_timer_t;

// Called on the timer thread when the timer is due, with the timer already idle, so that it may be armed
// again.
typedef void (*zarn_timer_hook)(zarn_timer_t *timer, void *arg);

#ifdef __cplusplus
}
#endif

#endif
