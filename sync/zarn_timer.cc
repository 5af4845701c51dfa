// SPDX-License-Identifier: MIT
//
// Two handshakes hold this file together.
//
// Deleting against firing. The thread holds `delete_lock` from before it looks at the wheel until the
// last hook of the pass has returned; `delete_zarn_timer` on any other thread holds it while it cancels
// and frees. So either the deletion comes first, and the pass doesn't find the timer; or the pass does,
// and the deletion waits for the end of all its hooks. A hook that deletes is inside the pass already,
// and after a hook the pass touches no timer that it knew before.
//
// Stopping against leaving. `uninit_zarn_timers` makes `exit_sem` and then takes `running` away; the
// thread looks at `running` at the top of each pass, and the acquire there pairs with the release of the
// stop, so that a thread that sees the 0 sees the semaphore too. The semaphore remembers the unit if the
// thread is quicker than the stop's acquire. The thread sleeps by time and not on a semaphore: there is
// no wake-up to lose.
//
// `appt` is written under the wheel lock and read without it in three places, where a stale value is
// harmless:
//
// - `zarn_cancel_timer` returns on 0. If the timer was armed at the same time by somebody else, this
//   call came first. On anything else it takes the lock, and unlinking an idle timer changes nothing.
// - `zarn_set_timer` without `replace` returns on anything but 0: the timer was armed while the call
//   ran. On 0 it goes on under the lock, where of several threads that arm a timer at once the last one
//   wins.
// - `zarn_timer_appointment` only reports.
//
// The unlocked reads acquire what the store of the 0 releases: a thread that finds its timer idle may
// write `hook` and `arg`, and the timer thread has read them by then.

#include "sync/zarn_timer.h"

#include "module/allocator.h"
#include "module/tallylock.h"
#include "platform/kern.h"
#include "platform/libc.h"
#include "platform/unlocked_int64.h"

zarn_timer_data gZarnTimerData;

// Invariant: `lock_count` is the holder plus all who are on their way in. An unlock that finds somebody
// on the way leaves a unit, and the semaphore keeps it for a contender that has counted itself but not
// yet reached its acquire: the adds of the two functions are each other's partners, and no wake-up is
// lost. Nothing is undone when the semaphore fails, since it stands as long as there are clients.
static void lock_wheel() {
    if (kern_fetch_add(&gZarnTimerData.lock_count, 1) > 0) kern_sem_acquire(gZarnTimerData.lock_sem);
}

static void unlock_wheel() {
    if (kern_fetch_add(&gZarnTimerData.lock_count, -1) > 1) {
        kern_sem_release_ex(gZarnTimerData.lock_sem, 1, KERN_SEM_NO_RESCHEDULE);
    }
}

static uint32_t next_slot(uint32_t slot) {
    return (slot + 1) & (kTimerSlots - 1);
}

// The slot behind that of the appointment's tick.
static uint32_t slot_of(int64_t appt) {
    return next_slot((uint32_t)appt >> kTimerTickShift);
}

// Within half a wheel in front of `slot`, or on it. From further away the cursor counts as past the
// slot, as it is after a wake-up in the tick of the last pass.
static bool cursor_is_behind(uint32_t cursor, uint32_t slot) {
    return ((slot - cursor) & (kTimerSlots - 1)) < kTimerWalkLimit;
}

// Never 0, which would mean idle: that microsecond is given to the next one. A sum past the end of time
// is its end.
static int64_t appointment_in(int64_t delay) {
    int64_t appt;
    if (__builtin_add_overflow(kern_time_us(), delay, &appt)) return INT64_MAX;
    return appt != 0 ? appt : 1;
}

static void insert_timer_locked(zarn_timer_t *timer, int64_t appt) {
    timer->index = slot_of(appt);
    zarn_timer_t **head = &gZarnTimerData.wheel[timer->index];
    timer->prev = nullptr;
    timer->next = *head;
    if (*head != nullptr) (*head)->prev = timer;
    *head = timer;
    store_int64_unlocked(&timer->appt, appt);
}

void zarn_remove_timer(zarn_timer_t *timer) {
    zarn_timer_t **head = &gZarnTimerData.wheel[timer->index];
    if (*head == timer) *head = timer->next;
    if (timer->prev != nullptr) timer->prev->next = timer->next;
    if (timer->next != nullptr) timer->next->prev = timer->prev;
    timer->prev = nullptr;
    timer->next = nullptr;
    store_int64_unlocked(&timer->appt, 0);
}

static zarn_timer_t *find_due_locked(uint32_t slot, int64_t tick_end) {
    zarn_timer_t *timer = gZarnTimerData.wheel[slot];
    while (timer != nullptr && timer->appt > tick_end) {
        timer = timer->next;
    }
    return timer;
}

// The lock is down while a hook runs, and any timer may be armed, cancelled or gone afterwards: the
// search starts over at the head of the chain each time.
static void fire_slot_locked(uint32_t slot, int64_t tick_end) {
    while (zarn_timer_t *timer = find_due_locked(slot, tick_end)) {
        zarn_timer_hook hook = timer->hook;
        void *arg = timer->arg;
        zarn_remove_timer(timer);
        unlock_wheel();
        hook(timer, arg);
        lock_wheel();
    }
}

// Visits the slots from the cursor to the current one. The time is read once: however long the hooks
// take, a pass ends, and what has come due meanwhile is the next one's.
static void walk_wheel_locked() {
    int64_t tick = kern_time_us() / kTimerTick;
    uint32_t slot = (uint32_t)(tick % kTimerSlots);
    int64_t tick_end = (tick + 1) * kTimerTick;
    for (uint32_t c = gZarnTimerData.cursor; cursor_is_behind(c, slot); c = next_slot(c)) {
        fire_slot_locked(c, tick_end);
    }
    gZarnTimerData.cursor = next_slot(slot);
}

