// SPDX-License-Identifier: MIT
//
// The fixtures that tests of the module's inside derive from, under a name of their own. Each starts from an
// empty kernel and proves that nothing is left when the test has ended, and that nobody did what a kernel
// forbids.

#ifndef ZARN_TESTS_SUPPORT_FIXTURE_H
#define ZARN_TESTS_SUPPORT_FIXTURE_H

#include <gtest/gtest.h>

#include "module/allocator.h"
#include "platform/testing/test_kernel.h"
#include "tests/support/pools.h"

// A kernel and no service. The allocator has no pools and goes to the heap.
class kernel_test : public ::testing::Test {
 protected:
    void SetUp() override { test_kernel::reset(); }

    void TearDown() override {
        test_kernel::fail_nothing();
        EXPECT_EQ(test_kernel::leftovers(), "");
        EXPECT_EQ(test_kernel::take_violations(), "");
        test_kernel::reset();
    }
};

// The pools are up, as all services but the pools themselves find them. Fixtures of further services start
// them behind this SetUp and stop them before this TearDown.
class module_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        ASSERT_EQ(init_mempool(), 0);
        test_kernel::clear_journal();
    }

    void TearDown() override {
        EXPECT_EQ(blocks_out(), "");
        EXPECT_EQ(uninit_mempool(), 0);
        gMP = {};
        kernel_test::TearDown();
    }
};

#endif
