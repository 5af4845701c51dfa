// SPDX-License-Identifier: MIT
#include "host/pipeline.h"

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "platform/hosted/hosted_kernel.h"

namespace {

constexpr int32_t kThreadPriority = 10;
constexpr int32_t kStalledWaits = kStalledSeconds * 1'000'000 / kLongestWait;

// In `user_word_2` of an empty buffer that follows the frames of a file; 0 in every frame.
enum : uint32_t { kMarkDrained = 1, kMarkLeave = 2 };

bool is_full(int32_t status) {
    return status == ERR_NO_BUFFER_SPACE || status == ERR_WOULD_BLOCK;
}

// Whether anything can still make room: the consumer by what it has to do, others by giving slots back.
bool is_alive(const frame_pipeline *pipeline, int32_t *fewest_out) {
    const int32_t out = __atomic_load_n(&pipeline->slots.slots_out, __ATOMIC_RELAXED);
    const bool came_back = out < *fewest_out;
    if (came_back) *fewest_out = out;
    return came_back || __atomic_load_n(&pipeline->consumer_works, __ATOMIC_RELAXED) ||
           __atomic_load_n(&pipeline->fifo.current_bytes, __ATOMIC_RELAXED) != 0;
}

// Calls `attempt` until it finds room, or once if nobody is to wait. The last result: after a wait it tells
// of no room when nothing has been alive for kStalledSeconds. Waits are counted, not time, which goes on
// while the debugger has stopped everybody.
template <typename Attempt>
int32_t attempt_with_room(const frame_pipeline *pipeline, bell *room, bool wait, Attempt attempt) {
    int32_t status = attempt(), fewest_out = INT32_MAX, dead_waits = 0;
    while (wait && is_full(status) && dead_waits < kStalledWaits) {
        announce_wait(room);
        status = attempt();
        if (!is_full(status)) break;
        const bool rung = wait_for_bell(room);
        dead_waits = is_alive(pipeline, &fewest_out) ? 0 : dead_waits + !rung;
    }
    return status;
}

// A mark has no slot: it comes through when all of them are out.
int32_t make_mark(zarn_util_module_t *util, zarn_data_t **out) {
    *out = util->new_zarn_data();
    return *out != nullptr ? 0 : ERR_NO_MEMORY;
}

void count_drop(frame_pipeline *pipeline) {
    __atomic_fetch_add(&pipeline->dropped, 1, __ATOMIC_RELAXED);
}

// The consumer

int32_t consume(void *argument) {
    frame_pipeline *pipeline = static_cast<frame_pipeline *>(argument);
    zarn_util_module_t *util = pipeline->stack->util;
    uint32_t mark = 0;
    while (mark != kMarkLeave) {
        zarn_data_t *data;
        // Nothing interrupts this thread or deletes the FIFO under it: without a buffer there is only to
        // try again.
        if (util->dequeue_zarn_fifo_data(&pipeline->fifo, &data, KERN_TIMEOUT_FOREVER, 0) < 0) continue;
        __atomic_store_n(&pipeline->consumer_works, true, __ATOMIC_RELAXED);
        mark = data->user_word_2;
        if (mark == 0) {
            if (pipeline->check_dma) check_dma(util, data, &pipeline->dma);
            receive_frame(pipeline->stack, data);
        } else {
            util->delete_zarn_data(data);
        }
        // Whoever waits is woken for more than one frame. The queue runs empty at last, so nobody waits for
        // ever.
        if (__atomic_load_n(&pipeline->fifo.current_bytes, __ATOMIC_RELAXED) <= kQueueBytes / 2) {
            ring_bell(&pipeline->fifo_room);
            ring_bell(&pipeline->wire_room);
        }
        __atomic_store_n(&pipeline->consumer_works, false, __ATOMIC_RELAXED);
        if (mark != 0) kern_sem_release(pipeline->marks_sem);
    }
    return 0;
}

// The receiving side at interrupt level

interrupt_side *gInterruptSide;  // atomic; what the signal is about
frame_slots *gInterruptSlots;    // constant while gInterruptSide is set

bool ring_is_full(const interrupt_side *side) {
    return side->head - __atomic_load_n(&side->tail, __ATOMIC_ACQUIRE) == kRingSize;
}

// Puts what is staged into the ring.
int32_t receive_staged(interrupt_side *side) {
    zarn_util_module_t *util = gInterruptSlots->util;
    if (!side->drop && ring_is_full(side)) return ERR_NO_BUFFER_SPACE;
    zarn_data_t *data;
    int32_t status = side->mark != 0
                         ? make_mark(util, &data)
                         : wrap_frame(gInterruptSlots, side->frame, wrap_level::kInterrupt, &data);
    if (status != 0) return status;
    if (ring_is_full(side)) {
        util->isafe_delete_zarn_data(data);
        return ERR_NO_BUFFER_SPACE;
    }
    data->user_word_2 = side->mark;
    side->ring[side->head % kRingSize] = data;
    __atomic_store_n(&side->head, side->head + 1, __ATOMIC_RELEASE);  // pairs with the load in take_from_ring
    kern_sem_release_ex(side->arrived_sem, 1, KERN_SEM_NO_RESCHEDULE);
    return 0;
}

void on_frame(const siginfo_t *) {
    interrupt_side *side = __atomic_load_n(&gInterruptSide, __ATOMIC_ACQUIRE);
    // Others may send the signal, too, and it may then meet any thread.
    if (side == nullptr || !pthread_equal(pthread_self(), side->thread)) return;
    if (__atomic_load_n(&side->ready, __ATOMIC_ACQUIRE) == 0) return;
    side->status = receive_staged(side);
    __atomic_store_n(&side->ready, 0, __ATOMIC_RELEASE);
    kern_sem_release_ex(side->done_sem, 1, KERN_SEM_NO_RESCHEDULE);
}

zarn_data_t *take_from_ring(interrupt_side *side) {
    if (side->tail == __atomic_load_n(&side->head, __ATOMIC_ACQUIRE)) return nullptr;
    zarn_data_t *data = side->ring[side->tail % kRingSize];
    __atomic_store_n(&side->tail, side->tail + 1, __ATOMIC_RELEASE);  // pairs with the load in ring_is_full
    return data;
}

// The thread that the signal interrupts: takes the buffers from the ring to the FIFO.
int32_t receive(void *argument) {
    frame_pipeline *pipeline = static_cast<frame_pipeline *>(argument);
    interrupt_side *side = &pipeline->interrupt;
    zarn_util_module_t *util = pipeline->stack->util;
    side->thread = pthread_self();
    kern_sem_release(side->done_sem);
    uint32_t mark = 0;
    while (mark != kMarkLeave) {
        kern_sem_acquire(side->arrived_sem);
        zarn_data_t *data = take_from_ring(side);
        if (data == nullptr) continue;
        mark = data->user_word_2;
        ring_bell(&pipeline->wire_room);
        int32_t status = attempt_with_room(pipeline, &pipeline->fifo_room, mark != 0 || !pipeline->drop, [&] {
            return util->enqueue_zarn_fifo_data(&pipeline->fifo, data);
        });
        if (status != 0) {
            util->isafe_delete_zarn_data(data);
            count_drop(pipeline);
        }
    }
    return 0;
}

// Has the handler look at a frame, or at a mark.
int32_t interrupt_with(interrupt_side *side, const captured_frame *frame, uint32_t mark, bool drop) {
    side->frame = frame;
    side->mark = mark;
    side->drop = drop;
    __atomic_store_n(&side->ready, 1, __ATOMIC_RELEASE);  // pairs with the load in on_frame
    // The host's queue of signals may be full of others'.
    while (pthread_sigqueue(side->thread, SIGRTMIN, sigval{}) == EAGAIN)
        kern_sleep_us(1000);
    kern_sem_acquire(side->done_sem);
    return side->status;
}

// The receiving side at thread level

int32_t receive_at_thread_level(frame_pipeline *pipeline, const captured_frame *frame, uint32_t mark,
                                bool wait) {
    zarn_util_module_t *util = pipeline->stack->util;
    zarn_data_t *data;
    int32_t status = attempt_with_room(pipeline, &pipeline->wire_room, wait, [&] {
        if (mark != 0) return make_mark(util, &data);
        profile_bracket bracket(pipeline->stack, "zarn", "receive");
        return wrap_frame(&pipeline->slots, frame, wrap_level::kThread, &data);
    });
    if (status != 0) return status;
    data->user_word_2 = mark;
    status = attempt_with_room(pipeline, &pipeline->fifo_room, wait,
                               [&] { return util->enqueue_zarn_fifo_data(&pipeline->fifo, data); });
    if (status != 0) util->delete_zarn_data(data);
    return status;
}

int32_t send(frame_pipeline *pipeline, const captured_frame *frame, uint32_t mark) {
    bool wait = mark != 0 || !pipeline->drop;
    if (!pipeline->interrupts) return receive_at_thread_level(pipeline, frame, mark, wait);
    return attempt_with_room(pipeline, &pipeline->wire_room, wait,
                             [&] { return interrupt_with(&pipeline->interrupt, frame, mark, !wait); });
}

// Sends a mark behind all frames and waits until the consumer has met it.
void send_mark(frame_pipeline *pipeline, uint32_t mark) {
    while (send(pipeline, nullptr, mark) != 0)
        kern_sleep_us(1000);  // out of memory: what is queued gives some back
    kern_sem_acquire(pipeline->marks_sem);
}

bool start_thread(int32_t (*function)(void *), const char *name, frame_pipeline *pipeline) {
    int32_t thread = kern_thread_spawn(function, name, kThreadPriority, pipeline);
    return thread >= 0 && kern_thread_resume(thread) == 0;
}

void delete_between(frame_pipeline *pipeline) {
    zarn_util_module_t *util = pipeline->stack->util;
    if (pipeline->fifo.wait_sem > 0) util->delete_zarn_fifo(&pipeline->fifo);
    for (int32_t sem : {pipeline->fifo_room.sem, pipeline->wire_room.sem, pipeline->marks_sem,
                        pipeline->interrupt.arrived_sem, pipeline->interrupt.done_sem}) {
        if (sem >= 0) kern_sem_delete(sem);
    }
}

bool create_between(frame_pipeline *pipeline) {
    zarn_util_module_t *util = pipeline->stack->util;
    bool created = create_bell(&pipeline->fifo_room, "room in the fifo") == 0;
    created = create_bell(&pipeline->wire_room, "room for frames") == 0 && created;
    pipeline->marks_sem = kern_sem_create(0, "marks");
    pipeline->interrupt.arrived_sem = kern_sem_create(0, "frames in the ring");
    pipeline->interrupt.done_sem = kern_sem_create(0, "interrupt done");
    created = created && pipeline->marks_sem >= 0 && pipeline->interrupt.arrived_sem >= 0 &&
              pipeline->interrupt.done_sem >= 0;
    if (created && util->create_zarn_fifo(&pipeline->fifo, "frames", kQueueBytes) == 0) return true;
    pipeline->fifo.wait_sem = -1;
    delete_between(pipeline);
    return false;
}

bool start_interrupts(frame_pipeline *pipeline) {
    interrupt_side *side = &pipeline->interrupt;
    if (!start_thread(receive, "receiver", pipeline)) return false;
    kern_sem_acquire(side->done_sem);  // `thread` is set
    gInterruptSlots = &pipeline->slots;
    __atomic_store_n(&gInterruptSide, side, __ATOMIC_RELEASE);
    hosted_install_interrupt(SIGRTMIN, on_frame);
    return true;
}

void stop_interrupts() {
    hosted_install_interrupt(SIGRTMIN, nullptr);
    __atomic_store_n(&gInterruptSide, nullptr, __ATOMIC_RELEASE);
}

}  // namespace

