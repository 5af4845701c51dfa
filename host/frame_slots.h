// SPDX-License-Identifier: MIT
//
// The receiving side's memory: slots of a fixed size, as a network card has them, that frames are put into
// and that come back when the last buffer that refers to them goes. A frame that is longer than a slot is
// scattered over several.
//
// - Wrapping and giving back are lock-free. With fewer slots than the module's pools have blocks they do not
//   reach the heap either, and work at interrupt level.
// - The slots outlive every buffer that was made from them: with slots out `delete_frame_slots` refuses.

#ifndef ZARN_HOST_FRAME_SLOTS_H
#define ZARN_HOST_FRAME_SLOTS_H

#include <zarn/zarn_util.h>

#include <cstdint>

#include "host/capture_reader.h"

// A pool's blocks are powers of two, and a word in front tells whose slot it is.
constexpr uint32_t kSlotSize = 2048;
constexpr uint32_t kSlotBytes = kSlotSize - 2 * sizeof(void *);

// For captures. The longest frame takes 130; each buffer takes a medium block of the module's 256, and one
// more for ten pieces.
constexpr int32_t kSlots = 192;

struct frame_slots {
    zarn_util_module_t *util;
    mempool_t *pool;
    void *memory;
    int32_t count;
    int32_t slots_out;   // slots that hold a frame; atomic
    int32_t pieces_out;  // of the buffers that were wrapped at interrupt level and still exist; atomic
};

enum class wrap_level { kThread, kInterrupt };

// Returns 0 or ERR_NO_MEMORY.
int32_t create_frame_slots(frame_slots *slots, zarn_util_module_t *util, int32_t count);

// Returns how many slots are still out, or claimed by buffers that are; the memory goes only when that is 0.
int32_t delete_frame_slots(frame_slots *slots);

// Makes a buffer over a copy of the frame, with the length that it had on the wire in `user_word_1` and 0 in
// `user_word_2`. The slots of a buffer that was wrapped at interrupt level may also come back there.
// 0; ERR_WOULD_BLOCK as long as too few slots are free; ERR_NO_MEMORY.
int32_t wrap_frame(frame_slots *slots, const captured_frame *frame, wrap_level level, zarn_data_t **out);

// How many slots hold no frame.
inline int32_t count_free_slots(const frame_slots *slots) {
    return slots->count - __atomic_load_n(&slots->slots_out, __ATOMIC_RELAXED);
}

// kSlotBytes of memory for a frame that is received right into them; null as long as all slots hold one.
uint8_t *take_slot(frame_slots *slots);

// Gives such memory back; also from a thread or at a level other than that which has taken it.
void recycle_slot(void *bytes);

// Makes a buffer over the first `length` bytes of a slot, which comes back with the buffer's last reference.
// Null without memory: the slot is still the caller's.
zarn_data_t *wrap_slot(frame_slots *slots, uint8_t *bytes, uint32_t length);

#endif
