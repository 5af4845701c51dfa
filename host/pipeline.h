// SPDX-License-Identifier: MIT
//
// The way of a frame from the wire to the protocols: the receiving side wraps it, a FIFO with a byte limit
// takes it to the consumer's thread, and that runs the protocols.
//
//     thread level       offer_frame: wrap ----------------------------> FIFO -> consumer -> protocols
//     interrupt level    offer_frame: stage -> signal: wrap -> ring -> receiver thread -> FIFO -> ...
//
// - One thread offers frames. When slots or the FIFO are full it waits for the consumer, or the frame is
//   dropped.
// - A consumer with nothing to do while slots are wanted makes no room any more: modules keep all of them.
//   When none comes back for kStalledSeconds, the frame is refused.
// - At interrupt level nothing waits and nothing reaches the heap or a lock: the handler takes what it can,
//   and whoever offers the frame waits for room and raises the signal again. What is dropped there goes
//   through `isafe_delete_zarn_data`.
// - The counts of the protocols, and those of `dma`, may be read between `drain_pipeline` and the next frame.

#ifndef ZARN_HOST_PIPELINE_H
#define ZARN_HOST_PIPELINE_H

#include <pthread.h>
#include <zarn/zarn_util.h>

#include "host/bell.h"
#include "host/capture_reader.h"
#include "host/dma_check.h"
#include "host/frame_slots.h"
#include "host/protocol_stack.h"

// The FIFO's limit: the longest frame fits.
constexpr uint32_t kQueueBytes = 262144;
constexpr uint32_t kRingSize = 64;

constexpr int32_t kStalledSeconds = 5;

enum class frame_fate { kTaken, kDropped, kNoMemory, kStalled };

// What the interrupt handler works on. Its ring has one writer, the handler, and one reader, the thread that
// the handler interrupts.
struct interrupt_side {
    pthread_t thread;
    int32_t arrived_sem;  // a unit for each buffer in the ring
    int32_t done_sem;     // a unit when the handler has dealt with what was staged
    int32_t ready;        // atomic: something is staged; the fields below are the handler's while it is
    const captured_frame *frame;
    uint32_t mark;
    bool drop;
    int32_t status;
    zarn_data_t *ring[kRingSize];
    uint32_t head, tail;  // atomic; count up and wrap
};

struct frame_pipeline {
    const protocol_stack *stack;
    bool interrupts;  // frames are received at interrupt level
    bool drop;
    bool check_dma;  // the consumer wires and maps each frame before the protocols get it
    dma_counts dma;  // since the caller last set them to 0
    frame_slots slots;
    zarn_fifo_t fifo;
    bell fifo_room;       // rung by the consumer; whoever fills the FIFO waits
    bell wire_room;       // rung by the consumer and by the receiver thread; whoever offers frames waits
    bool consumer_works;  // atomic: it has a buffer
    int32_t marks_sem;    // a unit for each mark that has come to its end
    uint64_t dropped;     // atomic
    interrupt_side interrupt;
    int32_t threads_before;  // threads of the kernel when the first of ours was made
};

// Makes the threads and what is between them. False, with a line on stderr and nothing left, when something
// can't be had.
bool start_pipeline(frame_pipeline *pipeline, const protocol_stack *stack, bool interrupts, bool drop,
                    bool check_dma);

// Takes the frame's bytes over, by a copy, unless it is dropped or refused: kNoMemory, kStalled.
frame_fate offer_frame(frame_pipeline *pipeline, const captured_frame *frame);

// Waits until every frame that was taken has been through the protocols. Returns how many were dropped since
// the last time.
uint64_t drain_pipeline(frame_pipeline *pipeline);

// Ends the threads. Returns how many slots did not come back.
int32_t stop_pipeline(frame_pipeline *pipeline);

#endif
