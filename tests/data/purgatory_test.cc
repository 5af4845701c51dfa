// SPDX-License-Identifier: MIT
//
// Deferred deletion: who frees what and where, when the thread wakes, and the windows of its sleep and its end.

#include "data/purgatory.h"

#include <algorithm>
#include <atomic>

#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

using test_kernel::stopping_point;

constexpr char kName[] = "zarn_data purgatory";

// Where the free functions ran, in order: their elements and threads.
std::vector<std::pair<int, int32_t>> gFrees;

void note_thread(void *element) {
    gFrees.emplace_back(*static_cast<int *>(element), kern_thread_self());
}

class purgatory_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        for (int i = 0; i < 32; ++i)
            numbers[i] = i;
        gFrees.clear();
        start();
        wait_for_sleep();
    }
    void TearDown() override {
        stop();
        module_test::TearDown();
    }
    void start() {
        ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
        running = true;
    }
    void stop() {
        if (std::exchange(running, false)) {
            EXPECT_EQ(uninit_data_purgatory(), 0);
        }
    }
    void wait_for_sleep() { test_kernel::wait_until_blocked(kName); }

    // A new buffer with the elements `first` to `last`.
    zarn_data_t *buffer(int first, int last, uint16_t flags = 0) {
        zarn_data_t *data = new_zarn_data();
        for (int i = first; i <= last; ++i)
            add_free_element(data, &numbers[i], nullptr, note_thread, flags);
        return data;
    }
    void isafe_delete(zarn_data_t *data) {
        test_kernel::interrupt_level at;
        isafe_delete_zarn_data(data);
    }

    bool running = false;
    int numbers[32];
};

TEST_F(purgatory_test, TheNinthDeletionWakesTheThread) {
    int32_t calls = test_kernel::sem_calls();
    for (int i = 0; i < 8; ++i)
        isafe_delete(buffer(i, i));
    EXPECT_EQ(test_kernel::sem_calls(), calls);
    EXPECT_TRUE(gFrees.empty());
    isafe_delete(buffer(8, 8));
    wait_for_sleep();
    ASSERT_EQ(gFrees.size(), 9u);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(gFrees[i], std::make_pair(8 - i, gPurgy.thread));
    EXPECT_EQ(test_kernel::sem_calls(), calls + 2) << "one release, and the acquire of the next sleep";
    EXPECT_EQ(gPurgy.count, 0);
}

// Two holders of two descriptors, one interrupt-safe and one not, each deleted by either function: the safe elements
// never wait, the other does if one of its holders lies on the stack.
TEST_F(purgatory_test, OnlySafeElementsAreFreedAtInterruptLevel) {
    for (int kinds = 0; kinds < 4; ++kinds) {
        SCOPED_TRACE(kinds);
        gFrees.clear();
        zarn_data_t *holders[2] = {buffer(0, 5, FREE_INTERRUPT_SAFE), new_zarn_data()};
        auto note_ext = zarn_free_func_from_ext([](void *arg, void *) { note_thread(arg); });
        add_free_element(holders[0], nullptr, &numbers[6], note_ext, 0);
        ASSERT_EQ(append_zarn_data(holders[0], numbers, 4, nullptr), 0);
        for (uint32_t length : {4, 2})  // the clone has both twice
            ASSERT_EQ(clone_zarn_data(holders[1], holders[0], 0, length), 0);
        for (int i : {0, 1}) {
            EXPECT_TRUE(gFrees.empty());
            (kinds >> i & 1) != 0 ? isafe_delete(holders[i]) : delete_zarn_data(holders[i]);
        }
        EXPECT_EQ(gFrees.size(), kinds != 0 ? 6u : 7u);
        stop();
        std::sort(gFrees.begin(), gFrees.end());
        ASSERT_EQ(gFrees.size(), 7u);
        for (int i = 0; i < 7; ++i)
            EXPECT_EQ(gFrees[i].first, i);
        start();
        wait_for_sleep();
    }
}

// A free function that deletes the next buffer of a chain.
zarn_data_t *gChain[12];
void delete_next(void *element) {
    note_thread(element);
    if (zarn_data_t *next = gChain[*static_cast<int *>(element)]) isafe_delete_zarn_data(next);
}

TEST_F(purgatory_test, TheStopReleasesWhateverLiesOnTheStackOrComesMeanwhile) {
    for (int buffers : {0, 12}) {
        test_kernel::clear_journal();
        zarn_data_t *first = new_zarn_data();
        for (int i = 0; i < buffers; ++i) {
            gChain[i] = i < 11 ? new_zarn_data() : nullptr;
            add_free_element(i == 0 ? first : gChain[i - 1], &numbers[i], nullptr, delete_next, 0);
        }
        isafe_delete(first);
        stop();
        EXPECT_EQ(gFrees.size(), static_cast<size_t>(buffers));
        EXPECT_EQ(test_kernel::journal("sem_release").size(), 2u) << "the wake-up and the thread's last act";
        EXPECT_EQ(test_kernel::journal("sem_acquire").size(), 1u);
        start();
        wait_for_sleep();
    }
}

// The stop, on a thread of its own.
struct stopper {
    void expect_end() {
        runner.join();
        EXPECT_EQ(status, 0);
        test_kernel::wait_until_gone(kName);
    }
    std::atomic<bool> returned = false;
    int32_t status = 1;
    std::thread runner{[this] { status = uninit_data_purgatory(), returned = true; }};
};

TEST_F(purgatory_test, TheStopIsNotFooledByTheWakeUpOfAThreadThatIsNotInLineYet) {
    for (bool woken_by_deletion : {false, true}) {
        stop();
        gFrees.clear();
        stopping_point gap("sem_acquire", kName);
        start();
        gap.wait();  // the thread has announced its sleep
        for (int i = 0; woken_by_deletion && i < 9; ++i)
            isafe_delete(buffer(i, i));
        EXPECT_EQ(test_kernel::sem_count(kName), woken_by_deletion);
        EXPECT_EQ(gPurgy.sleeping, !woken_by_deletion);

        stopper stop_now;
        test_kernel::wait_until_asleep("test");  // it has given the unit back and waits for better times
        EXPECT_EQ(test_kernel::sem_count(kName), 1);
        stopping_point last("sem_release", kName);
        gap.go_on();
        last.wait();  // the thread's last act
        EXPECT_EQ(gFrees.size(), woken_by_deletion ? 9u : 0u);
        test_kernel::advance(1000);
        wait_for_sleep();
        EXPECT_FALSE(stop_now.returned);
        last.go_on();
        stop_now.expect_end();
        start();
    }
}

}  // namespace
