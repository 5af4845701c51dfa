// SPDX-License-Identifier: MIT

#include "sync/zarn_fifo.h"

#include <gtest/gtest.h>
#include <zarn/status.h>

#include <memory>

#include "data/zarn_data.h"
#include "module/tallylock.h"
#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

constexpr uint32_t kLimit = 100;
constexpr int64_t kForever = KERN_TIMEOUT_FOREVER;
char gBytes[2 * kLimit];

struct consumer {
    consumer(zarn_fifo_t *fifo, int64_t timeout, uint8_t peek = 0)
        : call([=, this] { return dequeue_zarn_fifo_data(fifo, &data, timeout, peek); }) {}
    ~consumer() {
        if (join(), data != nullptr) delete_zarn_data(data);
    }
    int32_t join() { return call.join(); }

    zarn_data_t *data = reinterpret_cast<zarn_data_t *>(gBytes);  // a dequeue always stores
    background call;
};

class fifo_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        ASSERT_EQ(create_zarn_fifo(&fifo, "fifo", kLimit), 0);
        clear_journal();
    }

    void TearDown() override {
        if (fifo.lock.sem != -1) delete_zarn_fifo(&fifo);
        module_test::TearDown();
    }

    // Takes a buffer of this length into the queue, or tells why not.
    int32_t put(uint32_t length) {
        zarn_data_t *data = new_zarn_data();
        EXPECT_EQ(length == 0 ? 0 : append_zarn_data(data, gBytes, length, nullptr), 0);
        int32_t status = enqueue_zarn_fifo_data(&fifo, data);
        if (status != 0) delete_zarn_data(data);
        return status;
    }
    int32_t take() { return consumer(&fifo, 0).join(); }
    std::unique_ptr<consumer> sleeper(int32_t line, int64_t timeout = kForever, uint8_t peek = 0) {
        auto result = std::make_unique<consumer>(&fifo, timeout, peek);
        wait_until_blocked("fifo", line);
        return result;
    }

    zarn_fifo_t fifo;
};

TEST_F(kernel_test, AFifoThatCannotBeMadeLeavesNothing) {
    zarn_fifo_t fifo;
    for (int32_t failing : {1, 2}) {
        fail_call(failing, kSemCreate);
        EXPECT_EQ(create_zarn_fifo(&fifo, "fifo", 1), -1);
    }
    EXPECT_EQ(journal("sem_create"),
              (lines{"sem_create \"fifo_lock\" 0", "sem_create \"fifo_lock\" 0", "sem_create \"fifo\" 0"}));
}

TEST_F(fifo_test, TheLimitCountsBytesAndAppliesToTheSum) {
    for (auto [length, taken] :
         {std::pair(kLimit + 1, false), {60, true}, {41, false}, {40, true}, {1, false}, {0, true}})
        EXPECT_EQ(put(length), taken ? 0 : ERR_NO_BUFFER_SPACE) << length;
    zarn_data_t *data = new_zarn_data();
    data->length = UINT32_MAX - kLimit + 1;  // the sum would wrap to 0
    EXPECT_EQ(enqueue_zarn_fifo_data(&fifo, data), ERR_NO_BUFFER_SPACE);
    delete_zarn_data(data);
    for (int32_t length : {60, 40, 0, +ERR_WOULD_BLOCK})
        EXPECT_EQ(take(), length);
    EXPECT_EQ(put(kLimit), 0);
    EXPECT_EQ(take(), static_cast<int32_t>(kLimit));
    EXPECT_EQ(sem_calls(), 0) << "nobody slept";
}

TEST_F(fifo_test, APeekGivesACloneOrWithoutMemoryNothingAndLeavesTheQueueAlone) {
    zarn_data_t *data = new_zarn_data(), *clone;
    for (int i = 0; i < 20; ++i)
        append_zarn_data(data, gBytes + 2 * i, 1, nullptr);
    data->user_word_1 = 11;
    data->user_word_2 = 22;
    auto waits = sleeper(1, kForever, 1);
    ASSERT_EQ(enqueue_zarn_fifo_data(&fifo, data), 0);
    EXPECT_EQ(waits->join(), 20);
    for (int32_t blocks = 0, status = 0; status != 20; ++blocks) {
        {
            starved_memory hunger(blocks);
            status = dequeue_zarn_fifo_data(&fifo, &clone, 0, 1);
        }
        EXPECT_EQ(fifo.head, data);
        EXPECT_EQ(fifo.lock.count, 0);
        ASSERT_EQ(status, clone != nullptr ? 20 : ERR_NO_MEMORY) << blocks;
    }
    EXPECT_NE(clone, data);
    EXPECT_EQ(clone->user_word_1 + clone->user_word_2 * 100, 2211u);
    delete_zarn_data(clone);
}

