// SPDX-License-Identifier: MIT
//
// A module with a kernel thread that tells the stop of its end long before it has left the module's code.

#include <zarn/module.h>

#include "platform/kern.h"

static int32_t ended;
static volatile uint32_t steps;

static int32_t linger(void *argument) {
    (void)argument;
    kern_sem_release(ended);
    for (int64_t end = kern_time_us() + 50000; kern_time_us() < end;)
        steps++;
    return 0;
}

static int32_t std_ops(int32_t op) {
    if (op == MODULE_START) {
        ended = kern_sem_create(0, "threaded");
        return kern_thread_resume(kern_thread_spawn(linger, "linger", 5, 0));
    }
    kern_sem_acquire(ended);
    return kern_sem_delete(ended);
}

static const module_head module = {"test/threaded", 0, std_ops};

const void *const modules[] = {&module, 0};
