// SPDX-License-Identifier: MIT

#include "module/tallylock.h"

#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

TEST_F(kernel_test, ATallylockIsASemaphoreOfTheKernelsTeam) {
    zarn_tallylock_t lock{7, 7};
    set_next_sem(0);
    EXPECT_EQ(zarn_create_tallylock(&lock, nullptr), 0) << "0 is an id like any other";
    EXPECT_EQ(lock.count | lock.sem, 0);
    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
    fail_call(1, kSemCreate);
    EXPECT_EQ(zarn_create_tallylock(&lock, "lock"), kRefused);
    EXPECT_EQ(lock.sem, kRefused);
    EXPECT_EQ(journal(), (lines{"sem_create \"anonymous zarn_tallylock_t\" 0",
                                "sem_set_owner \"anonymous zarn_tallylock_t\" 2",
                                "sem_delete \"anonymous zarn_tallylock_t\"", "sem_create \"lock\" 0"}));
}

class tallylock_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        ASSERT_GE(zarn_create_tallylock(&lock, "lock"), 0);
        clear_journal();
        ASSERT_EQ(zarn_lock_tallylock(&lock), 0);
    }
    zarn_tallylock_t lock;
    const std::function<int32_t()> contend = [this] { return zarn_lock_tallylock(&lock); };
    const std::function<int32_t()> unlock = [this] { return zarn_unlock_tallylock(&lock); };
};

TEST_F(tallylock_test, NobodyIsStrandedWhoComesBeforeTheUnlockOrDuringIt) {
    EXPECT_EQ(background(unlock).join(), 0) << "any thread may";
    EXPECT_EQ(contend(), 0);
    EXPECT_EQ(sem_calls(), 0) << "without contention the kernel is not called";
    background first(contend);
    wait_until_blocked("lock");
    stopping_point window("sem_acquire", "lock");
    background late(contend);
    window.wait();
    EXPECT_EQ(lock.count, 3);
    EXPECT_EQ(unlock(), 0);
    EXPECT_EQ(first.join(), 0);
    EXPECT_EQ(unlock(), 0);
    EXPECT_EQ(sem_count("lock"), 1);
    window.go_on();
    EXPECT_EQ(late.join(), 0);
    EXPECT_EQ(unlock(), 0);
    EXPECT_EQ(lock.count | sem_count("lock"), 0);
    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
}

TEST_F(tallylock_test, DeletionSendsAwayWhoeverIsInAndWhoeverComes) {
    background blocked(contend);
    wait_until_blocked("lock");
    stopping_point window("sem_acquire", "lock");
    background late(contend);
    window.wait();
    EXPECT_EQ(zarn_delete_tallylock(&lock), 0);
    EXPECT_EQ(blocked.join(), kDeadSemaphore);
    window.go_on();
    EXPECT_EQ(late.join(), kDeadSemaphore);
    EXPECT_EQ(lock.sem, -1);
    constexpr int32_t kDeleted = static_cast<int32_t>(0xc0000000);
    EXPECT_EQ(lock.count, kDeleted | 1) << "those who waited have left the tally, the holder hasn't";
    EXPECT_EQ(unlock(), kDeadSemaphore);
    EXPECT_EQ(contend(), kDeadSemaphore);
    EXPECT_EQ(lock.count, kDeleted | 1);
}

}  // namespace