TEST_F(fifo_test, OneEnqueueWakesAllAndTheOthersWaitTheirWholeTimeAgain) {
    auto first = sleeper(1, 500), second = sleeper(2, 500);
    advance(400);
    EXPECT_EQ(put(9), 0);
    EXPECT_EQ(journal("sem_release \"fifo\""), lines{"sem_release \"fifo\" 2 2"});
    wait_until_blocked("fifo", 1);
    advance(499);
    EXPECT_EQ(sem_waiters("fifo"), 1);
    advance(1);
    EXPECT_EQ(first->join() + second->join(), 9 + kTimedOut);
}

TEST_F(fifo_test, AWaitEndsByTimeOrSignalWithTheStatusOfTheKernel) {
    auto timed = sleeper(1, 500), signalled = sleeper(2);
    EXPECT_EQ(journal("sem_acquire"), lines(2, "sem_acquire \"fifo\" 1 9"));
    advance(500);
    EXPECT_EQ(timed->join(), kTimedOut);
    EXPECT_EQ(interrupt_waiters("fifo"), 1);
    EXPECT_EQ(signalled->join(), kInterrupted);
    EXPECT_EQ(fifo.waiters, 0);
    EXPECT_EQ(signalled->data, nullptr);
}

// The consumer leaves between the enqueue's look at the tally and its release: the tally falls below 0, a
// unit is left over, and whoever sleeps next is neither forgotten nor kept from sleeping for long.
TEST_F(fifo_test, ATimeoutThatCrossesAnEnqueueBalancesOut) {
    auto timed = sleeper(1, 500);
    {
        stopping_point window("sem_release", "fifo");
        background producer([this] { return put(4); });
        window.wait();
        advance(500);
        EXPECT_EQ(timed->join(), kTimedOut);
        EXPECT_EQ(fifo.waiters, -1);
        EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
        window.go_on();
    }
    EXPECT_EQ(sem_count("fifo"), 1);
    EXPECT_EQ(take(), ERR_WOULD_BLOCK);
    auto next = sleeper(1);
    EXPECT_EQ(put(5), 0);
    EXPECT_EQ(next->join(), 5);
    EXPECT_EQ(fifo.waiters | sem_count("fifo"), 0);
}

TEST_F(fifo_test, AClearDeletesAndSendsSleepersAway) {
    put(10);
    EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
    EXPECT_EQ(fifo.current_bytes + sem_calls(), 0u);
    auto one = sleeper(1), other = sleeper(2, 500);
    EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
    EXPECT_EQ(one->join() | other->join(), ERR_WOULD_BLOCK);
    EXPECT_EQ(fifo.waiters | fifo.clearing | sem_count("fifo"), 0);
    EXPECT_EQ(journal("sem_acquire \"fifo\" 2").at(0), "sem_acquire \"fifo\" 2 0");
}

// A consumer that is on the tally and not yet in line, beside one that sleeps.
TEST_F(fifo_test, AClearDoesNotWaitForAConsumerThatIsStillOnItsWay) {
    for (bool arrives_during : {false, true}) {
        auto asleep = sleeper(1);
        stopping_point on_its_way("sem_acquire", "fifo");
        consumer late(&fifo, kForever);
        on_its_way.wait();
        if (arrives_during) {
            stopping_point gives_back("sem_release", "fifo");  // the sleeper, but not the clear
            background clear([this, me = kern_thread_self()] {
                as_thread setter(me);
                return clear_zarn_fifo(&fifo);
            });
            gives_back.wait();
            wait_until_blocked("fifo", 1);  // the clear
            on_its_way.go_on();
            wait_until_blocked("fifo", 2);
            gives_back.go_on();
            EXPECT_EQ(clear.join(), 0);
        } else {
            EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
            on_its_way.go_on();
        }
        EXPECT_EQ(asleep->join(), ERR_WOULD_BLOCK);
        wait_until_blocked("fifo");
        EXPECT_EQ(put(5), 0);
        EXPECT_EQ(late.join(), 5);
        EXPECT_EQ(fifo.waiters | sem_count("fifo"), 0);
    }
}

TEST_F(fifo_test, DeletionSendsSleepersAwayAndDeletesTheRest) {
    stopping_point on_its_way("sem_acquire", "fifo");
    consumer late(&fifo, kForever);
    on_its_way.wait();
    fifo.head = fifo.tail = new_zarn_data();
    delete_zarn_fifo(&fifo);
    on_its_way.go_on();
    EXPECT_EQ(late.join(), kDeadSemaphore);
    EXPECT_EQ(late.data, nullptr);
    EXPECT_EQ(fifo.waiters, 0);
    for (int32_t status : {put(60), take(), clear_zarn_fifo(&fifo)})
        EXPECT_EQ(status, kDeadSemaphore);
}

}  // namespace
