// SPDX-License-Identifier: MIT
//
// The token of a locked buffer: which memory was wired, so that unlocking needs neither the buffer nor its
// nodes. The operations are declared beside the others on buffers, in data/zarn_data.h.

#ifndef ZARN_DATA_MEMORY_LOCK_H
#define ZARN_DATA_MEMORY_LOCK_H

#include <stddef.h>

#include <zarn/zarn_data.h>

#include "memory/address_cache.h"
#include "module/allocator.h"

// One node, as it was at the time of the lock.
struct locked_piece {
    void *base;
    uint32_t len;
    address_spec *spec;  // null when the piece could be wired only, not cached
};

// The pieces, in the order of the list, lie directly behind the record in the same block.
struct lock_token {
    alignas(locked_piece) int32_t count;  // 1 or more

    locked_piece *pieces() { return (locked_piece *)(this + 1); }
};

static_assert(sizeof(lock_token) == sizeof(void *));
static_assert(sizeof(locked_piece) == 3 * sizeof(void *));

// The table that the kernel's runs go through on their way to the caller's: one large block.
constexpr uint32_t kScratchRuns = kLargeBlock / sizeof(memory_run);
static_assert(kScratchRuns == (sizeof(void *) == 4 ? 256 : 128));

#endif
