// SPDX-License-Identifier: MIT
//
// The FIFO beside a deque with a mutex and a condition variable: in and out on one thread, a stream from one
// thread to another, and a round trip in which each side sleeps until the other has sent. Both queues have
// the same limit, and a producer that meets it lets others run.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/bench.h"
#include "platform/kern.h"

namespace {

constexpr uint32_t kLimit = 512;  // buffers of one byte
constexpr int kStream = 20000;    // buffers in a stream

class module_queue {
 public:
    module_queue() { util->create_zarn_fifo(&fifo_, "bench", kLimit); }
    ~module_queue() { util->delete_zarn_fifo(&fifo_); }
    bool put(zarn_data_t *data) { return util->enqueue_zarn_fifo_data(&fifo_, data) == 0; }
    zarn_data_t *take() {
        zarn_data_t *data;
        util->dequeue_zarn_fifo_data(&fifo_, &data, KERN_TIMEOUT_FOREVER, 0);
        return data;
    }

 private:
    zarn_fifo_t fifo_;
};

class deque_queue {
 public:
    bool put(zarn_data_t *data) {
        {
            std::lock_guard guard(lock_);
            if (bytes_ + data->length > kLimit) return false;
            bytes_ += data->length;
            queue_.push_back(data);
        }
        filled_.notify_one();
        return true;
    }
    zarn_data_t *take() {
        std::unique_lock guard(lock_);
        filled_.wait(guard, [this] { return !queue_.empty(); });
        zarn_data_t *data = queue_.front();
        queue_.pop_front();
        bytes_ -= data->length;
        return data;
    }

 private:
    std::mutex lock_;
    std::condition_variable filled_;
    std::deque<zarn_data_t *> queue_;
    uint32_t bytes_ = 0;
};

// More than fit into a queue, so that one that is sent again has been taken before.
class buffers {
 public:
    buffers() {
        static char byte;
        for (uint32_t i = 0; i < 2 * kLimit; ++i) {
            all_.push_back(util->new_zarn_data());
            util->append_zarn_data(all_.back(), &byte, 1, nullptr);
        }
    }
    ~buffers() {
        for (zarn_data_t *data : all_)
            util->delete_zarn_data(data);
    }
    zarn_data_t *operator[](size_t i) { return all_[i % all_.size()]; }

 private:
    std::vector<zarn_data_t *> all_;
};

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename queue>
void in_and_out(benchmark::State &state) {
    queue q;
    buffers some;
    for (auto _ : state) {
        if (!q.put(some[0]) || q.take() != some[0]) state.SkipWithError("the buffer did not come back");
    }
}

template <typename queue>
void stream(benchmark::State &state) {
    buffers some;
    for (auto _ : state) {
        queue q;
        auto start = std::chrono::steady_clock::now();
        std::thread consumer([&] {
            for (int i = 0; i < kStream; ++i) {
                if (q.take() != some[static_cast<size_t>(i)]) state.SkipWithError("out of order");
            }
        });
        for (int i = 0; i < kStream; ++i) {
            while (!q.put(some[static_cast<size_t>(i)]))
                std::this_thread::yield();
        }
        consumer.join();
        state.SetIterationTime(seconds_since(start));
    }
    state.SetItemsProcessed(state.iterations() * kStream);
}

template <typename queue>
void round_trip(benchmark::State &state) {
    buffers some;
    queue there, back;
    std::thread echo([&] {
        for (;;) {
            zarn_data_t *data = there.take();
            back.put(data);
            if (data == some[1]) return;
        }
    });
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        there.put(some[0]);
        if (back.take() != some[0]) state.SkipWithError("the buffer did not come back");
        state.SetIterationTime(seconds_since(start));
    }
    there.put(some[1]);
    back.take();
    echo.join();
}

void two_lock_pairs(benchmark::State &state) {
    zarn_tallylock_t lock;
    util->zarn_create_tallylock(&lock, "bench");
    for (auto _ : state) {
        for (int i = 0; i < 2; ++i) {
            util->zarn_lock_tallylock(&lock);
            util->zarn_unlock_tallylock(&lock);
        }
    }
    util->zarn_delete_tallylock(&lock);
}

const int gRegistered = [] {
    add_benchmark("fifo_in_and_out/module", in_and_out<module_queue>);
    add_benchmark("fifo_in_and_out/two_tallylock_pairs", two_lock_pairs);
    add_benchmark("fifo_in_and_out/deque_mutex_cond", in_and_out<deque_queue>);
    add_benchmark("fifo_stream_20000/module", stream<module_queue>)->UseManualTime();
    add_benchmark("fifo_stream_20000/deque_mutex_cond", stream<deque_queue>)->UseManualTime();
    add_benchmark("fifo_round_trip/module", round_trip<module_queue>)->UseManualTime();
    add_benchmark("fifo_round_trip/deque_mutex_cond", round_trip<deque_queue>)->UseManualTime();
    return 0;
}();

}  // namespace
