// SPDX-License-Identifier: MIT
#include "host/frame_slots.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

struct slot {
    frame_slots *owner;
    alignas(2 * sizeof(void *)) uint8_t bytes[kSlotBytes];
};
static_assert(sizeof(slot) == kSlotSize);

// The free function of a frame's pieces.
void recycle_slot(void *bytes) {
    slot *block = reinterpret_cast<slot *>(static_cast<uint8_t *>(bytes) - offsetof(slot, bytes));
    frame_slots *owner = block->owner;
    owner->util->mp_free(owner->pool, block);
    __atomic_fetch_sub(&owner->out, 1, __ATOMIC_RELEASE);  // pairs with the load in delete_frame_slots
}

slot *take_slot(frame_slots *slots) {
    slot *block = static_cast<slot *>(slots->util->mp_alloc(slots->pool));
    if (block == nullptr) return nullptr;
    block->owner = slots;
    __atomic_fetch_add(&slots->out, 1, __ATOMIC_RELAXED);
    return block;
}

}  // namespace

int32_t create_frame_slots(frame_slots *slots, zarn_util_module_t *util, int32_t count) {
    *slots = {util, nullptr, nullptr, 0};
    slots->memory = aligned_alloc(kSlotSize, kSlotSize * static_cast<size_t>(count));
    if (slots->memory == nullptr) return ERR_NO_MEMORY;
    slots->pool = util->new_mempool(slots->memory, kSlotSize, count);
    if (slots->pool != nullptr) return 0;
    free(slots->memory);
    slots->memory = nullptr;
    return ERR_NO_MEMORY;
}

int32_t delete_frame_slots(frame_slots *slots) {
    int32_t out = __atomic_load_n(&slots->out, __ATOMIC_ACQUIRE);
    if (out != 0 || slots->pool == nullptr) return out;
    slots->util->delete_mempool(slots->pool);
    free(slots->memory);
    *slots = {};
    return 0;
}

zarn_data_t *wrap_frame(frame_slots *slots, const uint8_t *bytes, uint32_t captured, uint32_t on_wire) {
    zarn_util_module_t *util = slots->util;
    zarn_data_t *data = util->new_zarn_data();
    if (data == nullptr) return nullptr;
    data->user_word_1 = on_wire;
    while (captured != 0) {
        uint32_t length = std::min(captured, kSlotBytes);
        slot *piece = take_slot(slots);
        if (piece == nullptr) goto fail;
        memcpy(piece->bytes, bytes, length);
        if (util->append_zarn_data(data, piece->bytes, length, recycle_slot) != 0) {
            // Linked or not, the buffer doesn't own the piece; nobody reads it before the buffer goes.
            recycle_slot(piece->bytes);
            goto fail;
        }
        bytes += length;
        captured -= length;
    }
    return data;

fail:
    util->delete_zarn_data(data);
    return nullptr;
}
