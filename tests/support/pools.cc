// SPDX-License-Identifier: MIT

#include "tests/support/pools.h"

#include <tuple>

#include "module/allocator.h"

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
    const std::tuple<const char *, mempool_t *, int32_t> pools[] = {
        {"small", gMP.small_pool, kSmallBlocks},
        {"medium", gMP.medium_pool, kMediumBlocks},
        {"large", gMP.large_pool, kLargeBlocks}};
    std::string out;
    for (const auto &[name, pool, count] : pools) {
        if (const char *fault = mempool_fault(pool, count)) {
            out += std::string(name) + " pool: " + fault + '\n';
        } else if (const int32_t missing = count - free_blocks(pool); missing != 0) {
            out += std::string(name) + " pool: " + std::to_string(missing) + " blocks out\n";
        }
    }
    return out;
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