int32_t zarn_timer_thread(void *) {
    while (__atomic_load_n(&gZarnTimerData.running, __ATOMIC_ACQUIRE) != 0) {
        gZarnTimerData.next_wakeup = kern_time_us() + kTimerTick;
        kern_sleep_us(kTimerTick);
        zarn_lock_tallylock(&gZarnTimerData.delete_lock);
        lock_wheel();
        walk_wheel_locked();
        unlock_wheel();
        zarn_unlock_tallylock(&gZarnTimerData.delete_lock);
    }
    kern_sem_release_ex(gZarnTimerData.exit_sem, 1, KERN_SEM_NO_RESCHEDULE);
    return 0;
}

int32_t init_zarn_timers() {
    zarn_timer_data *data = &gZarnTimerData;
    memset(data, 0, sizeof(*data));
    if (zarn_create_tallylock(&data->delete_lock, "delete_zarn_timer") < 0) goto no_delete_lock;
    data->lock_sem = kern_sem_create(0, "zarntimerlock");
    if (data->lock_sem < 0) goto no_lock_sem;
    data->running = 1;
    data->next_wakeup = 0;
    data->thread = kern_thread_spawn(zarn_timer_thread, "zarn_timer", kTimerPriority, nullptr);
    if (data->thread < 0) goto no_thread;

    kern_thread_resume(data->thread);
    kern_log("zarn_timers : wheel Size %d ticks at %d usec steps (%d len)\n", (int)kTimerSlots,
             (int)kTimerTick, (int)kTimerLap);
    kern_debug_add_command("zarn_timer", debug_zarn_timers, "zarn_timer [timeraddress]");
    return 0;

no_thread:
    kern_sem_delete(data->lock_sem);
no_lock_sem:
    zarn_delete_tallylock(&data->delete_lock);
no_delete_lock:
    return -1;
}

int32_t uninit_zarn_timers() {
    zarn_timer_data *data = &gZarnTimerData;
    data->exit_sem = kern_sem_create(0, "timer exit sync");
    if (data->exit_sem < 0) return data->exit_sem;
    __atomic_store_n(&data->running, 0, __ATOMIC_RELEASE);
    kern_sem_acquire(data->exit_sem);
    kern_sem_delete(data->exit_sem);
    kern_sem_delete(data->lock_sem);
    zarn_delete_tallylock(&data->delete_lock);
    return kern_debug_remove_command("zarn_timer", debug_zarn_timers);
}

zarn_timer_t *create_zarn_timer(zarn_timer_hook hook, void *arg) {
    zarn_timer_t *timer = (zarn_timer_t *)zarn_malloc(sizeof(zarn_timer_t));
    if (timer == nullptr) return nullptr;
    timer->hook = hook;
    timer->arg = arg;
    return timer;
}

void delete_zarn_timer(zarn_timer_t *timer) {
    // In a hook the lock is this thread's already, and it is not recursive.
    bool in_pass = kern_thread_self() == gZarnTimerData.thread;
    if (!in_pass) zarn_lock_tallylock(&gZarnTimerData.delete_lock);
    zarn_cancel_timer(timer);
    timer->hook = nullptr;
    zarn_free(timer);
    if (!in_pass) zarn_unlock_tallylock(&gZarnTimerData.delete_lock);
}

void zarn_set_timer_hook(zarn_timer_t *timer, zarn_timer_hook hook, void *arg) {
    zarn_cancel_timer(timer);
    timer->hook = hook;
    timer->arg = arg;
}

void zarn_set_timer(zarn_timer_t *timer, int64_t delay, uint8_t replace) {
    if (timer->hook == nullptr) kern_halt("zarn_set_timer called with null hook: %p\n", (void *)timer);
    if (replace == 0 && load_int64_unlocked(&timer->appt) != 0) return;
    lock_wheel();
    if (timer->appt != 0) zarn_remove_timer(timer);
    insert_timer_locked(timer, appointment_in(delay));
    unlock_wheel();
}

void zarn_cancel_timer(zarn_timer_t *timer) {
    if (load_int64_unlocked(&timer->appt) == 0) return;
    lock_wheel();
    zarn_remove_timer(timer);
    unlock_wheel();
}

int64_t zarn_timer_appointment(zarn_timer_t *timer) {
    return load_int64_unlocked(&timer->appt);
}

int32_t debug_zarn_timers(int32_t argc, char **argv) {
    kern_debug_print("gZarnKernelTimer at %p : wheel size %d, ts %d usec steps\n", (void *)&gZarnTimerData,
                     (int)kTimerSlots, (int)kTimerTick);
    if (argc > 1) {
        const zarn_timer_t *timer = (const zarn_timer_t *)strtoul(argv[1], nullptr, 0);
        kern_debug_print("timer %p : index %ld appt %Ld, hook %p, arg %p \nnext %p prev %p\n",
                         (const void *)timer, (long)timer->index, (long long)timer->appt, (void *)timer->hook,
                         timer->arg, (void *)timer->next, (void *)timer->prev);
        return 1;
    }
    for (uint32_t slot = 0; slot < kTimerSlots; ++slot) {
        for (const zarn_timer_t *timer = gZarnTimerData.wheel[slot]; timer != nullptr; timer = timer->next) {
            kern_debug_print("timer %p : index %ld (%d) appt %Ld, hook %p, arg %p \nnext %p prev %p\n",
                             (const void *)timer, (long)timer->index, (int)slot, (long long)timer->appt,
                             (void *)timer->hook, timer->arg, (void *)timer->next, (void *)timer->prev);
        }
    }
    return 1;
}
