// SPDX-License-Identifier: MIT

#include "sync/zarn_fifo.h"

#include <zarn/status.h>

#include "data/zarn_data.h"
#include "tests/support/stress.h"

namespace {

std::atomic<int> gFreed;  // elements of buffers

zarn_data_t *buffer(uint32_t number) {
    static char bytes[16];
    zarn_data_t *data = new_zarn_data();
    EXPECT_EQ(append_zarn_data(data, bytes, sizeof bytes, [](void *) { ++gFreed; }), 0);
    data->user_word_1 = number;
    return data;
}

// Two queues, one buffer at a time: a wake-up that is lost stops both sides for good.
TEST_F(stress_test, PingPongOverTwoFifosNeverStalls) {
    zarn_fifo_t there, back;
    ASSERT_EQ(create_zarn_fifo(&there, "there", 1000) | create_zarn_fifo(&back, "back", 1000), 0);
    run_threads(2, [&, rounds = static_cast<uint32_t>(stress_rounds(3000))](int i) {
        for (uint32_t turn = 0; turn < 2 * rounds; ++turn) {
            if (static_cast<int>(turn % 2) == i) {
                ASSERT_EQ(enqueue_zarn_fifo_data(i == 0 ? &there : &back, buffer(turn)), 0);
                continue;
            }
            zarn_data_t *data;
            ASSERT_EQ(dequeue_zarn_fifo_data(i == 0 ? &back : &there, &data, KERN_TIMEOUT_FOREVER, 0), 16);
            ASSERT_EQ(data->user_word_1, turn);
            delete_zarn_data(data);
        }
    });
    EXPECT_EQ(there.waiters | back.waiters, 0);
    delete_zarn_fifo(&there);
    delete_zarn_fifo(&back);
}

// Producers, consumers with all kinds of timeouts, and somebody who clears: every buffer ends exactly once, and
// nobody who sleeps is forgotten.
TEST_F(stress_test, WhateverCrossesAFifoEndsOnce) {
    const int rounds = stress_rounds(3000);
    gFreed = 0;
    zarn_fifo_t fifo;
    ASSERT_EQ(create_zarn_fifo(&fifo, "stress", 400), 0);
    std::atomic<int> producers{2};
    run_threads(6, [&](int i) {
        dice die(i);
        for (int round = 0; i < 2 && round < rounds; ++round) {
            zarn_data_t *data = buffer(0);
            while (enqueue_zarn_fifo_data(&fifo, data) == ERR_NO_BUFFER_SPACE)
                std::this_thread::yield();
        }
        if (i < 2 && --producers == 0) delete_zarn_fifo(&fifo);  // sends the consumers away
        while (i == 5 && producers != 0) {
            kern_sleep_us(die.roll(300));
            EXPECT_TRUE(clear_zarn_fifo(&fifo) == 0 || producers == 0);
        }
        while (i >= 2 && producers != 0) {
            static const int64_t timeouts[] = {0, 1, 50, KERN_TIMEOUT_FOREVER};
            zarn_data_t *data;
            int32_t status = dequeue_zarn_fifo_data(&fifo, &data, timeouts[die.roll(4)], die.roll(4) == 0);
            ASSERT_EQ(status >= 0, data != nullptr);
            if (data != nullptr) delete_zarn_data(data);
        }
    });
    EXPECT_EQ(gFreed, 2 * rounds);
}

}  // namespace
