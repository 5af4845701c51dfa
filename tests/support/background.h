// SPDX-License-Identifier: MIT
//
// A thread that makes one call and remembers its result, and several that start together.

#ifndef ZARN_TESTS_SUPPORT_BACKGROUND_H
#define ZARN_TESTS_SUPPORT_BACKGROUND_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

class background {
 public:
    explicit background(std::function<int32_t()> call) : runner_([this, call] { result_ = call(); }) {}
    ~background() { join(); }
    background(const background &) = delete;

    int32_t join() {
        if (runner_.joinable()) runner_.join();
        return result_;
    }
    std::thread::native_handle_type handle() { return runner_.native_handle(); }

 private:
    int32_t result_ = 1;  // no status of the kernel or the module
    std::thread runner_;
};

// Runs `work(i)` on `count` threads at once and waits for them all.
template <typename function>
void run_threads(int count, function work) {
    std::atomic<int> missing{count};
    std::vector<std::unique_ptr<background>> threads;
    for (int i = 0; i < count; ++i)
        threads.push_back(std::make_unique<background>([&, i] {
            for (--missing; missing != 0;)
                std::this_thread::yield();
            work(i);
            return 0;
        }));
}

#endif
