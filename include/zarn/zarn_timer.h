// SPDX-License-Identifier: MIT
//
// zarn_timer_t: one timer of the wheel. The record is made and freed by the module; clients hold its address.

#ifndef ZARN_TIMER_H
#define ZARN_TIMER_H

#include <stdint.h>

typedef struct zarn_timer_t zarn_timer_t;

// Called on the timer thread when the timer is due, with the timer already idle. May arm, cancel and delete
// any timer, its own included. Must not block for long and must not wait for a thread that deletes a timer.
typedef void (*zarn_timer_hook)(zarn_timer_t *timer, void *arg);

#endif
