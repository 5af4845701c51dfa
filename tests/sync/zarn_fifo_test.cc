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

// A dequeue on a thread of its own, with what it got.
struct consumer {
    consumer(zarn_fifo_t *fifo, int64_t timeout, uint8_t peek = 0)
        : call([=, this] { return dequeue_zarn_fifo_data(fifo, &data, timeout, peek); }) {}
    ~consumer() {
        call.join();
        if (data != nullptr) delete_zarn_data(data);
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

    static zarn_data_t *buffer(uint32_t length) {
        zarn_data_t *data = new_zarn_data();
        if (length != 0) {
            EXPECT_EQ(append_zarn_data(data, gBytes, length, nullptr), 0);
        }
        return data;
    }
    // Takes a buffer of this length into the queue, or tells why not.
    int32_t put(uint32_t length) {
        zarn_data_t *data = buffer(length);
        int32_t status = enqueue_zarn_fifo_data(&fifo, data);
        if (status != 0) delete_zarn_data(data);
        return status;
    }
    int32_t take(int64_t timeout = 0) { return consumer(&fifo, timeout).join(); }
    std::unique_ptr<consumer> sleeper(int32_t line, int64_t timeout = kForever, uint8_t peek = 0) {
        auto result = std::make_unique<consumer>(&fifo, timeout, peek);
        wait_until_blocked("fifo", line);
        return result;
    }

    zarn_fifo_t fifo;
};

TEST_F(kernel_test, AFifoThatCannotBeMadeLeavesNothing) {
    zarn_fifo_t fifo;
    const lines tried[] = {{"sem_create \"fifo_lock\" 0"},
                           {"sem_create \"fifo_lock\" 0", "sem_set_owner \"fifo_lock\" 2",
                            "sem_create \"fifo\" 0", "sem_delete \"fifo_lock\""}};
    for (int32_t failing : {1, 2}) {
        clear_journal();
        fail_call(failing, kSemCreate);
        EXPECT_EQ(create_zarn_fifo(&fifo, "fifo", 1), -1);
        EXPECT_EQ(journal(), tried[failing - 1]);
        EXPECT_EQ(leftovers(), "");
    }
}

TEST_F(fifo_test, TheLimitCountsBytesAndAppliesToTheSum) {
    constexpr int32_t kFull = ERR_NO_BUFFER_SPACE;
    const std::pair<uint32_t, int32_t> puts[] = {{kLimit + 1, kFull}, {60, 0}, {41, kFull}, {40, 0},
                                                 {1, kFull},          {0, 0}};
    for (auto [length, status] : puts)
        EXPECT_EQ(put(length), status) << length;
    zarn_data_t *data = new_zarn_data();
    data->length = UINT32_MAX - kLimit + 1;  // the sum would wrap to 0
    EXPECT_EQ(enqueue_zarn_fifo_data(&fifo, data), kFull);
    delete_zarn_data(data);
    for (int32_t length : {60, 40, 0, +ERR_WOULD_BLOCK})
        EXPECT_EQ(take(), length);
    EXPECT_NE(fifo.tail, nullptr) << "stale, and must not be linked to";
    EXPECT_EQ(put(kLimit), 0);
    EXPECT_EQ(take(), static_cast<int32_t>(kLimit));
    EXPECT_EQ(sem_calls(), 0) << "nobody slept";
}

TEST_F(fifo_test, APeekGivesACloneAndLeavesTheQueueAlone) {
    for (int32_t length : {70, 0}) {
        auto waits = sleeper(1, kForever, 1);
        put(static_cast<uint32_t>(length));
        EXPECT_EQ(waits->join(), length);
        fifo.head->user_word_1 = 11;
        fifo.head->user_word_2 = 22;
        consumer peek(&fifo, 0, 1);
        EXPECT_EQ(peek.join(), length);
        ASSERT_NE(peek.data, nullptr);
        EXPECT_NE(peek.data, fifo.head);
        EXPECT_EQ(peek.data->user_word_1 + peek.data->user_word_2 * 100, 2211u);
        if (length != 0) {
            EXPECT_EQ(peek.data->datalist->base, gBytes) << "shared, not copied";
        }
        EXPECT_EQ(take(), length);
    }
}

TEST_F(fifo_test, APeekWithoutMemoryChangesNothing) {
    zarn_data_t *data = new_zarn_data(), *clone;
    for (int i = 0; i < 20; ++i)
        append_zarn_data(data, gBytes + 2 * i, 1, nullptr);
    ASSERT_EQ(enqueue_zarn_fifo_data(&fifo, data), 0);
    for (int32_t blocks = 0, status = 0; status != 20; ++blocks) {
        {
            starved_memory hunger(blocks);
            status = dequeue_zarn_fifo_data(&fifo, &clone, 0, 1);
        }
        EXPECT_EQ(fifo.head, data);
        EXPECT_EQ(fifo.current_bytes, 20u);
        EXPECT_EQ(fifo.lock.count, 0);
        ASSERT_EQ(status, clone != nullptr ? 20 : ERR_NO_MEMORY) << blocks;
        ASSERT_TRUE(clone == nullptr ? blocks < 10 : blocks > 1)
            << "a buffer and more nodes than it has room for";
    }
    delete_zarn_data(clone);
}

TEST_F(fifo_test, OneEnqueueWakesAllAndTheFirstTakesIt) {
    auto first = sleeper(1), second = sleeper(2, 500);
    EXPECT_EQ(fifo.waiters, 2);
    EXPECT_EQ(put(9), 0);
    EXPECT_EQ(journal("sem_release \"fifo\""), lines{"sem_release \"fifo\" 2 2"});
    // Either may be quicker; the other sleeps again, with the whole of its time.
    wait_until_blocked("fifo", 1);
    EXPECT_EQ(fifo.waiters, 1);
    EXPECT_EQ(put(8), 0);
    EXPECT_EQ(first->join() + second->join(), 17);
}

TEST_F(fifo_test, AConsumerWithAUnitForNothingWaitsItsWholeTimeAgain) {
    auto slow = sleeper(1, 500);
    advance(400);
    {
        stopping_point window("sem_acquire", "fifo");
        kern_sem_release(fifo.wait_sem);  // as by an enqueue whose buffer another one took
        window.wait();
    }
    wait_until_blocked("fifo");
    advance(499);
    EXPECT_EQ(sem_waiters("fifo"), 1);
    advance(1);
    EXPECT_EQ(slow->join(), kTimedOut);
}

TEST_F(fifo_test, AWaitEndsByTimeOrSignalWithTheStatusOfTheKernel) {
    auto timed = sleeper(1, 500);
    auto signalled = sleeper(2);
    EXPECT_EQ(journal("sem_acquire"), (lines{"sem_acquire \"fifo\" 1 9", "sem_acquire \"fifo\" 1 9"}));
    advance(500);
    EXPECT_EQ(timed->join(), kTimedOut);
    EXPECT_EQ(fifo.waiters, 1);
    EXPECT_EQ(interrupt_waiters("fifo"), 1);
    EXPECT_EQ(signalled->join(), kInterrupted);
    EXPECT_EQ(fifo.waiters, 0);
    EXPECT_EQ(signalled->data, nullptr);
}

TEST_F(fifo_test, AUnitReleasedBeforeTheAcquireWakesTheConsumer) {
    stopping_point window("sem_acquire", "fifo");
    consumer late(&fifo, kForever);
    window.wait();
    EXPECT_EQ(put(4), 0);
    window.go_on();
    EXPECT_EQ(late.join(), 4);
    EXPECT_EQ(fifo.waiters, 0);
    EXPECT_EQ(sem_count("fifo"), 0);
}

// The consumer leaves between the enqueue's look at the tally and its release: the tally falls below 0, a
// unit is left over, and whoever sleeps next is neither forgotten nor kept from sleeping for long.
TEST_F(fifo_test, ATimeoutThatCrossesAnEnqueueBalancesOut) {
    for (bool clears : {false, true}) {
        auto timed = sleeper(1, 500);
        {
            stopping_point window("sem_release", "fifo");
            background producer([this] { return put(4); });
            window.wait();
            EXPECT_EQ(fifo.waiters, 0);
            advance(500);
            EXPECT_EQ(timed->join(), kTimedOut);
            EXPECT_EQ(fifo.waiters, -1);
            if (clears) {
                clear_journal();
                EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
                EXPECT_EQ(journal(), lines{}) << "nobody to send away, and nothing to wait for";
            }
            window.go_on();
        }
        EXPECT_EQ(sem_count("fifo"), 1);
        EXPECT_EQ(take(), clears ? ERR_WOULD_BLOCK : 4);
        auto next = sleeper(1);
        EXPECT_EQ(fifo.waiters, 1) << "once for the unit left over, once for good";
        EXPECT_EQ(put(5), 0);
        EXPECT_EQ(next->join(), 5);
        EXPECT_EQ(fifo.waiters, 0);
        EXPECT_EQ(sem_count("fifo"), 0);
    }

    fifo.waiters = -1;
    clear_journal();
    EXPECT_EQ(put(6), 0);
    EXPECT_EQ(journal(), lines{"sem_release \"fifo\" -1 2"});
    EXPECT_EQ(fifo.waiters, 0);
    EXPECT_EQ(sem_count("fifo"), 0);
}

TEST_F(fifo_test, AClearDeletesAndSendsSleepersAway) {
    put(10);
    put(20);
    EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
    EXPECT_EQ(sem_calls(), 0) << "nobody sleeps";
    EXPECT_EQ(blocks_out(), "");
    EXPECT_EQ(fifo.current_bytes, 0u);
    for (int round = 0; round < 2; ++round) {
        std::unique_ptr<consumer> sleepers[] = {sleeper(1), sleeper(2, 500), sleeper(3)};
        EXPECT_EQ(clear_zarn_fifo(&fifo), 0);
        for (auto &one : sleepers)
            EXPECT_EQ(one->join(), ERR_WOULD_BLOCK);
        EXPECT_EQ(fifo.waiters | fifo.clearing | sem_count("fifo"), 0);
    }
    EXPECT_EQ(journal("sem_acquire \"fifo\" 3").at(0), "sem_acquire \"fifo\" 3 0");
}

// A consumer that is on the tally and not yet in line, beside one that sleeps.
TEST_F(fifo_test, AClearDoesNotWaitForAConsumerThatIsStillOnItsWay) {
    for (bool arrives_during : {false, true}) {
        auto asleep = sleeper(1);
        stopping_point on_its_way("sem_acquire", "fifo");
        consumer late(&fifo, kForever);
        on_its_way.wait();
        EXPECT_EQ(fifo.waiters, 2);
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
            EXPECT_EQ(sem_count("fifo"), 0);
            on_its_way.go_on();
        }
        EXPECT_EQ(asleep->join(), ERR_WOULD_BLOCK);
        wait_until_blocked("fifo");
        EXPECT_EQ(fifo.waiters, 1) << "it sleeps on, and the next enqueue knows of it";
        EXPECT_EQ(put(5), 0);
        EXPECT_EQ(late.join(), 5);
        EXPECT_EQ(fifo.waiters, 0);
        EXPECT_EQ(sem_count("fifo"), 0);
    }
}

TEST_F(fifo_test, DeletionSendsSleepersAwayAndDeletesTheRest) {
    auto asleep = sleeper(1);
    stopping_point on_its_way("sem_acquire", "fifo");
    consumer late(&fifo, kForever);
    on_its_way.wait();
    clear_journal();
    zarn_data_t *queued = buffer(50);  // behind the back of those who sleep
    fifo.head = fifo.tail = queued;
    fifo.current_bytes = 50;
    delete_zarn_fifo(&fifo);
    EXPECT_EQ(journal(), (lines{"sem_delete \"fifo\"", "sem_delete \"fifo_lock\""}));
    EXPECT_EQ(blocks_out(), "");
    EXPECT_EQ(asleep->join(), kDeadSemaphore);
    on_its_way.go_on();
    EXPECT_EQ(late.join(), kDeadSemaphore);
    EXPECT_EQ(late.data, nullptr);
    EXPECT_EQ(fifo.waiters, 0);

    EXPECT_EQ(put(60), kDeadSemaphore);
    EXPECT_EQ(take(), kDeadSemaphore);
    EXPECT_EQ(clear_zarn_fifo(&fifo), kDeadSemaphore);
}

}  // namespace
