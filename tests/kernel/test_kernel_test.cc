// SPDX-License-Identifier: MIT
//
// What the other tests rest on and wouldn't miss: that a leak or a violation is really seen.

#include <cstdlib>
#include <cstring>

#include "tests/support/fixture.h"

using namespace test_kernel;

TEST_F(kernel_test, WhatIsLeftAndWhatIsForbiddenIsNamed) {
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
