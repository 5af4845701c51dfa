// SPDX-License-Identifier: MIT

#include "memory/mempool.h"

#include <memory>

#include "tests/support/fixture.h"

namespace {

using mempool_test = kernel_test;

constexpr int32_t kBlocks = 8;
alignas(64) uint8_t gMemory[kBlocks * 2048];

using pool_pointer = std::unique_ptr<mempool_t, decltype(&delete_mempool)>;

pool_pointer make_pool(uint32_t block_size, int32_t count) {
    return {new_mempool(gMemory, block_size, count), delete_mempool};
}

TEST_F(mempool_test, ANewPoolHandsOutItsBlocksUpwardAndThenNothing) {
    const std::pair<uint32_t, uint32_t> sizes[] = {{1, 0}, {2, 1}, {32, 5}, {128, 7}, {256, 8}, {2048, 11}};
    for (const auto &[size, shift] : sizes) {
        SCOPED_TRACE(size);
        pool_pointer pool = make_pool(size, kBlocks);
        EXPECT_EQ(pool->shift, shift);
        for (uint32_t i = 0; i < kBlocks; ++i)
            EXPECT_EQ(mp_alloc(pool.get()), gMemory + i * size);
        EXPECT_EQ(mp_alloc(pool.get()), nullptr);
        // Last in, first out, and an address inside a block is as good as its first.
        for (uint32_t i : {3, 5})
            mp_free(pool.get(), gMemory + i * size + size - 1);
        for (uint32_t i : {5, 3})
            EXPECT_EQ(mp_alloc(pool.get()), gMemory + i * size);
        EXPECT_EQ(mp_alloc(pool.get()), nullptr);
    }
    for (int32_t count : {0, -1})
        EXPECT_EQ(mp_alloc(make_pool(32, count).get()), nullptr);
    if (sizeof(void *) == 4) {
        EXPECT_EQ(new_mempool(gMemory, 32, INT32_MAX), nullptr) << "the size of its record wraps";
    }
    test_kernel::fail_call(1);
    EXPECT_EQ(new_mempool(gMemory, 32, kBlocks), nullptr);
}

TEST_F(mempool_test, EachChangeAdvancesTheGenerationWhichMayWrapAndAPopOfNothingChangesNoMore) {
    void *node[1];
    atomic_stack_t stack = {};
    init_atomic_stack(&stack);
    auto generation = stack.top.generation = UINT32_MAX;
    EXPECT_EQ(atomic_pop(&stack), &stack.sentinel);
    EXPECT_EQ(stack.top.pointer, &stack.sentinel);
    EXPECT_EQ(stack.sentinel, &stack.sentinel);
    EXPECT_EQ(stack.top.generation, ++generation);
    atomic_push(&stack, node);
    EXPECT_EQ(node[0], &stack.sentinel);
    EXPECT_EQ(atomic_pop(&stack), node);
    EXPECT_EQ(stack.top.generation, generation += 2);
}

}  // namespace
