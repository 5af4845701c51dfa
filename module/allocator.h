// SPDX-License-Identifier: MIT
//
// The allocator of the stack: three pools of fixed blocks in one region, and the heap behind them.
//
// - Whatever any of the three allocation functions gave goes back through `zarn_free`, which tells pool from
//   heap by the address alone: no allocation has a header, and no caller has to remember where its memory
//   came from.
// - The pool path takes no lock and works at interrupt level. A call that reaches the heap is as safe as the
//   heap is; a caller at interrupt level therefore has no guarantee from any function here.

#ifndef ZARN_MODULE_ALLOCATOR_H
#define ZARN_MODULE_ALLOCATOR_H

#include <stdint.h>

#include "memory/mempool.h"

// The classes. The small and the medium block grow with the pointer, because the records that they were cut
// for do: a descriptor is one small block, a buffer or a pool of nodes is one medium block.
constexpr uint32_t kSmallBlock = sizeof(void *) == 4 ? 32 : 64;
constexpr uint32_t kMediumBlock = sizeof(void *) == 4 ? 128 : 256;
constexpr uint32_t kLargeBlock = 2048;
constexpr int32_t kSmallBlocks = 1024;
constexpr int32_t kMediumBlocks = 256;
constexpr int32_t kLargeBlocks = 128;
constexpr uint32_t kRegionBytes =
    kLargeBlock * kLargeBlocks + kMediumBlock * kMediumBlocks + kSmallBlock * kSmallBlocks;

static_assert(kRegionBytes == (sizeof(void *) == 4 ? 0x50000 : 0x60000));

// All zero until `init_mempool`, so that everything goes to the heap; constant from then on.
struct pool_allocator {
    int32_t region;  // id of the region, or the error of its creation
    void *start;     // first address of the region
    void *end;       // first address behind it
    mempool_t *large_pool;
    void *large_base;  // equals `start`: the classes lie in this order, largest first, without gaps
    mempool_t *medium_pool;
    void *medium_base;
    mempool_t *small_pool;
    void *small_base;
};

extern pool_allocator gMP;

// Reserves the region and makes the pools. 0, the error of the region's creation, or ERR_NO_MEMORY with
// nothing left.
int32_t init_mempool();

// Deletes the pools and the region, whatever is still out. Returns the result of the region's deletion.
int32_t uninit_mempool();

extern "C" {

// `size` or more bytes, contents undefined, or null. The pool of the class first, then the heap; a dry pool
// is never replaced by the next larger one.
void *zarn_falloc(uint32_t size);

// As `zarn_falloc`, with the first `size` bytes zero.
void *zarn_zalloc(uint32_t size);

// `size` bytes of the heap, all zero, or null. A size of 0 gives a block as well.
void *zarn_malloc(uint32_t size);

// Gives back what any of the three gave. Null is fine.
void zarn_free(void *block);
}

#endif
