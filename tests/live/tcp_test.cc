// SPDX-License-Identifier: MIT
//
// TCP on a live device.

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "tests/live/live_fixture.h"
#include "tests/support/background.h"

namespace {

TEST_P(on_any_wire, streams) {
    unsigned mebibytes = (good() ? 64 : 4) / kPart;
    std::string file = scratch_directory() + "/bytes";
    shell("head -c " + std::to_string(mebibytes) + "M /dev/urandom >" + file);
    shell("nc -N " + kHost + " 7 <" + file + " | cmp - " + file);
    for (int connections : {1, 4})
        EXPECT_EQ(echo_streams(kHost, connections, (mebibytes << 20) / 8), "");
    EXPECT_EQ(echo_streams(kHost, 2, 4 << 20, {.reads_late = true}), "");
    EXPECT_EQ(echo_streams(kHost, 1, mebibytes << 20, {.port = kDiscardPort}), "");
}

TEST_P(on_any_wire, connections) {
    const unsigned scale = good() ? kPart : 10 * kPart;
    for (unsigned i = 0; i < 1000 / scale; i++)
        ASSERT_EQ(echo_streams(kHost, 1, i), "") << i;
    EXPECT_EQ(echo_streams(kHost, static_cast<int>(std::max(100 / scale, 10u)), 20000), "");
    // Reset in the middle, with and without bytes on their way.
    for (unsigned i = 0; i < 100 / scale; i++) {
        int fd = connect_to(kHost, SOCK_STREAM, kEchoPort);
        linger hard = {1, 0};
        std::string bytes(i % 3 * 10000, 'x');
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
        close(fd);
    }
    EXPECT_EQ(echo_streams(kHost, 1, 1000), "");
}

TEST_F(live, recovers_from_a_backlog_that_overflows) {
    start();
    kill(child_, SIGSTOP);
    std::string fault = "not run";
    background crowd([&] {
        fault = echo_streams(kHost, 400, 100);
        return 0;
    });
    nap(200);
    kill(child_, SIGCONT);
    crowd.join();
    EXPECT_EQ(fault, "");
    EXPECT_FALSE(contains(counts(), "the backlog was full 0"));
}

TEST_F(live, outlives_peers_that_vanish) {
    constexpr uint64_t kBytes = 6 << 20;  // of each of four streams: more than 30,000 frames in all
    relay_rates none = {};
    start(&none);
    auto cut_behind = [&](uint64_t frames) {
        EXPECT_TRUE(comes([&, goal = wire_->carried + frames] { return wire_->carried > goal; }));
        wire_->cut(true);
    };
    {
        background traffic([] {
            EXPECT_EQ(echo_streams(kHost, 4, kBytes), "");
            return 0;
        });
        for (uint64_t frames : {1000, 5000}) {
            cut_behind(frames);
            nap(600);
            wire_->cut(false);
        }
    }
    background traffic([] { return echo_streams(kHost, 4, kBytes, {.patience_ms = 500}).empty(); });
    cut_behind(1000);
    EXPECT_EQ(traffic.join(), false) << "all of it has come through a cut wire";
    stop(SIGTERM);
}

TEST_F(live, ends_in_the_midst_of_work) {
    for (int signal : {SIGINT, SIGTERM}) {
        start();
        background traffic([] { return echo_streams(kHost, 20, 16 << 20, {.patience_ms = 500}).empty(); });
        nap(100);
        if (signal == SIGTERM) shell("ip link set z0 down");
        nap(20);
        EXPECT_TRUE(contains(stop(signal).out, "tcp"));
        EXPECT_EQ(traffic.join(), false) << "all of it has come before the end";
    }
}

}  // namespace
