// SPDX-License-Identifier: MIT
//
// The core of a buffer: its creation and end, the taking of nodes, the descriptors, and the linking of
// memory.
//
// A descriptor is shared by buffers of different threads. `func`, `ext_arg` and `flags` are constant from
// before it is linked. `first_used` and the elements are written only while one buffer alone holds the
// descriptor, and read only then or by whoever has dropped the last reference.

#include <zarn/status.h>

#include "data/zarn_data.h"
#include "module/allocator.h"
#include "platform/kern.h"

// Each of the three records is one block of a fixed pool.
static constexpr uint32_t kNodePoolBytes = sizeof(mem_node_pool) + NODE_POOL_NODES * sizeof(mem_node);
static_assert(sizeof(zarn_data_t) > kSmallBlock && sizeof(zarn_data_t) <= kMediumBlock);
static_assert(kNodePoolBytes > kSmallBlock && kNodePoolBytes <= kMediumBlock);
static_assert(sizeof(free_descriptor) <= kSmallBlock);

zarn_data_t *new_zarn_data() {
    zarn_data_t *data = (zarn_data_t *)zarn_falloc(sizeof(zarn_data_t));
    if (data == nullptr) return nullptr;
    data->next = nullptr;
    data->user_word_1 = 0;
    data->user_word_2 = 0;
    data->datalist = nullptr;
    data->freelist = nullptr;
    data->length = 0;
    data->flags = 0;
    data->checksum = 0;
    data->nodepools = &data->first_pool;
    data->first_pool.next = nullptr;
    data->first_pool.n = FIRST_POOL_NODES;
    return data;
}

int32_t new_mnp(zarn_data_t *data) {
    mem_node_pool *pool = (mem_node_pool *)zarn_falloc(kNodePoolBytes);
    if (pool == nullptr) return 0;
    pool->next = data->nodepools;
    pool->n = NODE_POOL_NODES;
    data->nodepools = pool;
    return 1;
}

void free_node_pools(zarn_data_t *data) {
    mem_node_pool *pool = data->nodepools;
    while (pool->next != nullptr) {
        mem_node_pool *older = pool->next;
        zarn_free(pool);
        pool = older;
    }
}

void free_elements(const free_descriptor *descriptor) {
    int32_t first_used = descriptor->first_used;
    if (descriptor->ext_arg != nullptr) {
        auto func = (zarn_free_func_ext)(void (*)(void))descriptor->func;
        for (int32_t i = FREE_ELEMENTS - 1; i >= first_used; --i)
            func(descriptor->ext_arg, descriptor->free_element[i]);
    } else {
        for (int32_t i = FREE_ELEMENTS - 1; i >= first_used; --i)
            descriptor->func(descriptor->free_element[i]);
    }
}

void release_descriptor(free_descriptor *descriptor) {
    free_elements(descriptor);
    zarn_free(descriptor);
}

void delete_zarn_data(zarn_data_t *data) {
    for (mem_node *node = data->freelist; node != nullptr; node = node->next) {
        free_descriptor *descriptor = (free_descriptor *)node->base;
        // Releases what this buffer's owner did to the descriptor and its memory, and, for the last
        // holder, acquires what all the others did before they dropped theirs.
        if (kern_fetch_add(&descriptor->ref_count, -1) == 1) release_descriptor(descriptor);
    }
    free_node_pools(data);
    zarn_free(data);
}

// True while this buffer, which holds a reference, is the only one that does. No other thread can raise
// the count then. Acquire, because the caller goes on to write the descriptor: it pairs with the full
// barrier of the `kern_fetch_add` with which another holder dropped its reference, so that nothing this
// holder still read or wrote in the descriptor before that can meet the writes that follow here.
static inline bool is_unshared(const free_descriptor *descriptor) {
    return __atomic_load_n(&descriptor->ref_count, __ATOMIC_ACQUIRE) == 1;
}

