// SPDX-License-Identifier: MIT

#include "sync/zarn_fifo.h"

#include <zarn/status.h>

#include "data/zarn_data.h"
#include "tests/support/stress.h"

namespace {

std::atomic<int> gFreed;  // elements of buffers

void count_free(void *) {
    ++gFreed;
}

zarn_data_t *buffer(uint32_t number) {
    static char bytes[16];
    zarn_data_t *data = new_zarn_data();
    EXPECT_EQ(append_zarn_data(data, bytes, sizeof bytes, count_free), 0);
    data->user_word_1 = number;
    return data;
}

// Two queues, one buffer at a time: a wake-up that is lost stops both sides for good.
TEST_F(stress_test, PingPongOverTwoFifosNeverStalls) {
    const int rounds = stress_rounds(3000);
    zarn_fifo_t there, back;
    ASSERT_EQ(create_zarn_fifo(&there, "there", 1000) | create_zarn_fifo(&back, "back", 1000), 0);
    auto receive = [](zarn_fifo_t *fifo, uint32_t expected) {
        zarn_data_t *data;
        ASSERT_EQ(dequeue_zarn_fifo_data(fifo, &data, KERN_TIMEOUT_FOREVER, 0), 16);
        ASSERT_EQ(data->user_word_1, expected);
        delete_zarn_data(data);
    };
    run_threads(2, [&](int i) {
        for (uint32_t round = 0; round < static_cast<uint32_t>(rounds); ++round) {
            if (i == 1) receive(&there, round);
            ASSERT_EQ(enqueue_zarn_fifo_data(i == 0 ? &there : &back, buffer(round)), 0);
            if (i == 0) receive(&back, round);
        }
    });
    EXPECT_EQ(there.waiters | back.waiters, 0);
    delete_zarn_fifo(&there);
    delete_zarn_fifo(&back);
}

// Producers, consumers with all kinds of timeouts, and somebody who clears: every buffer ends exactly once, and none
// who sleeps is forgotten.
TEST_F(stress_test, WhateverCrossesAFifoEndsOnce) {
    const int rounds = stress_rounds(3000);
    gFreed = 0;
    zarn_fifo_t fifo;
    ASSERT_EQ(create_zarn_fifo(&fifo, "stress", 400), 0);
    std::atomic<int> made{0}, producers{2};
    run_threads(6, [&](int i) {
        dice die(i);
        if (i < 2) {
            for (int round = 0; round < rounds; ++round) {
                zarn_data_t *data = buffer(0);
                ++made;
                while (enqueue_zarn_fifo_data(&fifo, data) == ERR_NO_BUFFER_SPACE)
                    std::this_thread::yield();
            }
            if (--producers == 0) delete_zarn_fifo(&fifo);  // sends the consumers away
        } else if (i < 5) {
            static const int64_t timeouts[] = {0, 1, 50, KERN_TIMEOUT_FOREVER};
            while (producers != 0) {
                zarn_data_t *data;
                int32_t status =
                    dequeue_zarn_fifo_data(&fifo, &data, timeouts[die.roll(4)], die.roll(4) == 0);
                ASSERT_EQ(status >= 0, data != nullptr);
                if (data != nullptr) delete_zarn_data(data);
            }
        } else {
            while (producers != 0) {
                kern_sleep_us(die.roll(300));
                EXPECT_TRUE(clear_zarn_fifo(&fifo) == 0 || producers == 0);
            }
        }
    });
    EXPECT_EQ(gFreed, made);
}

}  // namespace
