// SPDX-License-Identifier: MIT

#include "module/tallylock.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

constexpr int32_t kDeleted = static_cast<int32_t>(0xc0000000);

class tallylock_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        ASSERT_GE(zarn_create_tallylock(&lock, "lock"), 0);
        clear_journal();
    }

    void TearDown() override {
        if (lock.sem != -1) {
            EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
        }
        kernel_test::TearDown();
    }

    std::unique_ptr<background> contender() {
        return std::make_unique<background>([this] { return zarn_lock_tallylock(&lock); });
    }

    zarn_tallylock_t lock;
};

TEST_F(kernel_test, ATallylockIsASemaphoreOfTheKernelsTeam) {
    zarn_tallylock_t lock{7, 7};
    set_next_sem(0);
    EXPECT_EQ(zarn_create_tallylock(&lock, nullptr), 0) << "0 is an id like any other";
    EXPECT_EQ(lock.count, 0);
    EXPECT_EQ(lock.sem, 0);
    EXPECT_EQ(journal(), (lines{"sem_create \"anonymous zarn_tallylock_t\" 0",
                                "sem_set_owner \"anonymous zarn_tallylock_t\" 2"}));
    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);

    fail_call(1, kSemCreate);
    clear_journal();
    EXPECT_EQ(zarn_create_tallylock(&lock, "lock"), kRefused);
    EXPECT_EQ(lock.count, 0);
    EXPECT_EQ(lock.sem, kRefused);
    EXPECT_EQ(journal(), lines{"sem_create \"lock\" 0"});
}

TEST_F(tallylock_test, WithoutContentionTheKernelIsNotCalled) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(zarn_lock_tallylock(&lock), 0);
        EXPECT_EQ(lock.count, 1);
        EXPECT_EQ(background([this] { return zarn_unlock_tallylock(&lock); }).join(), 0)
            << "any thread may unlock";
        EXPECT_EQ(lock.count, 0);
    }
    EXPECT_EQ(sem_calls(), 0);
}

TEST_F(tallylock_test, WaitersGetTheLockOneByOneInOrder) {
    zarn_lock_tallylock(&lock);
    auto first = contender();
    wait_until_blocked("lock", 1);
    auto second = contender();
    wait_until_blocked("lock", 2);
    EXPECT_EQ(lock.count, 3);

    EXPECT_EQ(zarn_unlock_tallylock(&lock), 0);
    EXPECT_EQ(first->join(), 0);
    EXPECT_EQ(lock.count, 2);
    EXPECT_EQ(sem_waiters("lock"), 1);
    EXPECT_EQ(zarn_unlock_tallylock(&lock), 0);
    EXPECT_EQ(second->join(), 0);
    EXPECT_EQ(lock.count, 1);
    EXPECT_EQ(zarn_unlock_tallylock(&lock), 0);
    EXPECT_EQ(lock.count, 0);
    EXPECT_EQ(sem_count("lock"), 0);
    EXPECT_EQ(journal(), (lines{"sem_acquire \"lock\" 1 0", "sem_acquire \"lock\" 1 0",
                                "sem_release \"lock\" 1 2", "sem_release \"lock\" 1 2"}));
}

TEST_F(tallylock_test, AnUnlockBetweenTheTallyAndTheAcquireStrandsNobody) {
    zarn_lock_tallylock(&lock);
    stopping_point window("sem_acquire", lock.sem);
    auto late = contender();
    window.wait();
    EXPECT_EQ(lock.count, 2);
    EXPECT_EQ(zarn_unlock_tallylock(&lock), 0);
    EXPECT_EQ(sem_count("lock"), 1);
    window.go_on();
    EXPECT_EQ(late->join(), 0);
    EXPECT_EQ(lock.count, 1);
    EXPECT_EQ(sem_count("lock"), 0);
    EXPECT_EQ(zarn_unlock_tallylock(&lock), 0);
}

TEST_F(tallylock_test, DeletionSendsAwayWhoeverIsInAndWhoeverComes) {
    zarn_lock_tallylock(&lock);
    int32_t sem = lock.sem;
    auto blocked = contender();
    wait_until_blocked(sem);
    stopping_point window("sem_acquire", sem);
    auto late = contender();
    window.wait();
    EXPECT_EQ(lock.count, 3);

    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
    EXPECT_EQ(blocked->join(), kDeadSemaphore);
    window.go_on();
    EXPECT_EQ(late->join(), kDeadSemaphore);
    EXPECT_EQ(lock.sem, -1);
    EXPECT_EQ(lock.count, kDeleted | 1) << "those who waited have left the tally, the holder hasn't";

    for (int32_t held : {1, 0}) {
        lock.count = kDeleted | held;
        EXPECT_EQ(zarn_unlock_tallylock(&lock), kDeadSemaphore);
        EXPECT_EQ(zarn_lock_tallylock(&lock), kDeadSemaphore);
        EXPECT_EQ(lock.count, kDeleted | held);
    }
}

}  // namespace
