// SPDX-License-Identifier: MIT
//
// What the other tests rest on and wouldn't miss: the line of a semaphore, faults, and that a leak or a violation
// is really seen.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/testing/test_kernel.h"
#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;

namespace {

using test_kernel_test = kernel_test;

// A thread that acquires and remembers the result.
struct acquirer : background {
    acquirer(int32_t sem, int32_t units, uint32_t flags = 0, int64_t timeout = 0)
        : background([=] { return kern_sem_acquire_ex(sem, units, flags, timeout); }) {}
};

TEST_F(test_kernel_test, WhoLeavesTheLineTakesNoUnitAlong) {
    int32_t sem = kern_sem_create(1, "line");
    acquirer late(sem, 2, KERN_SEM_RELATIVE_TIMEOUT, 500);
    wait_until_blocked(sem, 1);
    acquirer behind(sem, 1);
    wait_until_blocked(sem, 2);
    advance(500);
    EXPECT_EQ(late.join(), kTimedOut);
    EXPECT_EQ(behind.join(), 0) << "the unit was enough for the second as soon as the first had gone";

    acquirer steady(sem, 2);
    wait_until_blocked(sem, 1);
    EXPECT_EQ(kern_sem_release(sem), 0);
    EXPECT_EQ(kern_sem_acquire_ex(sem, 1, KERN_SEM_RELATIVE_TIMEOUT, 0), kTimedOut)
        << "a unit that waits for the first in line";
    EXPECT_EQ(kern_sem_delete(sem), 0);
    EXPECT_EQ(steady.join(), kDeadSemaphore);
    EXPECT_EQ(kern_sem_release(sem), kDeadSemaphore);
}

TEST_F(test_kernel_test, WhatIsLeftAndWhatIsForbiddenIsNamed) {
    int32_t sem = kern_sem_create(0, "forgotten");
    char *text = strdup("text");
    provide_module("network/x", &sem);
    void *table;
    EXPECT_EQ(kern_module_acquire("network/x", &table), 0);
    for (const char *name : {"\"forgotten\"", "5 bytes", "\"network/x\""})
        EXPECT_NE(leftovers().find(name), std::string::npos) << name;
    free(text);
    kern_module_release("network/x");
    kern_module_release("network/x");
    EXPECT_NE(take_violations().find("nobody holds"), std::string::npos);
    {
        interrupt_level guard;
        kern_sem_release_ex(sem, 1, KERN_SEM_NO_RESCHEDULE);
        EXPECT_EQ(take_violations(), "");
        kern_sem_release_ex(sem, 1, 0);
        kern_sem_acquire_ex(sem, 2, 0, 0);
    }
    std::string violations = take_violations();
    for (const char *call : {"sem_release", "sem_acquire"})
        EXPECT_NE(violations.find(call), std::string::npos) << call;
    kern_sem_delete(sem);
}

}  // namespace
