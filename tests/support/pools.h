// SPDX-License-Identifier: MIT
//
// Looking into block pools, and taking their blocks away.

#ifndef ZARN_TESTS_SUPPORT_POOLS_H
#define ZARN_TESTS_SUPPORT_POOLS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "memory/mempool.h"
#include "platform/testing/test_kernel.h"

// Null when the pool of `count` blocks is sound, otherwise what is wrong. As with all that looks into pools
// here, nobody else may use them meanwhile.
const char *mempool_fault(const mempool_t *pool, int32_t count);

// Blocks on the pool's stack.
int32_t free_blocks(const mempool_t *pool);

// A line for each of the allocator's pools with blocks out or a fault.
std::string blocks_out();

// Leaves `n` free blocks in each of the allocator's pools as long as it lives. With none left, each
// allocation becomes a numbered heap call that can be refused.
class dry_pools {
 public:
    explicit dry_pools(int32_t n = 0);
    ~dry_pools();
    dry_pools(const dry_pools &) = delete;

 private:
    std::vector<std::pair<mempool_t *, void *>> taken_;
};

// The same with a heap that refuses everything.
class starved_memory {
 public:
    explicit starved_memory(int32_t n) : pools_(n) { test_kernel::fail_from(1, test_kernel::kHeap); }
    ~starved_memory() { test_kernel::fail_nothing(); }

 private:
    dry_pools pools_;
};

#endif
