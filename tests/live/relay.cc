// SPDX-License-Identifier: MIT
#include "tests/live/relay.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

relay::relay(int one, int other, const relay_rates &rates)
    : rates_(rates),
      ways_{{one, other, std::mt19937(rates.seed), {}}, {other, one, std::mt19937(~rates.seed), {}}} {
    if (pipe2(stop_, O_CLOEXEC) != 0) std::abort();
    runner_ = std::thread([this] { run(); });
}

relay::~relay() {
    close(stop_[1]);
    runner_.join();
    close(stop_[0]);
    for (const direction &way : ways_)
        close(way.from);
}

void relay::run() {
    constexpr int kBatch = 64, kLatestMs = 2;
    std::vector<char> frame(65536);
    pollfd ready[] = {{ways_[0].from, POLLIN, 0}, {ways_[1].from, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    for (;;) {
        bool waiting = !ways_[0].held.empty() || !ways_[1].held.empty();
        if (poll(ready, 3, waiting ? kLatestMs : -1) == 0) {
            for (direction &way : ways_)
                release(way, ~0u);
        }
        if (ready[2].revents != 0) return;
        for (direction &way : ways_) {
            if (ready[&way - ways_].revents == 0) continue;
            for (int i = 0; i < kBatch; i++) {
                ssize_t length = read(way.from, frame.data(), frame.size());
                if (length <= 0) break;
                carry(way, frame.data(), static_cast<size_t>(length));
            }
        }
    }
}

void relay::carry(direction &way, const char *frame, size_t length) {
    if (cut_) return;
    unsigned fate = way.dice() % 1000, behind = 1 + way.dice() % 8;
    carried++;
    if (fate < rates_.lost) {
        lost++;
        return;
    }
    fate -= rates_.lost;
    if (fate < rates_.late) {
        late++;
        way.held.push_back({std::string(frame, length), behind});
        return;
    }
    send(way, frame, length);
    if (fate - rates_.late < rates_.doubled) {
        doubled++;
        send(way, frame, length);
    }
    release(way, 1);
}

// A frame that the other side has no room for is lost, as on any wire.
void relay::send(const direction &way, const char *frame, size_t length) {
    [[maybe_unused]] ssize_t sent = write(way.to, frame, length);
}

void relay::release(direction &way, unsigned passed) {
    for (held_frame &frame : way.held) {
        frame.behind -= std::min(frame.behind, passed);
        if (frame.behind == 0) send(way, frame.bytes.data(), frame.bytes.size());
    }
    std::erase_if(way.held, [](const held_frame &frame) { return frame.behind == 0; });
}
