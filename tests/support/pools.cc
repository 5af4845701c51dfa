// SPDX-License-Identifier: MIT

#include "tests/support/pools.h"

#include <sstream>

#include "module/allocator.h"
#include "platform/testing/test_kernel.h"

const char *mempool_fault(const mempool_t *pool, int32_t count) {
    const mp_descriptor *descriptors = const_cast<mempool_t *>(pool)->descriptors();
    const void *sentinel = &pool->free_stack.sentinel;
    if (pool->free_stack.sentinel != sentinel) return "the sentinel doesn't link to itself";
    for (int32_t i = 0; i < count; ++i) {
        if (descriptors[i].block !=
            static_cast<uint8_t *>(pool->base) + (static_cast<size_t>(i) << pool->shift))
            return "a descriptor stands for another block than its own";
    }
    std::vector<bool> seen(static_cast<size_t>(count));
    for (const void *at = pool->free_stack.top.pointer; at != sentinel;) {
        uintptr_t distance = reinterpret_cast<uintptr_t>(at) - reinterpret_cast<uintptr_t>(descriptors);
        size_t index = distance / sizeof(mp_descriptor);
        if (distance % sizeof(mp_descriptor) != 0 || index >= static_cast<size_t>(count))
            return "the free list leaves the descriptors";
        if (seen[index]) return "a block is on the free list twice";
        seen[index] = true;
        at = descriptors[index].next;
    }
    return nullptr;
}

int32_t free_blocks(const mempool_t *pool) {
    int32_t blocks = 0;
    for (const void *at = pool->free_stack.top.pointer; at != &pool->free_stack.sentinel; ++blocks)
        at = static_cast<const mp_descriptor *>(at)->next;
    return blocks;
}

std::string blocks_out() {
    struct {
        const char *name;
        mempool_t *pool;
        int32_t count;
    } const pools[] = {{"small", gMP.small_pool, kSmallBlocks},
                       {"medium", gMP.medium_pool, kMediumBlocks},
                       {"large", gMP.large_pool, kLargeBlocks}};
    std::ostringstream out;
    for (auto &p : pools) {
        if (const char *fault = mempool_fault(p.pool, p.count)) {
            out << p.name << " pool: " << fault << '\n';
        } else if (int32_t missing = p.count - free_blocks(p.pool); missing != 0) {
            out << p.name << " pool: " << missing << " blocks out\n";
        }
    }
    return out.str();
}

dry_pools::dry_pools(int32_t n) {
    for (mempool_t *pool : {gMP.small_pool, gMP.medium_pool, gMP.large_pool}) {
        for (int32_t left = free_blocks(pool); left > n; --left)
            taken_.emplace_back(pool, mp_alloc(pool));
    }
}

dry_pools::~dry_pools() {
    for (; !taken_.empty(); taken_.pop_back())
        mp_free(taken_.back().first, taken_.back().second);
}

starved_memory::starved_memory(int32_t n) : pools_(n) {
    test_kernel::fail_from(1, test_kernel::kHeap);
}

starved_memory::~starved_memory() {
    test_kernel::fail_nothing();
}
