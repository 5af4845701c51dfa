// SPDX-License-Identifier: MIT
//
// Deferred deletion: who frees what and where, when the thread wakes, and the windows of its sleep and its end.

#include "data/purgatory.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

using test_kernel::interrupt_level;
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
        gFrees.clear();
        for (int i = 0; i < 32; ++i)
            numbers[i] = i;
        start();
    }
    void TearDown() override {
        stop();
        module_test::TearDown();
    }

    void start() {
        ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
        running = true;
    }
    void start_asleep() {
        start();
        wait_for_sleep();
    }
    void stop() {
        if (std::exchange(running, false)) {
            EXPECT_EQ(uninit_data_purgatory(), 0);
        }
    }
    void wait_for_sleep() { test_kernel::wait_until_blocked(kName); }

    // A new buffer with the elements `first` to `last` in descriptors of the flags.
    zarn_data_t *buffer(int first, int last, uint16_t flags = 0) {
        zarn_data_t *data = new_zarn_data();
        for (int i = first; i <= last; ++i)
            add_free_element(data, &numbers[i], nullptr, note_thread, flags);
        return data;
    }
    void isafe_delete(zarn_data_t *data) {
        interrupt_level at;
        isafe_delete_zarn_data(data);
    }
    std::vector<int> freed() const {
        std::vector<int> order;
        for (auto &[number, thread] : gFrees)
            order.push_back(number);
        return order;
    }

    bool running = false;
    int numbers[32];
};

TEST_F(purgatory_test, TheNinthDeletionWakesTheThread) {
    wait_for_sleep();
    int32_t calls = test_kernel::sem_calls();
    for (int i = 0; i < 8; ++i)
        isafe_delete(buffer(i, i));
    EXPECT_EQ(test_kernel::sem_waiters(kName), 1);
    EXPECT_EQ(test_kernel::sem_calls(), calls);
    EXPECT_TRUE(gFrees.empty());
    isafe_delete(buffer(8, 8));
    wait_for_sleep();
    EXPECT_EQ(freed(), (std::vector<int>{8, 7, 6, 5, 4, 3, 2, 1, 0}));
    for (auto &[number, thread] : gFrees)
        EXPECT_EQ(thread, gPurgy.thread);
    EXPECT_EQ(test_kernel::sem_calls(), calls + 2) << "one release, and the acquire of the next sleep";
    EXPECT_EQ(blocks_out(), "");
    EXPECT_EQ(gPurgy.count, 0);
}

int32_t gGate;
void wait_at_gate(void *) {
    kern_sem_acquire(gGate);
}

TEST_F(purgatory_test, WhileTheThreadIsAwakeDeletionsMakeNoCall) {
    gGate = kern_sem_create(0, "gate");
    wait_for_sleep();
    for (int i = 0; i < 9; ++i) {
        zarn_data_t *data = new_zarn_data();
        if (i == 8) add_free_element(data, &numbers[0], nullptr, wait_at_gate, 0);
        isafe_delete(data);
    }
    test_kernel::wait_until_blocked("gate");
    int32_t calls = test_kernel::sem_calls();
    for (int i = 0; i < 20; ++i)
        isafe_delete(buffer(i, i));
    EXPECT_EQ(test_kernel::sem_calls(), calls);
    EXPECT_TRUE(gFrees.empty());
    kern_sem_release(gGate);
    wait_for_sleep();
    EXPECT_EQ(gFrees.size(), 20u);
    kern_sem_delete(gGate);
}

