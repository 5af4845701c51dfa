// SPDX-License-Identifier: MIT

#include "sync/zarn_rwlock.h"
#include "tests/support/stress.h"

namespace {

// Each thread reads or writes and turns from one to the other in every way that the rules allow. Readers see
// what writers left, whole; writers see nobody.
TEST_F(stress_test, ReadersAndWritersOfARwlockDoNotMeet) {
    const int rounds = stress_rounds(4000);
    rwlock_t lock;
    ASSERT_EQ(create_rwlock(&lock, "stress"), 0);
    int64_t one = 0, other = 0;
    std::atomic<int> readers{0}, writers{0};
    run_threads(4, [&](int i) {
        dice die(i);
        for (int round = 0; round < rounds; ++round) {
            bool writes = die.roll(4) == 0;
            ASSERT_EQ(writes ? write_lock(&lock) : read_lock(&lock), 0);
            for (;; writes = !writes) {
                if (writes) {
                    ASSERT_EQ(readers + writers++, 0);
                    ++one;
                    ASSERT_EQ(read_lock(&lock) | write_lock(&lock), 0);  // the writer's own, one level down
                    ++other;
                    ASSERT_EQ(write_unlock(&lock) | read_unlock(&lock), 0);
                    --writers;
                    if (die.roll(2) == 0) break;
                    ASSERT_EQ(downgrade_to_read(&lock), 0);
                } else {
                    ++readers;
                    ASSERT_EQ(one, other);
                    ASSERT_EQ(writers, 0);
                    --readers;
                    if (die.roll(3) != 0) break;
                    ASSERT_EQ(upgrade_to_write(&lock), 0);
                }
            }
            ASSERT_EQ(writes ? write_unlock(&lock) : read_unlock(&lock), 0);
        }
    });
    EXPECT_EQ(lock.count, 0u);
    EXPECT_EQ(lock.owner, -1);
    EXPECT_EQ(delete_rwlock(&lock), 0);
}

}  // namespace
