// SPDX-License-Identifier: MIT

#include "sync/zarn_timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>

#include "module/tallylock.h"
#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

constexpr int64_t kTick = kTimerTick, kLap = kTimerLap;

// Nobody else may use the wheel meanwhile.
void expect_sound_wheel() {
    for (uint32_t slot = 0; slot < kTimerSlots; ++slot) {
        const zarn_timer_t *before = nullptr;
        for (const zarn_timer_t *timer = gZarnTimerData.wheel[slot]; timer != nullptr; timer = timer->next) {
            ASSERT_EQ(timer->index, slot);
            ASSERT_EQ(timer->prev, before);
            ASSERT_TRUE(timer->appt != 0 && timer->hook != nullptr);
            ASSERT_EQ((timer->appt / kTick + 1) & (kTimerSlots - 1), slot);
            before = timer;
        }
    }
}

// A timer that remembers when it fired, and what it is to do then.
struct probe {
    probe() : timer(create_zarn_timer(fire, this)) {}
    ~probe() {
        if (timer != nullptr) delete_zarn_timer(timer);
    }
    probe(const probe &) = delete;

    static void fire(zarn_timer_t *timer, void *arg) {
        probe *self = static_cast<probe *>(arg);
        EXPECT_EQ(timer, self->timer);
        EXPECT_EQ(zarn_timer_appointment(timer), 0) << "a hook finds its timer idle";
        self->fired.push_back(kern_time_us());
        if (self->then) self->then();
    }
    void arm(int64_t delay, uint8_t replace = 1) const { zarn_set_timer(timer, delay, replace); }
    int64_t appointment() const { return zarn_timer_appointment(timer); }
    void remove() { delete_zarn_timer(std::exchange(timer, nullptr)); }

    zarn_timer_t *timer;
    std::vector<int64_t> fired;
    std::function<void()> then;
};

int32_t stop_wheel() {
    background stop(uninit_zarn_timers);
    wait_until_blocked("timer exit sync");
    advance(kTick);
    return stop.join();
}

// The clock stands at the start of a tick and has been passed over: the cursor is on the next slot.
class timer_test : public kernel_test {
 protected:
    void SetUp() override {
        kernel_test::SetUp();
        ASSERT_EQ(init_zarn_timers(), 0);
        wait_until_asleep("zarn_timer");
        set_time((kStartTime / kTick + 2) * kTick);
        wait_until_asleep("zarn_timer");
        clear_journal();
    }

    void TearDown() override {
        expect_sound_wheel();
        EXPECT_EQ(stop_wheel(), 0);
        kernel_test::TearDown();
    }

    // One pass, that many ticks after the one before.
    void pass(int64_t ticks = 1) {
        advance(ticks * kTick);
        wait_until_asleep("zarn_timer");
        expect_sound_wheel();
    }
};

TEST_F(kernel_test, TheWheelIsMadeInOrderAndUnmadeBackwards) {
    const lines made = {"sem_create \"delete_zarn_timer\" 0", "sem_set_owner \"delete_zarn_timer\" 2",
                        "sem_create \"zarntimerlock\" 0",     "thread_spawn \"zarn_timer\" 20",
                        "thread_resume \"zarn_timer\"",       "debug_add_command \"zarn_timer\""};
    const lines unmade = {"sem_delete \"zarntimerlock\"", "sem_delete \"delete_zarn_timer\""};
    const size_t calls[] = {1, 3, 4};
    for (int32_t failing = 1; failing <= 3; ++failing) {
        SCOPED_TRACE(failing);
        clear_journal();
        fail_call(failing, kSemCreate | kThreadSpawn);
        EXPECT_EQ(init_zarn_timers(), -1);
        EXPECT_EQ(leftovers(), "");
        lines expected(made.begin(), made.begin() + calls[failing - 1]);
        expected.insert(expected.end(), unmade.end() - (failing - 1), unmade.end());
        EXPECT_EQ(journal(), expected);
    }
    fail_nothing();
    EXPECT_EQ(log_lines(), lines{}) << "a failed start prints nothing";
    clear_journal();
    ASSERT_EQ(init_zarn_timers(), 0);
    EXPECT_EQ(journal(), made);
    EXPECT_EQ(log_lines(), lines{"zarn_timers : wheel Size 512 ticks at 4096 usec steps (2097152 len)\n"});
    EXPECT_EQ(debug_help("zarn_timer"), "zarn_timer [timeraddress]");
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(gZarnTimerData.next_wakeup, kStartTime + kTick);
    EXPECT_EQ(gZarnTimerData.cursor, 0u);

    clear_journal();
    EXPECT_EQ(stop_wheel(), 0);
    EXPECT_EQ(journal("sem_delete"), (lines{"sem_delete \"timer exit sync\"", "sem_delete \"zarntimerlock\"",
                                            "sem_delete \"delete_zarn_timer\""}));
    EXPECT_EQ(journal("sem_release"), lines{"sem_release \"timer exit sync\" 1 2"});
}

