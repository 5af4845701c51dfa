// SPDX-License-Identifier: MIT

#include "memory/mempool.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>

#include "tests/support/stress.h"

namespace {

constexpr uint32_t kBlock = 64;
constexpr int kBlocks = 24;

alignas(kBlock) uint8_t gMemory[kBlocks * kBlock];
mempool_t *gPool;
std::atomic<int> gSpoiled, gInterrupts;

// Takes up to `count` blocks, marks each as this turn's own, and gives them back if the mark still stands.
void use_blocks(int count, uint32_t mark) {
    uint32_t *blocks[4];
    int taken = 0;
    while (taken < count && (blocks[taken] = static_cast<uint32_t *>(mp_alloc(gPool))) != nullptr) {
        std::fill_n(blocks[taken++], kBlock / sizeof mark, mark);
    }
    while (taken > 0) {
        uint32_t *block = blocks[--taken];
        gSpoiled += std::count(block, block + kBlock / sizeof mark, mark) != kBlock / sizeof mark;
        mp_free(gPool, block);
    }
}

}  // namespace

// The handler meets its own thread anywhere, also between the looks and the exchange of a pop or a push.
TEST_F(stress_test, NoBlockHasTwoOwnersBelowInterrupts) {
    gPool = new_mempool(gMemory, kBlock, kBlocks);
    ASSERT_EQ(hosted_install_interrupt(SIGUSR1,
                                       [](const siginfo_t *) {
                                           use_blocks(3, 0x80000000u + static_cast<uint32_t>(++gInterrupts));
                                       }),
              0);
    const int rounds = stress_rounds(30000);
    std::atomic<int> working = 2;
    {
        background first([&] {
            for (int i = 0; i < rounds; ++i)
                use_blocks(4, static_cast<uint32_t>(i) * 2);
            return --working;
        });
        background second([&] {
            for (int i = 0; i < rounds; ++i)
                use_blocks(4, static_cast<uint32_t>(i) * 2 + 1);
            return --working;
        });
        do {
            pthread_kill(first.handle(), SIGUSR1);
            pthread_kill(second.handle(), SIGUSR1);
        } while (working != 0);
    }
    hosted_install_interrupt(SIGUSR1, nullptr);
    EXPECT_EQ(gSpoiled, 0);
    EXPECT_GT(gInterrupts, 0);

    std::vector<void *> all(kBlocks);
    std::generate(all.begin(), all.end(), [] { return mp_alloc(gPool); });
    std::sort(all.begin(), all.end());
    for (int i = 0; i < kBlocks; ++i)
        EXPECT_EQ(all[static_cast<size_t>(i)], gMemory + i * kBlock);
    EXPECT_EQ(mp_alloc(gPool), nullptr);
    delete_mempool(gPool);
}
