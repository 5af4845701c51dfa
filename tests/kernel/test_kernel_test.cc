// SPDX-License-Identifier: MIT
//
// What the other tests rest on: the line of a semaphore, the clock, stopping points, faults, and that a
// leak or a violation is really seen.

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

TEST_F(test_kernel_test, UnitsAreHandedToTheLineInOrderAndNobodyOvertakes) {
    int32_t sem = kern_sem_create(0, "line");
    acquirer first(sem, 2);
    wait_until_blocked(sem, 1);
    acquirer second(sem, 1);
    wait_until_blocked(sem, 2);

    EXPECT_EQ(kern_sem_release(sem), 0);
    EXPECT_EQ(sem_waiters("line"), 2) << "one unit must wait for the first in line, who wants two";
    EXPECT_EQ(kern_sem_acquire_ex(sem, 1, KERN_SEM_RELATIVE_TIMEOUT, 0), kTimedOut)
        << "the releaser can't have it back";

    EXPECT_EQ(kern_sem_release_ex(sem, 2, 0), 0);
    EXPECT_EQ(first.join(), 0);
    EXPECT_EQ(second.join(), 0);
    EXPECT_EQ(sem_count(sem), 0);
    EXPECT_EQ(kern_sem_release_ex(sem, 0, 2), kBadCount);
    EXPECT_EQ(kern_sem_delete(sem), 0);
}

TEST_F(test_kernel_test, WhoLeavesTheLineTakesNoUnitAlong) {
    int32_t sem = kern_sem_create(1, "line");
    acquirer late(sem, 2, KERN_SEM_RELATIVE_TIMEOUT, 500);
    wait_until_blocked(sem, 1);
    acquirer behind(sem, 1);
    wait_until_blocked(sem, 2);
    advance(499);
    EXPECT_EQ(sem_waiters(sem), 2);
    advance(1);
    EXPECT_EQ(late.join(), kTimedOut);
    EXPECT_EQ(behind.join(), 0) << "the unit was enough for the second as soon as the first had gone";

    acquirer interruptible(sem, 1, KERN_SEM_INTERRUPTIBLE);
    wait_until_blocked(sem, 1);
    acquirer steady(sem, 1);
    wait_until_blocked(sem, 2);
    EXPECT_EQ(interrupt_waiters("line"), 1);
    EXPECT_EQ(interruptible.join(), kInterrupted);
    EXPECT_EQ(kern_sem_delete(sem), 0);
    EXPECT_EQ(steady.join(), kDeadSemaphore);
    EXPECT_EQ(kern_sem_release(sem), kDeadSemaphore);
}

int32_t sleep_thrice(void *count) {
    for (int i = 0; i < 3; ++i) {
        kern_sleep_us(100);
        ++*static_cast<int *>(count);
    }
    return 0;
}

TEST_F(test_kernel_test, AThreadSleepsUntilTheClockIsAdvancedFarEnough) {
    int count = 0;
    int32_t thread = kern_thread_spawn(sleep_thrice, "sleeper", 7, &count);
    EXPECT_EQ(thread_id("sleeper"), thread);
    EXPECT_NE(leftovers().find("\"sleeper\" suspended"), std::string::npos);
    EXPECT_EQ(kern_thread_resume(thread), 0);
    for (int passes = 0; passes < 3; ++passes) {
        wait_until_asleep("sleeper");
        EXPECT_EQ(count, passes);
        advance(99);
        wait_until_asleep("sleeper");
        EXPECT_EQ(count, passes);
        advance(1);
    }
    wait_until_gone("sleeper");
    EXPECT_EQ(count, 3);
}

