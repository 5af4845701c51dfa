// SPDX-License-Identifier: MIT
//
// Deletion in two halves. The caller's half takes what may be done anywhere: the elements of
// FREE_INTERRUPT_SAFE descriptors. The thread's half does the rest.
//
// Who gives up a reference, and who frees what:
// - Each buffer gives up exactly one reference for each node of its free list: for a descriptor with the
//   bit in the caller's half, for any other in the thread's.
// - The elements are freed by whoever gave up the last reference, on the spot.
// - A descriptor whose last reference went in the caller's half keeps its node: its block is what the
//   thread still has to give back, and nobody else can reach it. One whose reference was not the last
//   loses its node: the others may release it before the thread comes to this buffer, so the thread must
//   not even look at it.
//
// The sleep. The thread announces it in `sleeping`, looks at `running` once more, and acquires `sem`. A
// deletion that passes the threshold, and the stop, take the announcement away by one exchange, and only who
// found it set releases a unit. So there is at most one unit per announcement, the wake-up, and it can come
// before the thread blocks: the semaphore keeps it, and the acquire takes it at once. A wake-up unit is on
// the semaphore or on its way only between an announcement and the end of the acquire behind it.
//
// The stop. `sem` also tells the stop that the thread has left: the thread's last act is to release one unit.
// The cases, by where the thread is when the stop stores 0 in `running` and then exchanges `sleeping`:
//  1. At work, or on its way to the announcement: the stop finds no announcement and releases nothing. Both
//     change `sleeping` atomically, so the thread's announcement comes behind the stop's exchange and its
//     second look at `running` sees 0. It takes the announcement back, and leaves by the next empty pop.
//  2. Announced, and its second look sees 0: if it finds the announcement still there, nobody will
//     release and case 1 goes on. If it is gone, whoever took it owes a unit, and the thread acquires it
//     as ever: nothing stays behind.
//  3. Blocked: the stop takes the announcement and its unit goes straight to the waiting thread, never to
//     the stop's own acquire that comes later.
//  4. Announced, but not in line yet: the stop, or a deletion before it, has put the wake-up on the
//     semaphore, and the stop's acquire may be the one that takes it. Then `gThreadLeft` isn't set, so the
//     stop gives the unit back and stays away from the semaphore until it is: the thread takes its unit and
//     leaves.
//
// The thread sets `gThreadLeft` before its last release, and by then it has taken every wake-up that was
// owed to it: the unit on which the stop returns is the one of the exit.

#include "data/purgatory.h"

#include "data/zarn_data.h"
#include "module/allocator.h"
#include "platform/kern.h"

alignas(16) data_purgatory gPurgy;  // keeps the top of the stack inside one cache line on ILP32

static int32_t gThreadLeft;  // 1 once the thread has nothing more to do but its last release

static constexpr int32_t kThreadPriority = 5;
static constexpr int32_t kPollsBeforeSleep = 10000;
static constexpr int64_t kStopPollUs = 1000;

// `count` is a hint: an update may be lost between the load and the store, and the next wake-up comes
// earlier or later.
static inline int32_t change_count(int32_t delta) {
    int32_t before = __atomic_load_n(&gPurgy.count, __ATOMIC_RELAXED);
    __atomic_store_n(&gPurgy.count, before + delta, __ATOMIC_RELAXED);
    return before;
}

void isafe_delete_zarn_data(zarn_data_t *data) {
    for (mem_node **link = &data->freelist; *link != nullptr;) {
        mem_node *node = *link;
        free_descriptor *descriptor = (free_descriptor *)node->base;
        if ((descriptor->flags & FREE_INTERRUPT_SAFE) != 0) {
            if (kern_fetch_add(&descriptor->ref_count, -1) != 1) {
                *link = node->next;
                continue;
            }
            free_elements(descriptor);
        }
        link = &node->next;
    }
    atomic_push(&gPurgy.stack, data);
    if (change_count(1) < gPurgy.threshold) return;
    if (kern_fetch_and(&gPurgy.sleeping, 0) != 0) kern_sem_release_ex(gPurgy.sem, 1, KERN_SEM_NO_RESCHEDULE);
}

