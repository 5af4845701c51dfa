// SPDX-License-Identifier: MIT
//
// A piece of wire: carries frames between two devices, and does to them what bad networks do.

#ifndef ZARN_TESTS_LIVE_RELAY_H
#define ZARN_TESTS_LIVE_RELAY_H

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

// Of 1,000 frames so many are lost, come twice, or come late: behind one to eight that were sent after them,
// or after 2 ms when none are. Frame n of a direction meets the same fate whenever the seed is the same.
struct relay_rates {
    unsigned lost = 0, doubled = 0, late = 0;
    uint32_t seed = 1;
};

class relay {
 public:
    // Carries frames on a thread of its own until it is deleted, and closes both then. The descriptors give
    // and take whole frames and do not block.
    relay(int one, int other, const relay_rates &rates = {});
    ~relay();
    relay(const relay &) = delete;

    // While it is cut nothing gets through. Any thread.
    void cut(bool yes) { cut_ = yes; }

    // Frames that met each fate, both directions together. Any thread.
    std::atomic<uint64_t> carried{0}, lost{0}, doubled{0}, late{0};

 private:
    struct held_frame {
        std::string bytes;
        unsigned behind;  // so many frames pass it yet
    };
    struct direction {
        int from, to;
        std::mt19937 dice;
        std::vector<held_frame> held;
    };

    void run();
    void carry(direction &way, const char *frame, size_t length);
    void send(const direction &way, const char *frame, size_t length);
    void release(direction &way, unsigned passed);

    const relay_rates rates_;
    direction ways_[2];
    int stop_[2];
    std::atomic<bool> cut_{false};
    std::thread runner_;
};

#endif
