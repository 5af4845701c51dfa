// SPDX-License-Identifier: MIT
//
// mempool_t: a pool of fixed-size blocks over memory that the caller owns.
//
// - `mp_alloc` and `mp_free` work on any thread and at any interrupt level, also at the same time on one
//   pool; they never block and never reach the heap. `new_mempool` and `delete_mempool` use the heap: thread
//   level.
// - The links lie in descriptors behind the record, never in the blocks: a block has no header, all of it is
//   the user's, and nothing that the user writes into a block can harm the pool.
//
//                   mp_alloc   mp_free   delete_mempool        - free    X the caller excludes
//  mp_alloc            -          -            X
//  mp_free             -          -            X
//  delete_mempool      X          X            X

#ifndef ZARN_MEMORY_MEMPOOL_H
#define ZARN_MEMORY_MEMPOOL_H

#include <stddef.h>
#include <stdint.h>

#include "memory/atomic_stack.h"

// Stands for one block. Descriptors live as long as the pool, which is what makes a stale link in a pop
// harmless.
struct mp_descriptor {
    void *next;   // the link of the stack
    void *block;  // constant after creation
};

struct mempool_t {
    void *base;                 // block 0; the blocks lie back to back from here
    atomic_stack_t free_stack;  // the descriptors of the free blocks
    uint32_t shift;             // log2 of the block size

    // The descriptors, one per block, lie directly behind the record in the same allocation.
    mp_descriptor *descriptors() { return (mp_descriptor *)(this + 1); }
};

static_assert(sizeof(void *) != 4 || (offsetof(mempool_t, free_stack) == 4 &&
                                      offsetof(mempool_t, shift) == 16 && sizeof(mempool_t) == 20));
static_assert(offsetof(mempool_t, free_stack) % alignof(tagged_pointer) == 0);
static_assert(sizeof(mempool_t) % alignof(mp_descriptor) == 0);

extern "C" {

// Makes a pool of `count` blocks of `block_size` bytes at `base`. The block size is a power of two. The new
// pool hands its blocks out in ascending order; from then on the block given back last is the next one handed
// out. Null when the heap has no room.
mempool_t *new_mempool(void *base, uint32_t block_size, int32_t count);

// Frees the pool, not the memory at its base. Blocks that are out must not be used or given back afterwards.
void delete_mempool(mempool_t *pool);

// A free block, or null when there is none. The pool never grows.
void *mp_alloc(mempool_t *pool);

// Gives back a block that `mp_alloc` of this pool returned, once. Nothing is checked.
void mp_free(mempool_t *pool, void *block);
}

#endif