static void release_buffer(zarn_data_t *data) {
    for (mem_node *node = data->freelist; node != nullptr; node = node->next) {
        free_descriptor *descriptor = (free_descriptor *)node->base;
        if ((descriptor->flags & FREE_INTERRUPT_SAFE) != 0) {
            zarn_free(descriptor);
        } else if (kern_fetch_add(&descriptor->ref_count, -1) <= 1) {
            release_descriptor(descriptor);
        }
    }
    free_node_pools(data);
    zarn_free(data);
}

// Pairs with the store in `uninit_data_purgatory`: whoever sees 0 also sees every buffer that was deleted
// before the stop.
static inline bool is_stopping(const data_purgatory *purgatory) {
    return __atomic_load_n(&purgatory->running, __ATOMIC_ACQUIRE) == 0;
}

int32_t purgatory_thread_func(void *arg) {
    data_purgatory *purgatory = (data_purgatory *)arg;
    for (;;) {
        // Read before the pop: only a stack that was empty when the stop had begun stays empty. The other
        // way round a buffer could arrive between an empty pop and the stop, and be left behind.
        bool stopping = is_stopping(purgatory);
        void *top = atomic_pop(&purgatory->stack);
        if (top != &purgatory->stack.sentinel) {
            change_count(-1);
            release_buffer((zarn_data_t *)top);
            continue;
        }
        if (stopping) break;
        // Whatever steps the count has lost end here: it doesn't drift from one sleep to the next.
        __atomic_store_n(&purgatory->count, 0, __ATOMIC_RELAXED);
        kern_fetch_or(&purgatory->sleeping, 1);
        if (is_stopping(purgatory) && kern_fetch_and(&purgatory->sleeping, 0) != 0) continue;
        kern_sem_acquire_ex(purgatory->sem, 1, 0, 0);
    }
    __atomic_store_n(&gThreadLeft, 1, __ATOMIC_RELEASE);
    kern_sem_release_ex(purgatory->sem, 1, KERN_SEM_NO_RESCHEDULE);
    return 0;
}

int32_t init_data_purgatory(int32_t threshold) {
    gPurgy.sem = kern_sem_create(0, "zarn_data purgatory");
    if (gPurgy.sem < 0) return gPurgy.sem;
    gPurgy.thread = kern_thread_spawn(purgatory_thread_func, "zarn_data purgatory", kThreadPriority, &gPurgy);
    if (gPurgy.thread < 0) {
        kern_sem_delete(gPurgy.sem);
        return gPurgy.thread;
    }
    // The thread is still suspended, and nobody deletes yet.
    gPurgy.running = 1;
    gPurgy.sleeping = 0;
    gPurgy.stack.top.generation = 0;
    init_atomic_stack(&gPurgy.stack);
    gPurgy.count = 0;
    gPurgy.threshold = threshold;
    gThreadLeft = 0;
    kern_thread_resume(gPurgy.thread);
    return 0;
}

static inline bool has_thread_left() {
    return __atomic_load_n(&gThreadLeft, __ATOMIC_ACQUIRE) != 0;
}

int32_t uninit_data_purgatory() {
    __atomic_store_n(&gPurgy.running, 0, __ATOMIC_RELEASE);
    if (kern_fetch_and(&gPurgy.sleeping, 0) != 0) kern_sem_release_ex(gPurgy.sem, 1, KERN_SEM_NO_RESCHEDULE);
    kern_sem_acquire_ex(gPurgy.sem, 1, 0, 0);
    if (!has_thread_left()) {
        // The wake-up of a thread on its way into the line (case 4). The way is a few instructions long.
        kern_sem_release_ex(gPurgy.sem, 1, KERN_SEM_NO_RESCHEDULE);
        for (int32_t polls = 0; !has_thread_left(); ++polls)
            kern_sleep_us(polls < kPollsBeforeSleep ? 0 : kStopPollUs);
        kern_sem_acquire_ex(gPurgy.sem, 1, 0, 0);
    }
    return kern_sem_delete(gPurgy.sem);
}
