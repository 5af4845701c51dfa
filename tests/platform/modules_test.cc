// SPDX-License-Identifier: MIT
#include <zarn/module.h>

#include <atomic>
#include <functional>
#include <map>

#include "tests/platform/support.h"
#include "tests/support/background.h"

namespace {

std::map<std::string, std::function<int32_t(int32_t op)>> gOps;  // what modules do; the default is 0

class modules : public hosted_test {
 protected:
    void SetUp() override {
        hosted_test::SetUp();
        hosted_set_module_directory(ZARN_TEST_MODULES);
    }
    void TearDown() override {
        gOps.clear();
        hosted_test::TearDown();
    }
    // An acquire that has to fail with one line that names the module and has these words.
    void expect_refusal(const std::string &path, const std::string &words) {
        SCOPED_TRACE(path);
        log_.clear();
        void *table = this;
        EXPECT_LT(kern_module_acquire(path.c_str(), &table), 0);
        EXPECT_EQ(table, this);
        EXPECT_TRUE(logged("\n") == 1 && logged("\"" + path + "\"") == 1 && logged(words) == 1) << log_;
        EXPECT_EQ(hosted_count_objects().modules, 0);
    }
};

constexpr const char *kFirst = "test/first";
constexpr const char *kSecond = "test/second";

TEST_F(modules, that_cannot_be_used_are_told_by_name_and_reason) {
    expect_refusal("test/absent", "No such file");
    expect_refusal("test/garbage", "garbage.so");
    expect_refusal("test/listless", "exports no list");
    expect_refusal("test/misnamed", "no record of this name");
    expect_refusal("test/unresolved", "kern_no_such_operation");
    for (const char *path :
         {"", "/etc/first", "test/../test/first", "./test/first", "test//first", "test/first/"})
        expect_refusal(path, "not a path");
    expect_refusal(std::string(127, 'x'), "No such file");
}

TEST_F(modules, start_with_the_first_reference_and_stop_with_the_last_and_may_refuse_both) {
    std::string calls;
    int32_t start = 7, stop = -1;
    gOps[kFirst] = [&](int32_t op) {
        calls += static_cast<char>('0' + op);
        return op == MODULE_START ? start : stop;
    };
    expect_refusal(kFirst, "failed to start (00000007)");
    void *before, *after;
    start = 0;
    ASSERT_EQ(kern_module_acquire(kFirst, &before), 0);
    EXPECT_EQ(kern_module_release(kFirst), 0);
    EXPECT_EQ(hosted_count_objects().modules, 1);
    EXPECT_EQ(logged("refused to stop"), 1) << log_;
    EXPECT_LT(kern_module_release(kFirst), 0);
    EXPECT_EQ(logged("nobody holds the module \"test/first\""), 1) << log_;
    ASSERT_EQ(kern_module_acquire(kFirst, &after), 0);
    ASSERT_EQ(kern_module_acquire(kFirst, &after), 0);
    EXPECT_EQ(after, before);
    EXPECT_STREQ(static_cast<module_head *>(after)->name, kFirst);
    EXPECT_EQ(hosted_count_objects().module_references, 2);
    stop = 0;
    EXPECT_EQ(kern_module_release(kFirst), 0);
    EXPECT_EQ(calls, "112") << "no second start";
    EXPECT_EQ(kern_module_release(kFirst), 0);
    EXPECT_EQ(calls, "1122");
    EXPECT_LT(kern_module_release(kFirst), 0);
    EXPECT_EQ(logged("no module \"test/first\""), 1) << log_;
}

TEST_F(modules, start_and_stop_may_use_the_loader) {
    gOps[kFirst] = [](int32_t op) {
        void *table;
        return op == MODULE_START ? kern_module_acquire(kSecond, &table) : kern_module_release(kSecond);
    };
    void *table;
    ASSERT_EQ(kern_module_acquire(kFirst, &table), 0);
    EXPECT_EQ(hosted_count_objects().modules, 2);
    EXPECT_EQ(kern_module_release(kFirst), 0);
}

TEST_F(modules, circle_over_two_threads_does_not_hang) {
    std::atomic<int> inside{0};
    auto acquire_the_other = [&](const char *other) {
        return [&inside, other](int32_t op) {
            if (op == MODULE_STOP) return kern_module_release(other);
            if (++inside <= 2) eventually([&] { return inside >= 2; });
            void *table;
            return kern_module_acquire(other, &table);
        };
    };
    gOps[kFirst] = acquire_the_other(kSecond);
    gOps[kSecond] = acquire_the_other(kFirst);
    std::atomic<int> failed{0};
    run_threads(2, [&](int i) {
        void *table;
        const char *path = i == 0 ? kFirst : kSecond;
        if (kern_module_acquire(path, &table) < 0)
            failed++;
        else
            EXPECT_EQ(kern_module_release(path), 0);
    });
    EXPECT_GE(failed, 1);
    EXPECT_GE(logged("by its own start"), 1) << log_;
}

TEST_F(modules, threads_that_come_together_share_one_start) {
    std::atomic<int> running{0}, started{0};
    gOps[kFirst] = [&](int32_t op) {
        EXPECT_EQ(++running, 1);
        kern_sleep_us(200);
        EXPECT_EQ(started += op == MODULE_START ? 1 : -1, op == MODULE_START);
        running--;
        return 0;
    };
    run_threads(4, [&](int) {
        for (int round = 0; round < 50; round++) {
            void *table;
            ASSERT_EQ(kern_module_acquire(kFirst, &table), 0);
            EXPECT_EQ(started, 1);
            EXPECT_EQ(kern_module_release(kFirst), 0);
        }
    });
    EXPECT_TRUE(started == 0 && log_.empty()) << log_;
}

TEST_F(modules, code_stays_mapped_until_its_threads_have_left) {
    void *table;
    ASSERT_EQ(kern_module_acquire("test/threaded", &table), 0);
    EXPECT_EQ(kern_module_release("test/threaded"), 0);
    EXPECT_EQ(hosted_count_objects().threads, 0);
    EXPECT_EQ(log_, "");
}

}  // namespace

extern "C" int32_t test_module_op(const char *name, int32_t op) {
    auto found = gOps.find(name);
    return found == gOps.end() ? 0 : found->second(op);
}
