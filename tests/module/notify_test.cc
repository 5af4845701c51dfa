// SPDX-License-Identifier: MIT

#include "module/notify.h"

#include <zarn/zarn_notify.h>

#include <cstring>
#include <string>

#include "data/zarn_data.h"
#include "tests/support/failures.h"
#include "tests/support/fixture.h"

namespace {

constexpr const char *kClosing = "zarn_util:zarn_notify:exiting with error\n";
using lines = std::vector<std::string>;

class notify_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        module_.head = {ZARN_NOTIFY_MODULE_NAME, 0, nullptr};
        module_.deliver_notification = deliver;
        test_kernel::provide_module(ZARN_NOTIFY_MODULE_NAME, &module_);
        received_.clear();
    }

    // Keeps the bytes and the buffer, as a receiver does that deletes it later.
    static int32_t deliver(zarn_data_t *data) {
        EXPECT_EQ(test_kernel::module_references(ZARN_NOTIFY_MODULE_NAME), 1);
        EXPECT_EQ(count_zarn_data_iovecs(data), 1u);
        std::string bytes(data->length, '\0');
        EXPECT_EQ(copy_from_zarn_data(data, 0, bytes.data(), data->length), data->length);
        received_.push_back(bytes);
        kept_ = data;
        return -5;
    }

    static inline zarn_notify_module module_;
    static inline lines received_;
    static inline zarn_data_t *kept_;
};

TEST_F(notify_test, delivers_one_contiguous_message) {
    char payload[] = "eight by";
    const std::tuple<void *, uint32_t, std::string> cases[] = {{payload, 8, "eight by"},
                                                               {payload, 3, "eig"},
                                                               {nullptr, 8, std::string(8, '\0')},
                                                               {reinterpret_cast<void *>(1), 0, ""}};
    const int32_t blocks = test_kernel::heap_blocks();
    for (const auto &[payload_at, length, expected] : cases) {
        EXPECT_EQ(zarn_notify(0x01020304, 0xfffffffe, payload_at, length), 0);
        const uint32_t words[] = {0x01020304, 0xfffffffe, length};
        EXPECT_EQ(received_.back(),
                  std::string(reinterpret_cast<const char *>(words), sizeof words) + expected);
        delete_zarn_data(kept_);
        EXPECT_EQ(test_kernel::heap_blocks(), blocks);
    }
}

TEST_F(notify_test, each_failure_logs_its_lines_and_leaves_nothing) {
    // With nothing in the pools: the block, the buffer, the descriptor that makes the buffer own it, the module.
    const lines expected[] = {
        {"zarn_util:zarn_notify: malloc failed...\n", kClosing},
        {"zarn_util: new_zarn_data failed...\n", kClosing},
        {kClosing},
        {"zarn_util:zarn_notify: kern_module_acquire failed\n"},
    };
    const dry_pools dry;
    const int32_t blocks = test_kernel::heap_blocks();
    size_t failures = 0;
    sweep_failures([&] {
        test_kernel::clear_log();
        const int32_t status = zarn_notify(1, 2, nullptr, 100);
        test_kernel::fail_nothing();
        if (test_kernel::refusals() != 0) {
            EXPECT_EQ(status, -1);
            EXPECT_EQ(test_kernel::log_lines(), expected[failures++ % std::size(expected)]);
        } else {
            EXPECT_EQ(status, 0);
            delete_zarn_data(kept_);
        }
        EXPECT_EQ(test_kernel::heap_blocks(), blocks);
    });
    EXPECT_EQ(failures, 2 * std::size(expected));
    EXPECT_EQ(received_.size(), 2u);
    const int32_t calls = test_kernel::heap_calls();
    for (uint32_t length : {UINT32_MAX, UINT32_MAX - 11})  // with the head it wraps
        EXPECT_EQ(zarn_notify(1, 2, &module_, length), -1);
    EXPECT_EQ(test_kernel::heap_calls(), calls);
}

}  // namespace
