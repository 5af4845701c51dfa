// SPDX-License-Identifier: MIT

#include "sync/zarn_rwlock.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <set>

#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

using operation = int32_t (*)(rwlock_t *);

class rwlock_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        ASSERT_EQ(create_rwlock(&lock, "rw"), 0);
        clear_journal();
    }

    void TearDown() override {
        delete_rwlock(&lock);
        kernel_test::TearDown();
    }

    // What thread `id` does at once, and what it may have to wait in.
    int32_t by(int32_t id, operation op) {
        as_thread me(id);
        return op(&lock);
    }
    std::unique_ptr<background> begun(int32_t id, operation op) {
        return std::make_unique<background>([=, this] { return by(id, op); });
    }

    rwlock_t lock;
};

TEST_F(kernel_test, ARwlocksSemaphoresAreMadeInOrderAndUnmadeBackwards) {
    rwlock_t lock;
    const std::string cut(95, 'n');  // a longer name loses its end and not the suffix
    lines made, unmade;
    for (const std::string sem : {"Rw", "rW1", "rW2"}) {
        made.push_back("sem_create \"" + cut + " " + sem + "\" 0");
        unmade.insert(unmade.begin(), "sem_delete \"" + cut + " " + sem + "\"");
    }
    for (const std::string &name : {cut, cut + "n"}) {
        for (int32_t failing = 1; failing <= 3; ++failing) {
            clear_journal();
            fail_call(failing, kSemCreate);
            EXPECT_EQ(create_rwlock(&lock, name.c_str()), -1);
            lines expected(made.begin(), made.begin() + failing);
            expected.insert(expected.end(), unmade.end() - (failing - 1), unmade.end());
            EXPECT_EQ(journal(), expected) << failing;
        }
        clear_journal();
        ASSERT_EQ(create_rwlock(&lock, name.c_str()), 0);
        EXPECT_EQ(journal("sem_set_owner").size(), 3u);
        EXPECT_EQ(delete_rwlock(&lock), 0);
        EXPECT_EQ(journal("sem_delete"), lines(unmade.rbegin(), unmade.rend()));
    }
}

// Whoever has counted itself and is held before its semaphore finds its unit when it gets there.
TEST_F(rwlock_test, AUnitReleasedBeforeTheWaiterCameIsNotLost) {
    struct {
        operation before, late, leave;
        const char *sem;
        uint32_t count;  // in the end
    } const cases[] = {
        {read_lock, write_lock, read_unlock, "rw rW2", 0x10000},
        {write_lock, write_lock, write_unlock, "rw rW1", 0x10000},
        {write_lock, write_lock, write_unlock, "rw rW2", 0x10000},
        {write_lock, read_lock, write_unlock, "rw Rw", 1},
        {write_lock, read_lock, downgrade_to_read, "rw Rw", 2},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_EQ(by(1, c.before), 0);
        {
            stopping_point window("sem_acquire", c.sem);
            auto late = begun(2, c.late);
            const bool queued = c.before == write_lock && std::string(c.sem) == "rw rW2";
            queued ? wait_until_blocked("rw rW1") : window.wait();
            EXPECT_EQ(by(1, c.leave), 0);
            if (queued) window.wait();
            EXPECT_EQ(sem_count(c.sem), 1);
            window.go_on();
            EXPECT_EQ(late->join(), 0);
        }
        EXPECT_EQ(lock.count, c.count);
        EXPECT_EQ(lock.owner, c.late == write_lock ? 2 : -1);
        delete_rwlock(&lock);
        ASSERT_EQ(create_rwlock(&lock, "rw"), 0);
    }
}