TEST_F(timer_test, AStopWithoutItsSemaphoreLeavesTheWheelTurning) {
    fail_call(1, kSemCreate);
    EXPECT_EQ(uninit_zarn_timers(), kRefused);
    probe timer;
    timer.arm(0);
    pass();
    EXPECT_EQ(timer.fired.size(), 1u);
}

TEST_F(kernel_test, WithoutMemoryThereIsNoTimer) {
    fail_call(1, kHeap);
    EXPECT_EQ(create_zarn_timer(probe::fire, nullptr), nullptr);
}

TEST(zarn_timer_death, ATimerWithoutAHookHaltsTheSystem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zarn_timer_t timer = {};
    EXPECT_DEATH(zarn_set_timer(&timer, 0, 1), "zarn_set_timer called with null hook: 0x[0-9a-f]+\n");
}

TEST_F(timer_test, FiresInTheFirstPassBehindTheTickOfItsAppointment) {
    for (int64_t delay : {int64_t{0}, kTick - 1, kTick, kLap - 1, kLap, 3 * kLap}) {
        probe timer;
        timer.arm(delay);
        EXPECT_EQ(timer.appointment(), now() + delay);
        for (int64_t ticks = delay / kTick; ticks > 0; --ticks)
            pass();
        advance(kTick - 1);
        wait_until_asleep("zarn_timer");
        EXPECT_EQ(timer.fired.size(), 0u) << delay;
        advance(1);
        wait_until_asleep("zarn_timer");
        EXPECT_EQ(timer.fired.size(), 1u) << delay;
    }
}

TEST_F(timer_test, AnotherHookCancelsAndIsCalledFromThenOn) {
    probe timer;
    bool called = false;
    timer.arm(0);
    zarn_set_timer_hook(
        timer.timer, [](zarn_timer_t *, void *arg) { *static_cast<bool *>(arg) = true; }, &called);
    pass();
    EXPECT_FALSE(called);
    timer.arm(0);
    pass();
    EXPECT_TRUE(called);
    zarn_cancel_timer(timer.timer);  // after firing
    EXPECT_EQ(timer.fired.size(), 0u);
}

TEST_F(timer_test, AThreadThatWasKeptAwayCatchesUpOrSkips) {
    for (int64_t ticks : {1, 2, 3, 255, 256, 257, 258, 511, 512}) {
        SCOPED_TRACE(ticks);
        std::vector<std::unique_ptr<probe>> timers;
        const int64_t start = now();
        for (int64_t slot = 0; slot < kTimerSlots; ++slot) {
            timers.push_back(std::make_unique<probe>());
            timers.back()->arm(slot * kTick);
        }
        pass(ticks);
        const int64_t visited = ticks <= 256 ? ticks : 0;
        for (int64_t slot = 0; slot < kTimerSlots; ++slot)
            ASSERT_EQ(timers[slot]->fired.size(), slot < visited) << slot;
        for (int64_t left = 0; left < kTimerSlots; ++left)
            pass();
        for (int64_t slot = 0; slot < kTimerSlots; ++slot) {
            ASSERT_EQ(timers[slot]->fired.size(), 1u) << slot;
            int64_t late = timers[slot]->fired[0] - start - slot * kTick;
            ASSERT_GE(late, kTick) << slot;
            ASSERT_LE(late, slot < ticks ? ticks * kTick + kLap : kTick) << slot;
        }
    }
}

TEST_F(timer_test, TheEndsOfTimeAreNotTakenForIdleOrPast) {
    probe never, first;
    never.arm(INT64_MAX);
    EXPECT_EQ(never.appointment(), INT64_MAX);
    first.arm(-now());
    EXPECT_EQ(first.appointment(), 1) << "0 would mean idle";
    for (int i = 0; i < 512; ++i)
        pass();
    EXPECT_EQ(never.fired.size(), 0u);
    EXPECT_EQ(first.fired.size(), 1u) << "a negative delay is late by no more than a lap";
    zarn_cancel_timer(never.timer);
}

