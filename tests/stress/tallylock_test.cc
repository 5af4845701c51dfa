// SPDX-License-Identifier: MIT

#include "module/tallylock.h"

#include "tests/support/stress.h"

namespace {

TEST_F(stress_test, ATallylockKeepsAllButOneOutAndNobodyIsLeftBehindInADeletedOne) {
    for (int round = stress_rounds(100); round > 0; --round) {
        zarn_tallylock_t lock;
        ASSERT_GE(zarn_create_tallylock(&lock, "stress"), 0);
        std::atomic<int> failed_unlocks{0}, entered{0};
        int plain = 0;
        run_threads(4, [&](int i) {
            while (i == 0 && entered < 300)
                std::this_thread::yield();
            if (i == 0) zarn_delete_tallylock(&lock);
            while (zarn_lock_tallylock(&lock) == 0) {
                ++plain;
                entered.fetch_add(1, std::memory_order_relaxed);  // gives the lock no order of its own
                if (zarn_unlock_tallylock(&lock) != 0) ++failed_unlocks;
            }
        });
        ASSERT_EQ(plain, entered);
        ASSERT_EQ(lock.count, static_cast<int32_t>(0xc0000000) + failed_unlocks);
    }
}

}  // namespace
