// SPDX-License-Identifier: MIT
//
// Every failure of a scenario in turn.

#ifndef ZARN_TESTS_SUPPORT_FAILURES_H
#define ZARN_TESTS_SUPPORT_FAILURES_H

#include <gtest/gtest.h>

#include "tests/kernel/test_kernel.h"

// Runs `scenario` with its first call that may fail failing, then with its second, and so on until it meets
// no refusal; then once more through all of them with every later call failing too. The scenario looks at
// the promised status itself; `test_kernel::refusals` is not 0 when something was refused to it. It calls
// `fail_nothing` before it takes things down whose taking down mustn't fail. With `dry_pools` alive, each
// allocation from a pool is one of the calls.
template <typename Scenario>
void sweep_failures(Scenario scenario, unsigned kinds = test_kernel::kEverything) {
    constexpr int32_t kMostCalls = 1000;
    for (bool later_too : {false, true}) {
        for (int32_t k = 1;; ++k) {
            SCOPED_TRACE(testing::Message()
                         << "call " << k << (later_too ? " and all later ones" : "") << " refused");
            ASSERT_LE(k, kMostCalls) << "never succeeded";
            later_too ? test_kernel::fail_from(k, kinds) : test_kernel::fail_call(k, kinds);
            scenario();
            test_kernel::fail_nothing();
            if (testing::Test::HasFatalFailure()) return;
            if (test_kernel::refusals() == 0) {
                EXPECT_GT(k, 1) << "nothing in the scenario can fail";
                break;
            }
        }
    }
}

#endif
