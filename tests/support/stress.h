// SPDX-License-Identifier: MIT
//
// What the stress tests share. They stand on the hosted kernel with real threads; that they end, and what the
// sanitizers say, is half of what they test.

#ifndef ZARN_TESTS_SUPPORT_STRESS_H
#define ZARN_TESTS_SUPPORT_STRESS_H

#include <gtest/gtest.h>

#include <cstdlib>

#include "module/zarn_util.h"
#include "platform/hosted/hosted_kernel.h"
#include "tests/support/background.h"

// A test's own few rounds, times the environment's ZARN_STRESS_ROUNDS.
inline int stress_rounds(int few) {
    const char *factor = getenv("ZARN_STRESS_ROUNDS");
    return factor != nullptr && atoi(factor) > 0 ? few * atoi(factor) : few;
}

// A small generator for each thread.
struct dice {
    explicit dice(int seed) : state(static_cast<uint32_t>(seed) * 2654435761u + 1) {}
    uint32_t roll(uint32_t sides) {
        state = state * 1664525u + 1013904223u;
        return (state >> 16) % sides;
    }
    uint32_t state;
};

// All services are up, and nothing of the kernel's may be left behind. The log is dropped: whoever deletes a lock
// under its waiters makes the kernel complain of each.
class stress_test : public ::testing::Test {
 protected:
    void SetUp() override {
        hosted_set_log([](void *, const char *) {}, nullptr);
        before_ = hosted_count_objects();
        ASSERT_EQ(init_pools(), 0);
    }
    void TearDown() override {
        EXPECT_EQ(uninit_pools(), 0);
        EXPECT_TRUE(hosted_wait_for_threads(before_.threads, 5000000));
        EXPECT_EQ(hosted_count_objects().semaphores, before_.semaphores);
        hosted_set_log(nullptr, nullptr);
    }

 private:
    hosted_counts before_;
};

#endif
