// SPDX-License-Identifier: MIT
//
// What the tests of the hosted kernel share: waiting for a state that another thread brings about, and the
// lines of the log.

#ifndef ZARN_TESTS_PLATFORM_SUPPORT_H
#define ZARN_TESTS_PLATFORM_SUPPORT_H

#include <gtest/gtest.h>

#include <string>

#include "platform/hosted/hosted_kernel.h"

// Looks until `holds` returns true; false after ten seconds.
template <typename condition>
bool eventually(condition holds) {
    for (int64_t end = kern_time_us() + 10000000; !holds();) {
        if (kern_time_us() > end) return false;
        kern_sleep_us(100);
    }
    return true;
}

inline bool waiters_become(int32_t sem, int32_t count) {
    return eventually([=] { return hosted_count_waiters(sem) == count; });
}

// Keeps the log of a test, and proves that it leaves nothing alive.
class hosted_test : public testing::Test {
 protected:
    void SetUp() override {
        hosted_set_log([](void *context, const char *text) { *static_cast<std::string *>(context) += text; },
                       &log_);
    }
    void TearDown() override {
        EXPECT_TRUE(hosted_wait_for_threads(0, 10000000));
        hosted_set_log(nullptr, nullptr);
        EXPECT_EQ(hosted_log_objects(), 0);
    }
    // How often the log has this text.
    int logged(const std::string &text) const {
        int found = 0;
        for (size_t at = 0; (at = log_.find(text, at)) != std::string::npos; at += text.size())
            found++;
        return found;
    }
    std::string log_;
};

#endif