// The deletion finds one thread in its wait, or on its way there, and one that is about to let it in.
TEST_F(rwlock_test, NobodyGetsPastADeletedLock) {
    const struct {
        operation before, waits, leaves;
    } cases[] = {
        {write_lock, read_lock, write_unlock},       {write_lock, write_lock, write_unlock},
        {write_lock, write_lock, downgrade_to_read}, {read_lock, write_lock, read_unlock},
        {read_lock, write_lock, upgrade_to_write},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_EQ(by(1, c.before), 0);
        const uint32_t count = lock.count;
        auto waiter = begun(2, c.waits);
        while (__atomic_load_n(&lock.count, __ATOMIC_ACQUIRE) == count)
            std::this_thread::yield();
        stopping_point window("sem_release");
        auto leaver = begun(1, c.leaves);
        window.wait();
        delete_rwlock(&lock);
        window.go_on();
        EXPECT_EQ(waiter->join(), kDeadSemaphore);
        EXPECT_EQ(leaver->join(), kDeadSemaphore);
        ASSERT_EQ(create_rwlock(&lock, "rw"), 0);
    }
}

// The lock as its rules tell it: who is in, who waits, who is let in.
struct model {
    std::set<int32_t> in, waiting;  // readers
    std::deque<int32_t> queue;      // writers who wait
    int32_t writer = -1, depth = 0;

    void let_in() {
        if (writer != -1) return;
        if (!queue.empty()) {
            if (!in.empty()) return;
            writer = queue.front();
            queue.pop_front();
            depth = 1;
        } else {
            in.merge(waiting);
        }
    }
    bool waits(int32_t id) const {
        return waiting.count(id) != 0 || std::find(queue.begin(), queue.end(), id) != queue.end();
    }
    void apply(int32_t id, operation op) {
        const bool own = id == writer;
        if (op == write_lock || op == upgrade_to_write) {
            if (!own) in.erase(id), queue.push_back(id);
            depth += own;
        } else if (op == read_lock && !own) {
            (writer != -1 || !queue.empty() ? waiting : in).insert(id);
        } else if (op == read_unlock && !own) {
            in.erase(id);
        } else if ((op == write_unlock || op == downgrade_to_read) && --depth == 0) {
            writer = -1;
            if (op == downgrade_to_read) in.insert(id);
        }
        let_in();
    }
};

TEST_F(rwlock_test, RandomUseAgreesWithTheRules) {
    constexpr int32_t kThreads = 6;
    std::mt19937 random(20240);
    model rules;
    std::unique_ptr<background> calls[kThreads + 1];
    for (int step = 0; step < 3000; ++step) {
        int32_t id = 1 + static_cast<int32_t>(random() % kThreads);
        if (rules.waits(id)) continue;
        std::vector<operation> choices = {read_lock, read_lock, write_lock};
        if (rules.in.count(id) != 0) choices = {read_unlock, read_unlock, upgrade_to_write};
        if (rules.writer == id)
            choices = {write_unlock,     write_unlock, downgrade_to_read, write_lock,
                       upgrade_to_write, read_lock,    read_unlock};
        operation op = choices[random() % choices.size()];
        SCOPED_TRACE(testing::Message() << "step " << step << " thread " << id);
        rules.apply(id, op);
        calls[id] = begun(id, op);
        for (int32_t other = 1; other <= kThreads; ++other)
            ASSERT_TRUE(!calls[other] || rules.waits(other) || calls[other]->join() == 0) << other;
        const bool draining = rules.writer == -1 && !rules.queue.empty();
        wait_until_blocked("rw Rw", static_cast<int32_t>(rules.waiting.size()));
        wait_until_blocked("rw rW2", draining);
        wait_until_blocked("rw rW1", static_cast<int32_t>(rules.queue.size()) - draining);
        ASSERT_EQ(lock.owner, rules.writer);
        ASSERT_TRUE(rules.writer == -1 || lock.depth == rules.depth);
        ASSERT_EQ(lock.count & 0xffff, rules.in.size() + rules.waiting.size());
        ASSERT_EQ(lock.count >> 16, rules.queue.size() + (rules.writer != -1));
    }
    delete_rwlock(&lock);  // whoever still waits
    for (int32_t id = 1; id <= kThreads; ++id)
        EXPECT_TRUE(!calls[id] || calls[id]->join() == (rules.waits(id) ? kDeadSemaphore : 0));
    ASSERT_EQ(create_rwlock(&lock, "rw"), 0);
}

}  // namespace