TEST_F(purgatory_test, InterruptSafeElementsGoAtOnceAndTheBlockLater) {
    wait_for_sleep();
    zarn_data_t *data = buffer(0, 4, FREE_INTERRUPT_SAFE);
    ASSERT_EQ(add_free_element(data, &numbers[5], &numbers[6],
                               zarn_free_func_from_ext([](void *arg, void *element) {
                                   EXPECT_EQ(*static_cast<int *>(arg), 6);
                                   note_thread(element);
                               }),
                               FREE_INTERRUPT_SAFE),
              0);
    ASSERT_EQ(
        add_free_element(data, &numbers[7], &numbers[8],
                         zarn_free_func_from_ext([](void *, void *element) { note_thread(element); }), 0),
        0);
    leave_nodes(data, 0);
    ASSERT_EQ(append_zarn_data(data, numbers, 4, nullptr), 0);
    leave_nodes(data, 0);
    ASSERT_EQ(append_zarn_data(data, numbers, 4, nullptr), 0);  // two pools beside the one inside
    int32_t small = free_blocks(gMP.small_pool), medium = free_blocks(gMP.medium_pool);
    isafe_delete(data);
    EXPECT_EQ(freed(), (std::vector<int>{5, 4, 0, 1, 2, 3}));
    for (auto &[number, thread] : gFrees)
        EXPECT_EQ(thread, kern_thread_self());
    EXPECT_EQ(free_blocks(gMP.small_pool), small);
    EXPECT_EQ(free_blocks(gMP.medium_pool), medium);
    int32_t purgatory = gPurgy.thread;
    stop();
    ASSERT_EQ(gFrees.size(), 7u);
    EXPECT_EQ(gFrees.back(), std::make_pair(7, purgatory));
    EXPECT_EQ(blocks_out(), "");
}

