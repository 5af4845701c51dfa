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
        if (self->period != 0) zarn_set_timer(timer, self->period, 1);
        self->inside = false;
    }
    zarn_timer_t *timer;
    const int64_t period;
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

TEST(timer_stress, StartAndStopNeverMissEachOther) {
    for (int round = stress_rounds(40); round > 0; --round) {
        ASSERT_EQ(init_zarn_timers(), 0);
        if (round % 3 == 0) kern_sleep_us(round * 97 % 5000);
        ASSERT_EQ(uninit_zarn_timers(), 0);
    }
    EXPECT_TRUE(hosted_wait_for_threads(0, 5000000));
}

}  // namespace
