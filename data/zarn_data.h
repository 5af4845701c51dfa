// SPDX-License-Identifier: MIT
//
// The operations on buffers, as the module itself calls them, and the few helpers that the files of this
// folder share. The records are in <zarn/zarn_data.h>; what an operation promises to a client is told in
// <zarn/zarn_util.h>.
//
// A buffer has one owner at a time and no lock; nothing here protects two callers of one buffer from each
// other.

#ifndef ZARN_DATA_ZARN_DATA_H
#define ZARN_DATA_ZARN_DATA_H

#include <zarn/memory_run.h>
#include <zarn/zarn_data.h>

extern "C" {

// buffer.cc: creation, deletion, linking of memory
zarn_data_t *new_zarn_data();
void delete_zarn_data(zarn_data_t *data);
int32_t add_free_element(zarn_data_t *data, void *element, void *ext_arg, zarn_free_func free_func,
                         uint16_t flags);
int32_t prepend_zarn_data(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func);
int32_t append_zarn_data(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func);
int32_t insert_zarn_data(zarn_data_t *data, uint32_t offset, void *addr, uint32_t length,
                         zarn_free_func free_func);
uint32_t get_zarn_data_iovecs(zarn_data_t *data, zarn_iovec *table, uint32_t count);
uint32_t count_zarn_data_iovecs(zarn_data_t *data);

// slicing.cc: ranges between and inside buffers
int32_t clone_zarn_data(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length);
int32_t copy_zarn_data(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length);
int32_t coalesce_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length);
int32_t disassociate_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length);
uint32_t copy_from_zarn_data(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length);
int32_t trim_zarn_data(zarn_data_t *data, uint32_t offset, uint32_t length);
int32_t map_to_zarn_data(zarn_data_t *data, uint32_t offset, void **out, uint32_t length);

// checksum.cc: Internet checksums, over the plain sums of data/checksum.h
uint32_t get_zarn_checksum(const void *buf, uint32_t length, uint16_t seed);
uint32_t get_zarn_data_checksum(zarn_data_t *data, uint32_t offset, uint32_t length);
uint32_t copy_and_checksum_data(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length);

// memory_lock.cc: wiring and physical runs
lock_token *lock_zarn_data(zarn_data_t *data);
void unlock_zarn_data(lock_token *token);
int32_t get_data_memory_map(zarn_data_t *data, memory_run *table, uint32_t count, uint8_t no_fault);

// dump.cc: the debugger command "zarn_data"
int32_t zarn_data_dump(int32_t argc, char **argv);

// purgatory.cc: deletion from any context
void isafe_delete_zarn_data(zarn_data_t *data);
}

// True when `offset` + `length` does not exceed the buffer's length, whatever the sum of the two does in
// 32 bits.
inline bool data_range_is_valid(const zarn_data_t *data, uint32_t offset, uint32_t length) {
    return length <= data->length && offset <= data->length - length;
}

// The nodes of a pool lie directly behind its head, in the pool inside a buffer as in one of its own.
inline mem_node *pool_nodes(mem_node_pool *pool) {
    return (mem_node *)(pool + 1);
}

// Puts a pool with NODE_POOL_NODES fresh nodes at the head of the chain. 1, or 0 without memory, with
// nothing changed.
int32_t new_mnp(zarn_data_t *data);

// A node for either list, or null without memory. Nodes are used from the last of a pool to the first,
// and none comes back.
inline mem_node *take_node(zarn_data_t *data) {
    if (data->nodepools->n == 0 && !new_mnp(data)) [[unlikely]]
        return nullptr;
    mem_node_pool *pool = data->nodepools;
    return &pool_nodes(pool)[--pool->n];
}

// Where a byte lies: the link that points at its node, and its distance from the node's first byte.
struct data_place {
    mem_node **link;
    uint32_t distance;
};

// The first node whose end lies beyond `offset`. A node that ends exactly there is passed by, and so is
// an empty one. `*link` is null when the list ends before that; then `link` is the list's end.
inline data_place locate_data(zarn_data_t *data, uint32_t offset) {
    mem_node **link = &data->datalist;
    while (*link != nullptr && (*link)->len <= offset) {
        offset -= (*link)->len;
        link = &(*link)->next;
    }
    return {link, offset};
}

// The link at the end of the data, where the next piece goes.
inline mem_node **data_end(zarn_data_t *data) {
    mem_node **link = &data->datalist;
    while (*link != nullptr)
        link = &(*link)->next;
    return link;
}

// Calls the descriptor's free function on its elements, in the order in which they were added. Only for
// whoever dropped the last reference.
void free_elements(const free_descriptor *descriptor);

// The same, and gives the descriptor's own block back.
void release_descriptor(free_descriptor *descriptor);

// Frees every pool of nodes but the one inside the record. The nodes of both lists are gone behind it.
void free_node_pools(zarn_data_t *data);

#endif