// Three holders of two descriptors, one interrupt-safe and one not, and the last holder has both twice. Every order of
// deletion, each by either function, with the thread coming by after each deletion or only at the end.
TEST_F(purgatory_test, SharedDescriptorsInEveryOrderOfDeletion) {
    stop();
    int order[] = {0, 1, 2};
    do {
        for (int kinds = 0; kinds < 8; ++kinds) {
            for (bool drains : {false, true}) {
                SCOPED_TRACE(testing::Message() << order[0] << order[1] << order[2] << " kinds " << kinds
                                                << " drains " << drains);
                gFrees.clear();
                start_asleep();
                zarn_data_t *holders[3] = {buffer(0, 5, FREE_INTERRUPT_SAFE), new_zarn_data(),
                                           new_zarn_data()};
                add_free_element(holders[0], &numbers[6], &numbers[6],
                                 zarn_free_func_from_ext([](void *arg, void *) { note_thread(arg); }), 0);
                ASSERT_EQ(append_zarn_data(holders[0], numbers, 4, nullptr), 0);
                ASSERT_EQ(clone_zarn_data(holders[1], holders[0], 0, 4), 0);
                ASSERT_EQ(clone_zarn_data(holders[2], holders[1], 0, 4), 0);
                ASSERT_EQ(clone_zarn_data(holders[2], holders[0], 0, 2), 0);
                for (int i : order) {
                    bool isafe = kinds >> i & 1;
                    EXPECT_TRUE(gFrees.empty());
                    isafe ? isafe_delete(holders[i]) : delete_zarn_data(holders[i]);
                    if (i == order[2]) {
                        // The safe elements never wait; the other does if one of its holders lies on the stack.
                        bool waits = isafe || (!drains && kinds != 0);
                        EXPECT_EQ(gFrees.size(), waits ? 6u : 7u);
                    }
                    if (drains) {
                        stop();
                        start_asleep();
                    }
                }
                stop();
                std::vector<int> all = freed();
                std::sort(all.begin(), all.end());
                EXPECT_EQ(all, (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
                EXPECT_EQ(blocks_out(), "");
            }
        }
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST_F(purgatory_test, TheStopReleasesWhateverLiesOnTheStack) {
    for (int buffers : {0, 5}) {
        wait_for_sleep();
        test_kernel::clear_journal();
        gFrees.clear();
        for (int i = 0; i < buffers; ++i)
            isafe_delete(buffer(i, i));
        stop();
        EXPECT_EQ(gFrees.size(), static_cast<size_t>(buffers));
        EXPECT_EQ(test_kernel::journal("sem_release").size(), 2u) << "the wake-up and the thread's last act";
        EXPECT_EQ(test_kernel::journal("sem_acquire").size(), 1u);
        start();
    }
}

// A free function that deletes the next buffer of a chain.
zarn_data_t *gChain[12];
void delete_next(void *element) {
    note_thread(element);
    if (zarn_data_t *next = gChain[*static_cast<int *>(element)]) isafe_delete_zarn_data(next);
}

TEST_F(purgatory_test, TheStopWaitsForDeletionsThatFreeFunctionsMake) {
    wait_for_sleep();
    zarn_data_t *first = new_zarn_data();
    for (int i = 0; i < 12; ++i) {
        gChain[i] = i < 11 ? new_zarn_data() : nullptr;
        add_free_element(i == 0 ? first : gChain[i - 1], &numbers[i], nullptr, delete_next, 0);
    }
    isafe_delete(first);
    stop();
    EXPECT_EQ(gFrees.size(), 12u);
}

// The stop, on a thread of its own.
struct stopper {
    stopper() : runner([this] { status = uninit_data_purgatory(), returned = true; }) {}
    int32_t join() {
        runner.join();
        return status;
    }
    std::atomic<bool> returned = false;
    int32_t status = 1;
    std::thread runner;
};

TEST_F(purgatory_test, TheStopIsNotFooledByTheWakeUpOfAThreadThatIsNotInLineYet) {
    for (bool woken_by_deletion : {false, true}) {
        stop();
        gFrees.clear();
        stopping_point gap("sem_acquire", kName);
        start();
        gap.wait();  // the thread has announced its sleep
        EXPECT_EQ(gPurgy.sleeping, 1);
        for (int i = 0; woken_by_deletion && i < 9; ++i)
            isafe_delete(buffer(i, i));
        EXPECT_EQ(test_kernel::sem_count(kName), woken_by_deletion);
        EXPECT_EQ(gPurgy.sleeping, !woken_by_deletion);

        stopper stop_now;
        test_kernel::wait_until_asleep("test");  // it has given the unit back and waits for better times
        EXPECT_EQ(test_kernel::sem_count(kName), 1);
        EXPECT_FALSE(stop_now.returned);
        stopping_point last("sem_release", kName);
        gap.go_on();
        last.wait();  // the thread's last act
        EXPECT_EQ(gFrees.size(), woken_by_deletion ? 9u : 0u);
        test_kernel::advance(1000);
        test_kernel::wait_until_blocked(kName);
        EXPECT_FALSE(stop_now.returned);
        last.go_on();
        EXPECT_EQ(stop_now.join(), 0);
        test_kernel::wait_until_gone(kName);
        running = false;
        start();
    }
}

TEST_F(purgatory_test, TheStopOfAThreadAtWorkReleasesNothing) {
    gGate = kern_sem_create(0, "gate");
    wait_for_sleep();
    for (int i = 0; i < 9; ++i) {
        zarn_data_t *data = buffer(i, i);
        if (i == 4) add_free_element(data, &numbers[0], nullptr, wait_at_gate, 0);
        isafe_delete(data);
    }
    test_kernel::wait_until_blocked("gate");
    int32_t calls = test_kernel::sem_calls();
    stopping_point last("sem_release", kName);
    stopper stop_now;
    test_kernel::wait_until_blocked(kName);
    EXPECT_EQ(test_kernel::sem_calls(), calls + 1) << "the stop's own acquire";
    kern_sem_release(gGate);
    last.wait();
    EXPECT_EQ(gFrees.size(), 9u);
    EXPECT_EQ(gPurgy.sleeping, 0);
    EXPECT_FALSE(stop_now.returned);
    last.go_on();
    EXPECT_EQ(stop_now.join(), 0);
    running = false;
    test_kernel::wait_until_gone(kName);
    kern_sem_delete(gGate);
}

TEST_F(purgatory_test, AFailedStartLeavesNothing) {
    stop();
    test_kernel::fail_call(1, test_kernel::kSemCreate);
    EXPECT_EQ(init_data_purgatory(8), test_kernel::kRefused);
    EXPECT_EQ(gPurgy.sem, test_kernel::kRefused);
    test_kernel::fail_call(1, test_kernel::kThreadSpawn);
    EXPECT_EQ(init_data_purgatory(8), test_kernel::kRefused);
    EXPECT_EQ(gPurgy.thread, test_kernel::kRefused);
    EXPECT_EQ(test_kernel::sem_count(kName), -1);
    test_kernel::fail_nothing();
    start();
    EXPECT_EQ(test_kernel::thread_priority(kName), 5);
}

}  // namespace