int32_t add_free_element(zarn_data_t *data, void *element, void *ext_arg, zarn_free_func free_func,
                         uint16_t flags) {
    for (mem_node *node = data->freelist; node != nullptr; node = node->next) {
        free_descriptor *descriptor = (free_descriptor *)node->base;
        if (descriptor->func == free_func && descriptor->ext_arg == ext_arg && is_unshared(descriptor) &&
            descriptor->first_used != 0) {
            descriptor->free_element[--descriptor->first_used] = element;
            return 0;
        }
    }

    mem_node *node = take_node(data);
    if (node == nullptr) return ERR_NO_MEMORY;
    free_descriptor *descriptor = (free_descriptor *)zarn_falloc(sizeof(free_descriptor));
    if (descriptor == nullptr) return ERR_NO_MEMORY;
    descriptor->ext_arg = ext_arg;
    descriptor->func = free_func;
    descriptor->ref_count = 1;  // private until the buffer is cloned or handed on
    descriptor->flags = flags;
    descriptor->first_used = FREE_ELEMENTS - 1;
    descriptor->free_element[FREE_ELEMENTS - 1] = element;
    node->base = descriptor;
    node->next = data->freelist;
    data->freelist = node;
    return 0;
}

// What is left to do once a piece stands in the list.
static inline int32_t count_and_own(zarn_data_t *data, void *addr, uint32_t length,
                                    zarn_free_func free_func) {
    data->flags &= (uint16_t)~DATA_CHECKSUM_CACHED;
    data->length += length;
    return free_func == nullptr ? 0 : add_free_element(data, addr, nullptr, free_func, 0);
}

int32_t prepend_zarn_data(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func) {
    if (length == 0) return 0;
    if (length > UINT32_MAX - data->length) return -1;
    mem_node *node = take_node(data);
    if (node == nullptr) return -1;
    *node = {addr, length, data->datalist};
    data->datalist = node;
    return count_and_own(data, addr, length, free_func);
}

int32_t append_zarn_data(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func) {
    if (length == 0) return 0;
    if (length > UINT32_MAX - data->length) return -1;
    mem_node *node = take_node(data);
    if (node == nullptr) return -1;
    *node = {addr, length, nullptr};
    *data_end(data) = node;
    return count_and_own(data, addr, length, free_func);
}

int32_t insert_zarn_data(zarn_data_t *data, uint32_t offset, void *addr, uint32_t length,
                         zarn_free_func free_func) {
    if (offset > data->length) return -1;
    if (offset == 0) return prepend_zarn_data(data, addr, length, free_func);
    if (offset == data->length) return append_zarn_data(data, addr, length, free_func);

    if (length > UINT32_MAX - data->length) return -1;
    mem_node *piece = take_node(data);
    if (piece == nullptr) return -1;
    piece->base = addr;
    piece->len = length;

    // Unlike `locate_data` this stops at a node that ends exactly at the offset: the piece goes behind
    // it, unsplit.
    mem_node *node = data->datalist;
    uint32_t distance = offset;
    while (node->len < distance) {
        distance -= node->len;
        node = node->next;
    }
    if (node->len == distance) {
        piece->next = node->next;
    } else {
        mem_node *tail = take_node(data);
        if (tail == nullptr) return -1;
        *tail = {(uint8_t *)node->base + distance, node->len - distance, node->next};
        node->len = distance;
        piece->next = tail;
    }
    node->next = piece;
    return count_and_own(data, addr, length, free_func);
}

uint32_t get_zarn_data_iovecs(zarn_data_t *data, zarn_iovec *table, uint32_t count) {
    uint32_t filled = 0;
    for (mem_node *node = data->datalist; node != nullptr && filled < count; node = node->next) {
        table[filled].base = node->base;
        table[filled].length = node->len;
        ++filled;
    }
    return filled;
}

uint32_t count_zarn_data_iovecs(zarn_data_t *data) {
    uint32_t count = 0;
    for (mem_node *node = data->datalist; node != nullptr; node = node->next)
        ++count;
    return count;
}
