// SPDX-License-Identifier: MIT
//
// zarn_data_t: the packet buffer of the stack. It holds no bytes: it chains references to memory that lies
// elsewhere and remembers who frees that memory and how.
//
// - A buffer has one owner at a time and no lock. Queues hand the owner on.
// - A `free_descriptor` is shared by every buffer that can refer to its memory; whoever drops the last
//   reference frees.
// - Clients read `length` and `flags`, and write `user_word_1`, `user_word_2`, `reserved_word` and in `flags`
//   the bits of DATA_CLIENT_MASK and DATA_NEEDS_LOCK. All else is changed by the operations only.
// - Memory that a piece refers to stays valid until the buffer's descriptors are released: removing bytes
//   from a buffer frees nothing.
//
// Two buffers, b a clone of a part of a, sharing one piece of memory:
//
//      a.datalist -> [base,len] ------+             free_descriptor
//      a.freelist -> [ o ]------------|----------->  ref_count 2
//                                     v                  |
//                               |....packet memory....| <- freed by whoever drops the last reference
//                                     ^                  |
//      b.datalist -> [base,len] ------+                  |
//      b.freelist -> [ o ]-------------------------------+

#ifndef ZARN_DATA_H
#define ZARN_DATA_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Frees one element of memory. Runs on whoever drops the last reference, with no lock of the module held.
// With an extra argument the function is a `zarn_free_func_ext`; `zarn_free` is a valid `zarn_free_func`.
typedef void (*zarn_free_func)(void *element);
typedef void (*zarn_free_func_ext)(void *ext_arg, void *element);

// The form in which `add_free_element` takes a function that wants the extra argument.
static inline zarn_free_func zarn_free_func_from_ext(zarn_free_func_ext func) {
    return (zarn_free_func)(void (*)(void))func;
}

// One link of either list of a buffer.
typedef struct mem_node {
    void *base;             // on `datalist` the first byte of the piece, on `freelist` the free_descriptor
    uint32_t len;           // on `datalist` the bytes of the piece; not set on `freelist`
    struct mem_node *next;  // next node of the same list, or null
} mem_node;

// A block of nodes. The nodes lie directly behind this head: 7 in the pool inside a buffer, 10 in a pool of
// its own.
typedef struct mem_node_pool {
    struct mem_node_pool *next;  // the older pool; null only in the pool inside the buffer
    int32_t n;  // nodes not yet handed out; they go from the last to the first and never come back
} mem_node_pool;

#define FIRST_POOL_NODES 7  // nodes of the pool inside a buffer
#define NODE_POOL_NODES 10  // nodes of a pool of its own

#define FREE_INTERRUPT_SAFE 0x0001  // free_descriptor.flags: the free function may run at interrupt level
#define FREE_ELEMENTS 4

// Owns up to four elements with one common free function. A buffer's free list has one node for each
// reference that it holds; the memory of `datalist` may belong to any of its descriptors, or to none.
typedef struct free_descriptor {
    void *ext_arg;                      // extra argument of `func`; null selects the form with one argument
    zarn_free_func func;                // frees one element; its form depends on `ext_arg`
    int32_t ref_count;                  // free-list nodes that point here; atomic
    uint16_t flags;                     // FREE_INTERRUPT_SAFE; other bits mean nothing
    uint16_t first_used;                // lowest used slot: 3 with one element, 0 with four
    void *free_element[FREE_ELEMENTS];  // filled from slot 3 down to slot 0
} free_descriptor;

// zarn_data_t.flags
#define DATA_CHECKSUM_CACHED 0x8000u  // `checksum` is that of the whole buffer; gone with any change
#define DATA_LOCKED 0x2000u           // `lock_zarn_data` has wired every piece
#define DATA_NEEDS_LOCK 0x1000u   // set by clients: the bytes lie in memory that has to be wired for hardware
#define DATA_CLIENT_MASK 0x4fffu  // carried from source to destination and never interpreted

typedef struct zarn_data_t {
    struct zarn_data_t *next;  // link of the queue that holds the buffer; first, for atomic stacks
    uint32_t user_word_1;      // the client's
    uint32_t user_word_2;      // the client's
    mem_node *datalist;        // the pieces in stream order; null when empty
    mem_node *freelist;        // the descriptors that this buffer holds a reference on
    uint32_t length;           // bytes in all pieces together
    uint32_t reserved_word;    // never read or written by the module
    uint16_t flags;            // DATA_...
    uint16_t checksum;         // of all bytes, complemented; meaningful only with DATA_CHECKSUM_CACHED
    mem_node_pool *nodepools;  // the pool that nodes are taken from; newest first, `first_pool` last
    mem_node_pool first_pool;  // the pool inside the record
    mem_node first_nodes[FIRST_POOL_NODES];  // its nodes
} zarn_data_t;

// An entry of the table that `get_zarn_data_iovecs` fills.
typedef struct zarn_iovec {
    void *base;
    uint32_t length;
} zarn_iovec;

// What `lock_zarn_data` returns; opaque to clients, given back with `zarn_free` after the unlock.
typedef struct lock_token lock_token;

#ifdef __cplusplus
}

// Field order and size are interface: clients were compiled against them, and a buffer, a pool of nodes and a
// descriptor each have to fit one block of their class.
static_assert(offsetof(zarn_data_t, next) == 0);
static_assert(offsetof(zarn_data_t, length) == (sizeof(void *) == 4 ? 20 : 32));
static_assert(offsetof(zarn_data_t, flags) == (sizeof(void *) == 4 ? 28 : 40));
static_assert(offsetof(zarn_data_t, nodepools) == (sizeof(void *) == 4 ? 32 : 48));
static_assert(offsetof(zarn_data_t, first_pool) == (sizeof(void *) == 4 ? 36 : 56));
static_assert(offsetof(zarn_data_t, first_nodes) ==
              offsetof(zarn_data_t, first_pool) + sizeof(mem_node_pool));
static_assert(sizeof(zarn_data_t) == (sizeof(void *) == 4 ? 128 : 240));
static_assert(sizeof(mem_node_pool) + NODE_POOL_NODES * sizeof(mem_node) ==
              (sizeof(void *) == 4 ? 128 : 256));
static_assert(sizeof(free_descriptor) == (sizeof(void *) == 4 ? 32 : 56));
static_assert(sizeof(mem_node) == (sizeof(void *) == 4 ? 12 : 24));
#endif

#endif
