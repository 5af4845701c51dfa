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

// A free function, too, with an extra argument: an element that isn't safe at interrupt level is freed right
// before the buffer's own block. The element stands for how many pieces the buffer had.
void return_pieces(void *slots, void *pieces) {
    __atomic_fetch_sub(&static_cast<frame_slots *>(slots)->pieces_out,
                       static_cast<int32_t>(reinterpret_cast<intptr_t>(pieces)), __ATOMIC_RELEASE);
}

// The buffer, still empty. One that is deleted at interrupt level gives its slots back before its own blocks,
// so there the slots alone don't bound how many blocks are out, and the heap is no place to go to.
int32_t new_buffer(frame_slots *slots, int32_t pieces, wrap_level level, zarn_data_t **out) {
    zarn_util_module_t *util = slots->util;
    void *element = reinterpret_cast<void *>(static_cast<intptr_t>(pieces));
    if (level == wrap_level::kThread) {
        *out = util->new_zarn_data();
        return *out != nullptr ? 0 : ERR_NO_MEMORY;
    }
    if (__atomic_add_fetch(&slots->pieces_out, pieces, __ATOMIC_ACQUIRE) > slots->count) {
        return_pieces(slots, element);
        return ERR_WOULD_BLOCK;
    }
    *out = util->new_zarn_data();
    if (*out != nullptr &&
        util->add_free_element(*out, element, slots, zarn_free_func_from_ext(return_pieces), 0) == 0) {
        return 0;
    }
    return_pieces(slots, element);
    if (*out != nullptr) util->isafe_delete_zarn_data(*out);
    return ERR_NO_MEMORY;
}

// Even a frame of which nothing was captured has a slot, so that the slots bound the number of buffers.
int32_t append_piece(zarn_util_module_t *util, zarn_data_t *data, uint8_t *piece, uint32_t length,
                     wrap_level level) {
    if (level == wrap_level::kThread && length != 0)
        return util->append_zarn_data(data, piece, length, recycle_slot);
    int32_t status = util->append_zarn_data(data, piece, length, nullptr);
    if (status != 0) return status;
    return util->add_free_element(data, piece, nullptr, recycle_slot, FREE_INTERRUPT_SAFE);
}

}  // namespace

int32_t create_frame_slots(frame_slots *slots, zarn_util_module_t *util, int32_t count) {
    *slots = {util, nullptr, nullptr, count, 0, 0};
    slots->memory = aligned_alloc(kSlotSize, kSlotSize * static_cast<size_t>(count));
    if (slots->memory == nullptr) return ERR_NO_MEMORY;
    slots->pool = util->new_mempool(slots->memory, kSlotSize, count);
    if (slots->pool != nullptr) return 0;
    free(slots->memory);
    slots->memory = nullptr;
    return ERR_NO_MEMORY;
}

int32_t delete_frame_slots(frame_slots *slots) {
    int32_t out = std::max(__atomic_load_n(&slots->slots_out, __ATOMIC_ACQUIRE),
                           __atomic_load_n(&slots->pieces_out, __ATOMIC_ACQUIRE));
    if (out != 0 || slots->pool == nullptr) return out;
    slots->util->delete_mempool(slots->pool);
    free(slots->memory);
    *slots = {};
    return 0;
}

uint8_t *take_slot(frame_slots *slots) {
    slot *block = static_cast<slot *>(slots->util->mp_alloc(slots->pool));
    if (block == nullptr) return nullptr;
    block->owner = slots;
    __atomic_fetch_add(&slots->slots_out, 1, __ATOMIC_RELAXED);
    return block->bytes;
}

// The free function of a frame's pieces. The decrement pairs with the load in delete_frame_slots.
void recycle_slot(void *bytes) {
    slot *block = reinterpret_cast<slot *>(static_cast<uint8_t *>(bytes) - offsetof(slot, bytes));
    frame_slots *owner = block->owner;
    owner->util->mp_free(owner->pool, block);
    __atomic_fetch_sub(&owner->slots_out, 1, __ATOMIC_RELEASE);
}

zarn_data_t *wrap_slot(frame_slots *slots, uint8_t *bytes, uint32_t length) {
    zarn_util_module_t *util = slots->util;
    zarn_data_t *data = util->new_zarn_data();
    if (data == nullptr) return nullptr;
    if (append_piece(util, data, bytes, length, wrap_level::kInterrupt) == 0) {
        data->user_word_1 = length;
        data->user_word_2 = 0;
        return data;
    }
    util->delete_zarn_data(data);
    return nullptr;
}

int32_t wrap_frame(frame_slots *slots, const captured_frame *frame, wrap_level level, zarn_data_t **out) {
    zarn_util_module_t *util = slots->util;
    zarn_data_t *data = nullptr;
    uint32_t pieces = std::max<uint32_t>(1, (frame->captured + kSlotBytes - 1) / kSlotBytes);
    int32_t status = new_buffer(slots, static_cast<int32_t>(pieces), level, &data);
    if (status != 0) return status;
    // Some writers give an original length below the captured one; the frame then had what was captured.
    data->user_word_1 = std::max(frame->captured, frame->on_wire);
    for (uint32_t i = 0; i < pieces; i++) {
        uint32_t done = i * kSlotBytes;
        uint32_t length = std::min(frame->captured - done, kSlotBytes);
        uint8_t *piece = take_slot(slots);
        if (piece == nullptr) {
            status = ERR_WOULD_BLOCK;
            goto fail;
        }
        if (length != 0) memcpy(piece, frame->bytes + done, length);
        if (append_piece(util, data, piece, length, level) != 0) {
            // Linked or not, the buffer doesn't own the piece; nobody reads it before the buffer goes.
            recycle_slot(piece);
            status = ERR_NO_MEMORY;
            goto fail;
        }
    }
    *out = data;
    return 0;

fail:
    if (level == wrap_level::kInterrupt) {
        util->isafe_delete_zarn_data(data);
    } else {
        util->delete_zarn_data(data);
    }
    return status;
}
