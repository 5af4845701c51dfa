// SPDX-License-Identifier: MIT
//
// Ranges of bytes between and inside buffers: shared, copied, read out, removed, made contiguous, made
// private.
//
// A range that leaves a buffer frees neither its memory nor its nodes; both stay until the buffer is deleted.
// Memory that an operation allocates belongs to the buffer through a descriptor with `zarn_free`.

#include <zarn/status.h>

#include "data/zarn_data.h"
#include "module/allocator.h"
#include "platform/kern.h"
#include "platform/libc.h"

static inline uint32_t min_of(uint32_t a, uint32_t b) {
    return a < b ? a : b;
}

// Copies one piece and returns the place behind it. An empty piece may have a null base, which `memcpy`
// must not see.
static inline uint8_t *copy_piece(uint8_t *dest, const void *base, uint32_t length) {
    if (length != 0) memcpy(dest, base, length);
    return dest + length;
}

static void copy_whole(const zarn_data_t *data, uint8_t *dest) {
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next)
        dest = copy_piece(dest, node->base, node->len);
}

uint32_t copy_from_zarn_data(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length) {
    if (length == 0 || !data_range_is_valid(data, offset, length)) return 0;
    uint8_t *to = (uint8_t *)dest;
    if (offset == 0 && length == data->length) {
        copy_whole(data, to);
        return length;
    }
    data_place place = locate_data(data, offset);
    const mem_node *node = *place.link;
    uint32_t distance = place.distance;
    for (uint32_t left = length; left != 0; node = node->next, distance = 0) {
        uint32_t n = min_of(node->len - distance, left);
        to = copy_piece(to, (uint8_t *)node->base + distance, n);
        left -= n;
    }
    return length;
}

// Gives `dst` a reference on every descriptor of `src`: a buffer doesn't know which of them owns which
// node's bytes.
static int32_t share_descriptors(zarn_data_t *dst, const zarn_data_t *src) {
    for (const mem_node *held = src->freelist; held != nullptr; held = held->next) {
        mem_node *node = take_node(dst);
        if (node == nullptr) return ERR_NO_MEMORY;
        free_descriptor *descriptor = (free_descriptor *)held->base;
        kern_fetch_add(&descriptor->ref_count, 1);
        node->base = descriptor;
        node->next = dst->freelist;
        dst->freelist = node;
    }
    return 0;
}

int32_t clone_zarn_data(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length) {
    if (!data_range_is_valid(src, offset, length) || length > UINT32_MAX - dst->length) return -1;

    uint32_t flags = dst->flags | (src->flags & (DATA_CLIENT_MASK | DATA_NEEDS_LOCK));
    if ((src->flags & (DATA_NEEDS_LOCK | DATA_LOCKED)) == DATA_NEEDS_LOCK) flags &= ~DATA_LOCKED;
    dst->flags = (uint16_t)(flags & ~DATA_CHECKSUM_CACHED);

    int32_t status = share_descriptors(dst, src);
    if (status != 0) return status;

    mem_node *first = src->datalist;
    if (first != nullptr && offset + length <= first->len) {  // the sum fits: the range is valid
        mem_node **end = data_end(dst);
        mem_node *node = take_node(dst);
        if (node == nullptr) return ERR_NO_MEMORY;
        *node = {(uint8_t *)first->base + offset, length, nullptr};
        *end = node;
        dst->length += length;
        return 0;
    }

    // A range of no bytes may lie behind the last node. Then there is no node to start from, and none is
    // looked at.
    data_place place = locate_data(src, offset);
    const mem_node *piece = *place.link;
    uint32_t distance = place.distance;
    mem_node **end = data_end(dst);
    while (length != 0) {
        mem_node *node = take_node(dst);
        if (node == nullptr) {
            status = ERR_NO_MEMORY;
            break;
        }
        uint32_t n = min_of(piece->len - distance, length);
        node->base = (uint8_t *)piece->base + distance;
        node->len = n;
        piece = piece->next;
        distance = 0;
        length -= n;
        dst->length += n;
        *end = node;
        end = &node->next;
    }
    *end = nullptr;
    return status;
}

