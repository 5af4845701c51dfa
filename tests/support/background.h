// SPDX-License-Identifier: MIT
//
// A thread that makes one call and remembers its result.

#ifndef ZARN_TESTS_SUPPORT_BACKGROUND_H
#define ZARN_TESTS_SUPPORT_BACKGROUND_H

#include <cstdint>
#include <functional>
#include <thread>

class background {
 public:
    explicit background(std::function<int32_t()> call) : runner_([this, call] { result_ = call(); }) {}
    ~background() { join(); }
    background(const background &) = delete;

    int32_t join() {
        if (runner_.joinable()) runner_.join();
        return result_;
    }

 private:
    int32_t result_ = 1;  // no status of the kernel or the module
    std::thread runner_;
};

#endif
