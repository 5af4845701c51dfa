// SPDX-License-Identifier: MIT
//
// Every failure of a scenario in turn.

#ifndef ZARN_TESTS_SUPPORT_FAILURES_H
#define ZARN_TESTS_SUPPORT_FAILURES_H

#include <gtest/gtest.h>

#include "platform/testing/test_kernel.h"

// Runs `scenario` with its first call that may fail failing, then with its second, and so on until it meets
// no refusal. The scenario looks at the promised status itself; `test_kernel::refusals` is not 0 when
// something was refused to it. It calls `fail_nothing` before it takes things down. With `dry_pools` alive,
// each allocation from a pool is one of the calls.
template <typename Scenario>
void sweep_failures(void (*arm)(int32_t call, unsigned kinds), Scenario scenario,
                    unsigned kinds = test_kernel::kEverything) {
    constexpr int32_t kMostCalls = 1000;
    for (int32_t call = 1;; ++call) {
        SCOPED_TRACE(testing::Message() << (arm == test_kernel::fail_call ? "call " : "from call ") << call);
        ASSERT_LE(call, kMostCalls) << "never succeeded";
        arm(call, kinds);
        scenario();
        test_kernel::fail_nothing();
        if (testing::Test::HasFatalFailure()) return;
        if (test_kernel::refusals() == 0) {
            EXPECT_GT(call, 1) << "nothing in the scenario can fail";
            return;
        }
    }
}

// Each failure alone, and each with all later calls failing too.
template <typename Scenario>
void sweep_failures(Scenario scenario, unsigned kinds = test_kernel::kEverything) {
    sweep_failures(test_kernel::fail_call, scenario, kinds);
    sweep_failures(test_kernel::fail_from, scenario, kinds);
}

#endif