int32_t copy_zarn_data(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length) {
    if (!data_range_is_valid(src, offset, length) || length > UINT32_MAX - dst->length) return -1;
    mem_node *node = take_node(dst);
    if (node == nullptr) return ERR_NO_MEMORY;
    void *block = zarn_falloc(length);
    if (block == nullptr) return ERR_NO_MEMORY;
    if (add_free_element(dst, block, nullptr, zarn_free, 0) != 0) {
        zarn_free(block);
        return ERR_NO_MEMORY;
    }

    // The bytes lie in a block of the allocator now: what the source says about wiring isn't true of the
    // copy.
    dst->flags = (uint16_t)((dst->flags | (src->flags & DATA_CLIENT_MASK)) & ~DATA_CHECKSUM_CACHED);
    copy_from_zarn_data(src, offset, block, length);
    *node = {block, length, nullptr};
    *data_end(dst) = node;
    dst->length += length;
    return 0;
}

int32_t trim_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length) {
    if (length == 0 || !data_range_is_valid(data, offset, length)) return -1;
    data->flags &= (uint16_t)~DATA_CHECKSUM_CACHED;

    mem_node *first = data->datalist;
    if (offset == 0 && first != nullptr && length <= first->len) {
        if (length == first->len) {
            data->datalist = first->next;
        } else {
            first->base = (uint8_t *)first->base + length;
            first->len -= length;
        }
        data->length -= length;
        return 0;
    }

    data_place place = locate_data(data, offset);
    mem_node **link = place.link;
    uint32_t distance = place.distance;
    for (uint32_t left = length; left != 0; distance = 0) {
        mem_node *node = *link;
        if (node == nullptr) {
            // The list is shorter than the length says. No sound buffer gets here.
            kern_halt("trimming data %p of length %ld at offset %ld size %ld with no memnodes!\n",
                      (void *)data, (long)data->length, (long)offset, (long)length);
        }
        uint32_t n = min_of(node->len - distance, left);
        uint32_t behind = node->len - distance - n;
        if (distance == 0 && behind == 0) {
            *link = node->next;
        } else if (distance == 0) {
            node->base = (uint8_t *)node->base + n;
            node->len = behind;
        } else {
            if (behind != 0) {
                // The whole range lies inside this node, so this is the first and last step: nothing has
                // changed yet.
                mem_node *tail = take_node(data);
                if (tail == nullptr) return -1;
                *tail = {(uint8_t *)node->base + distance + n, behind, node->next};
                node->next = tail;
            }
            node->len = distance;
            link = &node->next;
        }
        left -= n;
    }
    data->length -= length;
    return 0;
}

int32_t coalesce_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length) {
    if (!data_range_is_valid(data, offset, length)) return -1;
    if (length == 0 && data->datalist == nullptr) return 0;  // no node to reuse, and nothing to put into one

    void *block = zarn_falloc(length);
    if (block == nullptr) return ERR_NO_MEMORY;
    if (length == data->length) {
        copy_whole(data, (uint8_t *)block);
        *data->datalist = {block, length, nullptr};
        data->flags &= (uint16_t)~DATA_NEEDS_LOCK;
    } else {
        copy_from_zarn_data(data, offset, block, length);
        if (trim_zarn_data(data, offset, length) != 0 ||
            insert_zarn_data(data, offset, block, length, nullptr) != 0) {
            zarn_free(block);
            return ERR_NO_MEMORY;
        }
    }
    if (add_free_element(data, block, nullptr, zarn_free, 0) != 0)
        kern_log("coalesce_zarn_data() leaked %ld bytes!\n", (long)length);
    return 0;
}

int32_t disassociate_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length) {
    for (const mem_node *node = data->freelist; node != nullptr; node = node->next) {
        const free_descriptor *descriptor = (const free_descriptor *)node->base;
        // A buffer that sees 1 holds the only reference, and nobody can raise it. Acquire, because the
        // caller goes on to write the bytes: it pairs with the `kern_fetch_add` by which another holder,
        // which may just have read these bytes, dropped its reference.
        if (__atomic_load_n(&descriptor->ref_count, __ATOMIC_ACQUIRE) > 1)
            return coalesce_zarn_data(data, offset, length);
    }
    return 0;
}

int32_t map_to_zarn_data(zarn_data_t *data, uint32_t offset, void **out, uint32_t length) {
    if (length == 0 || !data_range_is_valid(data, offset, length)) return -1;
    // The search finds a range in the first node at once: that is the fast path.
    for (;;) {
        data_place place = locate_data(data, offset);
        const mem_node *node = *place.link;
        if (node == nullptr) return -1;  // the list is shorter than the length says
        if (node->len - place.distance >= length) {
            *out = (uint8_t *)node->base + place.distance;
            return 0;
        }
        // Behind this the range lies in one node.
        if (coalesce_zarn_data(data, offset, length) != 0) return -1;
    }
}
