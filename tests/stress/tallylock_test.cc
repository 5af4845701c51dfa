// SPDX-License-Identifier: MIT

#include "module/tallylock.h"

#include "tests/support/stress.h"

namespace {

constexpr int kThreads = 4;

TEST_F(stress_test, ATallylockKeepsAllButOneOut) {
    const int rounds = stress_rounds(5000);
    zarn_tallylock_t lock;
    ASSERT_GE(zarn_create_tallylock(&lock, "stress"), 0);
    int64_t plain = 0;
    run_threads(kThreads, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            ASSERT_EQ(zarn_lock_tallylock(&lock), 0);
            ++plain;
            ASSERT_EQ(zarn_unlock_tallylock(&lock), 0);
        }
    });
    EXPECT_EQ(plain, int64_t{kThreads} * rounds);
    EXPECT_EQ(lock.count, 0);
    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
}

TEST_F(stress_test, NobodyIsLeftBehindInADeletedTallylock) {
    for (int round = stress_rounds(100); round > 0; --round) {
        zarn_tallylock_t lock;
        ASSERT_GE(zarn_create_tallylock(&lock, "stress"), 0);
        std::atomic<int> failed_unlocks{0};
        run_threads(kThreads, [&](int i) {
            if (i == 0) {
                std::this_thread::yield();
                zarn_delete_tallylock(&lock);
                return;
            }
            while (zarn_lock_tallylock(&lock) == 0) {
                if (zarn_unlock_tallylock(&lock) != 0) ++failed_unlocks;
            }
        });
        ASSERT_EQ(lock.count, static_cast<int32_t>(0xc0000000) + failed_unlocks);
    }
}

}  // namespace
