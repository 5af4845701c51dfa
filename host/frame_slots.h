// SPDX-License-Identifier: MIT
//
// The receiving side's memory: slots of a fixed size, as a network card has them, that frames are put into
// and that come back when the last buffer that refers to them goes. A frame that is longer than a slot is
// scattered over several.
//
// - Wrapping and giving back are lock-free and work at interrupt level as long as the module's own pools have
// blocks.
// - The slots outlive every buffer that was made from them: `delete_frame_slots` with slots still out is
// refused.

#ifndef ZARN_HOST_FRAME_SLOTS_H
#define ZARN_HOST_FRAME_SLOTS_H

#include <zarn/zarn_util.h>

#include <cstdint>

// Bytes that fit into one slot: a pool's blocks are powers of two, and a word in front tells whose slot it
// is.
constexpr uint32_t kSlotSize = 2048;
constexpr uint32_t kSlotBytes = kSlotSize - 2 * sizeof(void *);

struct frame_slots {
    zarn_util_module_t *util;
    mempool_t *pool;
    void *memory;
    int32_t out;  // slots that hold a frame; atomic
};

// Returns 0 or ERR_NO_MEMORY.
int32_t create_frame_slots(frame_slots *slots, zarn_util_module_t *util, int32_t count);

// Returns how many slots are still out; the memory goes only when that is 0.
int32_t delete_frame_slots(frame_slots *slots);

// A new buffer over a copy of the frame, with `on_wire` in its `user_word_1`; null when slots or blocks have
// run out.
zarn_data_t *wrap_frame(frame_slots *slots, const uint8_t *bytes, uint32_t captured, uint32_t on_wire);

#endif