bool start_pipeline(frame_pipeline *pipeline, const protocol_stack *stack, bool interrupts, bool drop,
                    bool check_dma) {
    *pipeline = {};
    pipeline->stack = stack;
    pipeline->drop = drop;
    pipeline->check_dma = check_dma;
    pipeline->threads_before = hosted_count_objects().threads;
    if (create_frame_slots(&pipeline->slots, stack->util, kSlots) != 0) goto no_slots;
    if (!create_between(pipeline)) goto no_between;
    if (!start_thread(consume, "consumer", pipeline)) goto no_consumer;
    if (interrupts && !start_interrupts(pipeline)) {
        stop_pipeline(pipeline);
        goto no_slots;
    }
    pipeline->interrupts = interrupts;
    return true;

no_consumer:
    delete_between(pipeline);
no_between:
    delete_frame_slots(&pipeline->slots);
no_slots:
    fprintf(stderr, "zarn: no memory or no thread for the replay\n");
    return false;
}

frame_fate offer_frame(frame_pipeline *pipeline, const captured_frame *frame) {
    int32_t status = send(pipeline, frame, 0);
    if (status == 0) return frame_fate::kTaken;
    if (!is_full(status)) return frame_fate::kNoMemory;
    if (!pipeline->drop) return frame_fate::kStalled;
    count_drop(pipeline);
    return frame_fate::kDropped;
}

uint64_t drain_pipeline(frame_pipeline *pipeline) {
    send_mark(pipeline, kMarkDrained);
    return __atomic_exchange_n(&pipeline->dropped, 0, __ATOMIC_RELAXED);
}

int32_t stop_pipeline(frame_pipeline *pipeline) {
    send_mark(pipeline, kMarkLeave);
    hosted_wait_for_threads(pipeline->threads_before, KERN_TIMEOUT_FOREVER);
    if (pipeline->interrupts) stop_interrupts();
    delete_between(pipeline);
    return delete_frame_slots(&pipeline->slots);
}
