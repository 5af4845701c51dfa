// SPDX-License-Identifier: MIT

#include "sync/zarn_timer.h"

#include "tests/support/stress.h"

namespace {

// Memory that a hook uses, and that goes as soon as the deletion of the timer has returned.
struct guarded {
    explicit guarded(int64_t period_ = 0) : timer(create_zarn_timer(fire, this)), period(period_) {}
    ~guarded() {
        delete_zarn_timer(timer);
        EXPECT_FALSE(inside) << "deleted under its hook";
    }
    static void fire(zarn_timer_t *timer, void *arg) {
        guarded *self = static_cast<guarded *>(arg);
        self->inside = true;
        EXPECT_GE(kern_time_us(), self->not_before.load(std::memory_order_relaxed)) << "fired early";
        ++self->fired;
        if (self->period != 0) zarn_set_timer(timer, self->period, 1);
        self->inside = false;
    }
    zarn_timer_t *timer;
    const int64_t period;
    int fired = 0;
    std::atomic<int64_t> not_before{0};
    bool inside = false;
};

TEST_F(stress_test, TimersAreArmedCancelledAndDeletedFromEverywhere) {
    run_threads(3, [rounds = stress_rounds(60)](int i) {
        dice die(i);
        for (int round = 0; round < rounds; ++round) {
            std::unique_ptr<guarded> timers[16];
            for (auto &timer : timers)
                timer = std::make_unique<guarded>(die.roll(2) * die.roll(5000));
            for (int step = 0; step < 100; ++step) {
                zarn_timer_t *timer = timers[die.roll(16)]->timer;
                if (die.roll(4) == 0)
                    zarn_cancel_timer(timer);
                else
                    zarn_set_timer(timer, die.roll(8000), static_cast<uint8_t>(die.roll(2)));
            }
            if (round % 4 == 0) kern_sleep_us(5000);
        }
    });
}

// Each timer is armed once and never touched again until it has fired.
TEST_F(stress_test, EveryTimerFiresOnceAndNotEarly) {
    run_threads(3, [count = stress_rounds(300)](int i) {
        dice die(i);
        std::vector<std::unique_ptr<guarded>> timers;
        for (int n = 0; n < count; ++n) {
            timers.push_back(std::make_unique<guarded>());
            int64_t delay = die.roll(60000);
            timers.back()->not_before = kern_time_us() + delay;
            zarn_set_timer(timers.back()->timer, delay, 1);
        }
        for (auto &timer : timers)
            while (zarn_timer_appointment(timer->timer) != 0)
                kern_sleep_us(1000);
        // A deletion comes back behind the pass, so that what the hooks wrote can be read.
        delete_zarn_timer(create_zarn_timer(guarded::fire, nullptr));
        for (auto &timer : timers)
            EXPECT_EQ(timer->fired, 1);
    });
}

TEST(timer_stress, StartAndStopNeverMissEachOther) {
    for (int round = stress_rounds(40); round > 0; --round) {
        ASSERT_EQ(init_zarn_timers(), 0);
        if (round % 3 == 0) kern_sleep_us(round * 97 % 5000);
        ASSERT_EQ(uninit_zarn_timers(), 0);
    }
    EXPECT_TRUE(hosted_wait_for_threads(0, 5000000));
}

}  // namespace