// Three timers in one slot fire c, b, a. What the first hook does to itself or to the next one must neither
// disturb the scan nor make it touch what is gone.
TEST_F(timer_test, AHookMayDoAnythingToAnyTimer) {
    struct {
        const char *what;
        std::function<void(probe &self, probe &next)> act;
        size_t next_fires;  // in this pass
    } const cases[] = {
        {"cancel itself", [](probe &self, probe &) { zarn_cancel_timer(self.timer); }, 1},
        {"arm itself", [](probe &self, probe &) { self.arm(0); }, 1},
        {"arm itself into the slot under scan", [](probe &self, probe &) { self.arm(kLap - kTick); }, 1},
        {"delete itself", [](probe &self, probe &) { self.remove(); }, 1},
        {"cancel the next", [](probe &, probe &next) { zarn_cancel_timer(next.timer); }, 0},
        {"arm the next", [](probe &, probe &next) { next.arm(kTick); }, 0},
        {"delete both", [](probe &self, probe &next) { next.remove(), self.remove(); }, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        probe last, next, self;
        self.then = [&] {
            if (self.fired.size() == 1) c.act(self, next);
        };
        for (probe *timer : {&last, &next, &self})
            timer->arm(0);
        clear_journal();
        pass();
        EXPECT_EQ(self.fired.size(), 1u);
        EXPECT_EQ(next.fired.size(), c.next_fires);
        EXPECT_EQ(last.fired.size(), 1u);
        EXPECT_EQ(journal("sem_"), lines{}) << "nobody else is about";
        const bool again[] = {self.timer != nullptr && self.appointment() != 0,
                              next.timer != nullptr && next.appointment() != 0};
        for (int i = 0; i < 512; ++i)
            pass();
        EXPECT_EQ(self.fired.size(), 1u + again[0]);
        EXPECT_EQ(next.fired.size(), c.next_fires + again[1]);
    }
}

TEST_F(timer_test, ADeletionElsewhereWaitsForTheHooksAndNothingElseDoes) {
    probe slow, other;
    bool ended = false;
    slow.then = [&] {
        kern_thread_self();  // held here
        ended = true;
    };
    slow.arm(0);
    other.arm(5 * kTick);
    stopping_point in_hook("thread_self", "zarn_timer");
    advance(kTick);
    in_hook.wait();

    zarn_cancel_timer(slow.timer);  // does not wait
    other.arm(0);
    zarn_cancel_timer(other.timer);
    EXPECT_FALSE(ended);
    background deletion([&] {
        slow.remove();
        return ended;
    });
    wait_until_blocked("delete_zarn_timer");
    in_hook.go_on();
    EXPECT_EQ(deletion.join(), true) << "the deletion returned before the hook had";
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(other.fired.size(), 0u);
}

TEST_F(timer_test, ADeletionThatCameFirstKeepsTheHookFromStarting) {
    probe due;
    due.arm(0);
    zarn_lock_tallylock(&gZarnTimerData.delete_lock);
    advance(kTick);
    wait_until_blocked("delete_zarn_timer");
    zarn_cancel_timer(due.timer);
    zarn_unlock_tallylock(&gZarnTimerData.delete_lock);
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(due.fired.size(), 0u);
}

// While the wheel lock is taken, what has nothing to change gets by without it, and what has waits and is
// woken.
TEST_F(timer_test, TheWheelLockIsTakenOnlyForAChange) {
    probe armed, idle;
    armed.arm(5 * kTick);
    stopping_point in_pass("time", "zarn_timer");
    advance(kTick);
    in_pass.wait();
    zarn_cancel_timer(idle.timer);
    armed.arm(0, 0);
    EXPECT_NE(armed.appointment(), 0);
    EXPECT_EQ(journal("sem_"), lines{});

    stopping_point before_acquire("sem_acquire", "zarntimerlock");
    background cancel([&] {
        zarn_cancel_timer(armed.timer);
        return 0;
    });
    before_acquire.wait();  // counted, and not yet in line: the unlock's unit must wait for it
    in_pass.go_on();
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(sem_count("zarntimerlock"), 1);
    before_acquire.go_on();
    cancel.join();
    EXPECT_EQ(armed.appointment(), 0);
    EXPECT_EQ(gZarnTimerData.lock_count, 0);
    EXPECT_EQ(journal("sem_"),
              (lines{"sem_release \"zarntimerlock\" 1 2", "sem_acquire \"zarntimerlock\" 1 0"}));
}

TEST_F(timer_test, AStopWaitsForTheHookAndLeavesArmedTimersAlone) {
    probe slow, armed;
    slow.then = [] { kern_thread_self(); };
    slow.arm(0);
    armed.arm(kTick);
    {
        stopping_point in_hook("thread_self", "zarn_timer");
        advance(kTick);
        in_hook.wait();
        background stop(uninit_zarn_timers);
        wait_until_blocked("timer exit sync");
        in_hook.go_on();
        EXPECT_EQ(stop.join(), 0);
    }
    EXPECT_EQ(slow.fired.size(), 1u);
    EXPECT_EQ(armed.fired.size(), 0u);
    EXPECT_NE(armed.appointment(), 0);
    zarn_cancel_timer(armed.timer);
    ASSERT_EQ(init_zarn_timers(), 0);
    wait_until_asleep("zarn_timer");
}

TEST_F(timer_test, TheDebuggerListsEveryTimerOrOne) {
    char address[30], text[400];
    probe timer;
    timer.arm(1);
    const zarn_timer_t *t = timer.timer;
    snprintf(address, sizeof address, "%p", static_cast<const void *>(t));
    const std::string slot = " (" + std::to_string(t->index) + ")";
    for (const lines &command : {lines{"zarn_timer"}, lines{"zarn_timer", address}}) {
        snprintf(text, sizeof text,
                 "gZarnKernelTimer at %p : wheel size 512, ts 4096 usec steps\n"
                 "timer %s : index %u%s appt %lld, hook %p, arg %p \nnext %p prev %p\n",
                 static_cast<void *>(&gZarnTimerData), address, t->index,
                 command.size() == 1 ? slot.c_str() : "", static_cast<long long>(t->appt),
                 reinterpret_cast<void *>(t->hook), t->arg, nullptr, nullptr);
        EXPECT_EQ(debug(command), 1);
        EXPECT_EQ(take_debug_output(), text);
    }
}

// Beside the wheel, the same timers in a list by time. A pass may leave one of them behind only after the
// thread was kept away for more than half a lap, and then for no more than a lap.
TEST_F(timer_test, RandomUseAgreesWithASortedList) {
    const unsigned seed = 4096;
    std::mt19937 random(seed);
    auto below = [&](int64_t limit) { return static_cast<int64_t>(random() % static_cast<uint64_t>(limit)); };
    std::multimap<int64_t, probe *> list;
    std::vector<std::unique_ptr<probe>> timers;
    auto find = [&](const probe *timer) {
        return std::find_if(list.begin(), list.end(), [&](auto &entry) { return entry.second == timer; });
    };
    auto forget = [&](const probe *timer) {
        if (auto at = find(timer); at != list.end()) list.erase(at);
    };
    for (int i = 0; i < 60; ++i) {
        timers.push_back(std::make_unique<probe>());
        probe *timer = timers.back().get();
        timer->then = [&, timer] {
            auto at = find(timer);
            ASSERT_NE(at, list.end()) << "fired although it wasn't armed";
            ASSERT_GE(now(), (at->first / kTick + 1) * kTick) << "fired early";
            list.erase(at);
            if (random() % 4 == 0) {
                const int64_t delay = below(kLap);
                timer->arm(delay);
                list.emplace(now() + delay, timer);
            }
        };
    }
    int64_t excused_until = 0;
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
        probe *timer = timers[random() % timers.size()].get();
        switch (random() % 4) {
            case 0:
            case 1: {
                bool replace = random() % 2 != 0;
                const int64_t delay = random() % 3 != 0 ? below(20 * kTick) : below(3 * kLap);
                timer->arm(delay, replace);
                if (replace) forget(timer);
                if (find(timer) == list.end()) list.emplace(now() + delay, timer);
                break;
            }
            case 2:
                zarn_cancel_timer(timer->timer);
                forget(timer);
                break;
            default: {
                int64_t step_ticks = random() % 8 != 0 ? below(4) : below(600);
                int64_t to = now() + step_ticks * kTick + below(kTick);
                bool passes = to >= gZarnTimerData.next_wakeup;
                int64_t ticks = to / kTick - (gZarnTimerData.next_wakeup - kTick) / kTick;
                set_time(to);
                wait_until_asleep("zarn_timer");
                if (passes && ticks > 256) excused_until = to + kLap;
                if (passes && now() > excused_until && !list.empty()) {
                    ASSERT_GT((list.begin()->first / kTick + 1) * kTick, now()) << "late";
                }
            }
        }
        expect_sound_wheel();
        for (auto &[appt, armed] : list)
            ASSERT_EQ(armed->appointment(), appt);
    }
}

}  // namespace