TEST_F(test_kernel_test, AStoppingPointHoldsTheCallBeforeItsEffect) {
    int32_t sem = kern_sem_create(0, "window");
    {
        stopping_point window("sem_acquire", "window");
        acquirer contender(sem, 1);
        window.wait();
        EXPECT_EQ(sem_waiters(sem), 0);
        EXPECT_EQ(kern_sem_release(sem), 0);
        EXPECT_EQ(sem_count(sem), 1) << "the contender must not stand in line yet";
        window.go_on();
        EXPECT_EQ(contender.join(), 0);
    }
    EXPECT_EQ(journal("sem_"),
              (std::vector<std::string>{"sem_create \"window\" 0", "sem_release \"window\" 1 0",
                                        "sem_acquire \"window\" 1 0"}));
    EXPECT_EQ(sem_calls(), 2);
    kern_sem_delete(sem);
}

TEST_F(test_kernel_test, TheCallThatWasAskedForFails) {
    auto creates = [] {
        std::string result;
        for (int i = 0; i < 4; ++i) {
            void *block = malloc(10);
            result += block == nullptr ? '-' : '+';
            free(block);
        }
        return result;
    };
    fail_call(2);
    EXPECT_EQ(creates(), "+-++");
    fail_from(3);
    EXPECT_EQ(creates(), "++--");
    EXPECT_EQ(refusals(), 2);
    fail_from(1, kSemCreate | kSettings);
    EXPECT_EQ(creates(), "++++");
    EXPECT_EQ(kern_sem_create(0, "x"), kRefused);
    EXPECT_EQ(kern_settings_load("zarn.conf"), nullptr);
    fail_nothing();
}

TEST_F(test_kernel_test, WhatIsLeftAndWhatIsForbiddenIsNamed) {
    int32_t sem = kern_sem_create(0, "forgotten");
    void *region;
    int32_t region_id = kern_region_create("place", &region, 4, 100, 3, 3);
    char *text = strdup("text");
    provide_module("network/x", &sem);
    provide_settings("zarn.conf", "");
    void *table, *handle = kern_settings_load("zarn.conf");
    EXPECT_EQ(kern_module_acquire("network/x", &table), 0);
    EXPECT_EQ(table, &sem);
    for (const char *name : {"\"forgotten\"", "\"place\"", "5 bytes", "\"network/x\"", "settings handle"})
        EXPECT_NE(leftovers().find(name), std::string::npos) << name;
    kern_region_delete(region_id);
    free(text);
    kern_settings_unload(handle);
    kern_module_release("network/x");
    EXPECT_EQ(take_violations(), "");

    kern_module_release("network/x");
    EXPECT_NE(take_violations().find("nobody holds"), std::string::npos);
    {
        interrupt_level guard;
        free(malloc(1));
        kern_sem_release_ex(sem, 1, KERN_SEM_NO_RESCHEDULE);
        EXPECT_EQ(take_violations().find("sem_release"), std::string::npos);
        kern_sem_release_ex(sem, 1, 0);
        kern_sem_acquire_ex(sem, 2, 0, 0);
    }
    std::string violations = take_violations();
    for (const char *call : {"sem_release", "sem_acquire"})
        EXPECT_NE(violations.find(call), std::string::npos) << call;
    kern_sem_delete(sem);
}

TEST_F(test_kernel_test, SettingsKeepTheOrderAndTheShapeOfTheText) {
    provide_settings("zarn.conf", R"(
        count 42   # a comment
        "" "two words" {
            inner
        }
        on yes
    )");
    void *handle = kern_settings_load("zarn.conf");
    EXPECT_STREQ(kern_settings_string(handle, "count", "?", "none"), "42");
    EXPECT_STREQ(kern_settings_string(handle, "inner", "?", "none"), "?");
    EXPECT_EQ(kern_settings_bool(handle, "on", 0, 0), 1);
    const settings_tree *tree = kern_settings_tree(handle);
    ASSERT_EQ(tree->parameter_count, 3);
    EXPECT_STREQ(tree->parameters[1].name, "");
    EXPECT_STREQ(tree->parameters[1].values[0], "two words");
    EXPECT_STREQ(tree->parameters[1].children[0].name, "inner");
    EXPECT_EQ(tree->parameters[1].children[0].value_count, 0);
    kern_settings_unload(handle);
}

}  // namespace
