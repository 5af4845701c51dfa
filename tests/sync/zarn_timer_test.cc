// SPDX-License-Identifier: MIT

#include "sync/zarn_timer.h"

#include <gtest/gtest.h>

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

void expect_sound_wheel() {
    for (uint32_t slot = 0; slot < kTimerSlots; ++slot) {
        const zarn_timer_t *before = nullptr;
        for (const zarn_timer_t *timer = gZarnTimerData.wheel[slot]; timer != nullptr; timer = timer->next) {
            ASSERT_TRUE(timer->index == slot && timer->prev == before && timer->appt != 0);
            ASSERT_EQ((timer->appt / kTick + 1) & (kTimerSlots - 1), slot);
            before = timer;
        }
    }
}

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
        ++self->fired;
        if (self->then) self->then();
    }
    void arm(int64_t delay, uint8_t replace = 1) const { zarn_set_timer(timer, delay, replace); }
    int64_t appointment() const { return zarn_timer_appointment(timer); }
    void remove() { delete_zarn_timer(std::exchange(timer, nullptr)); }

    zarn_timer_t *timer;
    unsigned fired = 0;
    std::function<void()> then;
};

int32_t stop_wheel() {
    running_clock clock;
    return uninit_zarn_timers();
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

TEST_F(kernel_test, AStopWithoutItsSemaphoreChangesNothingAndAnotherLeavesArmedTimersAlone) {
    ASSERT_EQ(init_zarn_timers(), 0);
    EXPECT_EQ(log_lines(), lines{"zarn_timers : wheel Size 512 ticks at 4096 usec steps (2097152 len)\n"});
    EXPECT_EQ(debug_help("zarn_timer"), "zarn_timer [timeraddress]");
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(gZarnTimerData.next_wakeup, kStartTime + kTick);
    probe armed;
    armed.arm(kLap * 1000);
    fail_call(1);
    EXPECT_EQ(create_zarn_timer(probe::fire, nullptr), nullptr);
    fail_call(1);
    EXPECT_EQ(uninit_zarn_timers(), kRefused);
    EXPECT_EQ(stop_wheel(), 0);
    EXPECT_NE(armed.appointment(), 0);
}

TEST(zarn_timer_death, ATimerWithoutAHookHaltsTheSystem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zarn_timer_t timer = {};
    EXPECT_DEATH(zarn_set_timer(&timer, 0, 1), "zarn_set_timer called with null hook: 0x[0-9a-f]+\n");
}

TEST_F(timer_test, ANewHookCancelsAndTheEndsOfTimeAreNotTakenForIdleOrPast) {
    probe never, first;
    never.arm(INT64_MAX);
    EXPECT_EQ(never.appointment(), INT64_MAX);
    first.arm(-now());
    EXPECT_EQ(first.appointment(), 1) << "0 would mean idle";
    pass(512);
    for (int i = 0; i < 512; ++i)
        pass();
    EXPECT_EQ(first.fired, 1u);
    EXPECT_EQ(never.fired, 0u);
    bool called = false;
    zarn_set_timer_hook(
        never.timer, [](zarn_timer_t *, void *arg) { *static_cast<bool *>(arg) = true; }, &called);
    EXPECT_EQ(never.appointment(), 0);
    never.arm(0);
    pass();
    EXPECT_TRUE(called);
}

// Three timers in one slot; what the first hook does must not disturb the scan.
TEST_F(timer_test, AHookMayDoAnythingToAnyTimer) {
    struct {
        std::function<void(probe &self, probe &next)> act;
        size_t next_fires, self_again, next_again;
    } const cases[] = {
        {[](probe &self, probe &) { self.arm(0); }, 1, 1, 0},
        {[](probe &self, probe &) { self.arm(kLap - kTick); }, 1, 1, 0},  // into the slot under scan
        {[](probe &, probe &next) { zarn_cancel_timer(next.timer); }, 0, 0, 0},
        {[](probe &, probe &next) { next.arm(kTick); }, 0, 0, 1},
        {[](probe &self, probe &next) { next.remove(), self.remove(); }, 0, 0, 0},
    };
    for (auto &c : cases) {
        probe last, next, self;
        self.then = [&] {
            if (self.fired == 1) c.act(self, next);
        };
        for (probe *timer : {&last, &next, &self})
            timer->arm(0);
        pass();
        EXPECT_EQ(self.fired + last.fired, 2u) << &c - cases;
        EXPECT_EQ(next.fired, c.next_fires) << &c - cases;
        for (int i = 0; i < 512; ++i)
            pass();
        EXPECT_EQ(self.fired, 1 + c.self_again) << &c - cases;
        EXPECT_EQ(next.fired, c.next_fires + c.next_again) << &c - cases;
    }
}

TEST_F(timer_test, ADeletionElsewhereWaitsForTheHooksAndNothingElseDoes) {
    probe slow;
    bool ended = false;
    slow.then = [&] {
        kern_thread_self();  // held here
        ended = true;
    };
    slow.arm(0);
    stopping_point in_hook("thread_self", "zarn_timer");
    advance(kTick);
    in_hook.wait();
    zarn_cancel_timer(slow.timer);  // does not wait
    background deletion([&] {
        slow.remove();
        return ended;
    });
    wait_until_blocked("delete_zarn_timer");
    in_hook.go_on();
    EXPECT_EQ(deletion.join(), true) << "the deletion returned before the hook had";
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
    EXPECT_EQ(due.fired, 0u);
}

TEST_F(timer_test, TheWheelLockIsTakenOnlyForAChange) {
    probe armed, idle;
    armed.arm(5 * kTick);
    stopping_point in_pass("time", "zarn_timer");
    advance(kTick);
    in_pass.wait();
    zarn_cancel_timer(idle.timer);
    armed.arm(0, 0);
    EXPECT_EQ(journal("sem_"), lines{});

    stopping_point before_acquire("sem_acquire", "zarntimerlock");
    background cancel([&] { return zarn_cancel_timer(armed.timer), 0; });
    before_acquire.wait();  // counted, and not yet in line: the unlock's unit must wait for it
    in_pass.go_on();
    wait_until_asleep("zarn_timer");
    EXPECT_EQ(sem_count("zarntimerlock"), 1);
    before_acquire.go_on();
    cancel.join();
    EXPECT_EQ(armed.appointment(), 0);
}

TEST_F(timer_test, TheDebuggerListsEveryTimerOrOne) {
    char text[400];
    probe timer;
    timer.arm(1);
    const zarn_timer_t *t = timer.timer;
    const int start = snprintf(text, sizeof text, "%p", static_cast<const void *>(t)) + 1;
    for (const lines &command : {lines{"zarn_timer"}, lines{"zarn_timer", text}}) {
        snprintf(text + start, sizeof text - static_cast<size_t>(start),
                 "gZarnKernelTimer at %p : wheel size 512, ts 4096 usec steps\n"
                 "timer %s : index %u%s appt %lld, hook %p, arg %p \nnext %p prev %p\n",
                 static_cast<void *>(&gZarnTimerData), text, t->index,
                 command.size() == 1 ? (" (" + std::to_string(t->index) + ")").c_str() : "",
                 static_cast<long long>(t->appt), reinterpret_cast<void *>(t->hook), t->arg, nullptr,
                 nullptr);
        EXPECT_EQ(debug(command), 1);
        EXPECT_EQ(take_debug_output(), text + start);
    }
}

// Beside the wheel, the same timers in a list. A pass may leave one of them behind only after the thread was kept away
// for more than half a lap, and then for no more than a lap. In the later half of a lap it fires none.
TEST_F(timer_test, RandomUseAgreesWithAList) {
    std::mt19937 random(4096);
    auto below = [&](int64_t limit) { return static_cast<int64_t>(random() % static_cast<uint64_t>(limit)); };
    std::map<const probe *, int64_t> list;
    std::vector<std::unique_ptr<probe>> timers(60);
    int fired = 0;
    const auto arm = [&](probe *timer, int64_t delay, bool replace) {
        timer->arm(delay, replace);
        if (replace) list.erase(timer);
        list.emplace(timer, now() + delay);
    };
    for (auto &made : timers) {
        made = std::make_unique<probe>();
        made->then = [&, timer = made.get()] {
            ASSERT_TRUE(list.count(timer)) << "fired although it wasn't armed";
            ASSERT_GE(now(), (list[timer] / kTick + 1) * kTick) << "fired early";
            list.erase(timer);
            ++fired;
            if (random() % 4 == 0) arm(timer, below(kLap), true);
        };
    }
    int64_t excused_until = 0;
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(step);
        probe *timer = timers[random() % timers.size()].get();
        const uint32_t action = random() % 4;
        bool passes = false;
        if (action < 2) {
            arm(timer, random() % 3 != 0 ? below(20 * kTick) : below(3 * kLap), random() % 2 != 0);
        } else if (action == 2) {
            zarn_cancel_timer(timer->timer);
            list.erase(timer);
        } else {
            int64_t to = now() + (random() % 8 != 0 ? below(4) : below(600)) * kTick + below(kTick);
            passes = to >= gZarnTimerData.next_wakeup;
            int64_t ticks = to / kTick - (gZarnTimerData.next_wakeup - kTick) / kTick;
            fired = 0;
            set_time(to);
            wait_until_asleep("zarn_timer");
            if (passes && ticks > 256) excused_until = to + kLap;
            ASSERT_TRUE(!passes || (ticks - 1) % kTimerSlots < 256 || fired == 0) << "not skipped";
        }
        expect_sound_wheel();
        for (auto &[armed, appt] : list) {
            ASSERT_EQ(armed->appointment(), appt);
            ASSERT_TRUE(!passes || now() <= excused_until || (appt / kTick + 1) * kTick > now()) << "late";
        }
    }
}

}  // namespace
