// SPDX-License-Identifier: MIT
//
// The program on a live device: ping, datagrams, and what it does as a program.

#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <numeric>
#include <sstream>

#include "tests/live/live_fixture.h"

namespace {

TEST_P(on_any_wire, ping) {
    // Behind its last request ping waits for two round trips only, however busy the machine is, so a good
    // wire gets another chance; on a bad one something has to come back.
    auto ping = [&](const std::string &how) {
        std::string out;
        for (int i = 0; i < 3 && !contains(out, " 0% packet loss"); i++) {
            out = run_tool("ping " + how + " " + kHost).out;
            EXPECT_FALSE(contains(out, "wrong data") || contains(out, "truncated")) << out;
            if (!good()) break;
        }
        EXPECT_EQ(contains(out, good() ? " 0% packet loss" : " 0 received"), good()) << out;
    };
    for (int size : {0, 1, 1471, 1472, 1473, 4000, 65507})
        ping((good() ? "-c 3 -i 0.02 -s " : "-c 20 -i 0.005 -W 0.5 -s ") + std::to_string(size));
    ping("-q -f -c " + std::to_string((good() ? 10000 : 2000) / kPart));
}

TEST_P(on_any_wire, datagrams) {
    std::vector<size_t> sizes(2001);
    std::iota(sizes.begin(), sizes.end(), 0);
    sizes.push_back(65507);
    for (size_t at_once : {1, 16})
        EXPECT_EQ(echo_datagrams(kHost, sizes, {at_once, good() ? 1 : 100, good() ? 5000 : 50}), "");
}

TEST_F(live, refuses_what_it_does_not_serve) {
    start();
    const struct {
        int type, protocol, port, error;
    } cases[] = {
        {SOCK_STREAM, 0, 8, ECONNREFUSED},
        {SOCK_DGRAM, 0, 8, ECONNREFUSED},
        {SOCK_RAW, 253, 0, ENOPROTOOPT},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.type);
        char bytes[8] = {};
        errno = 0;
        int fd = connect_to(kHost, each.type, each.port, each.protocol);
        if (each.type != SOCK_STREAM) {
            EXPECT_EQ(send(fd, bytes, sizeof bytes, 0), 8);
            EXPECT_EQ(recv(fd, bytes, sizeof bytes, 0), -1);
        }
        EXPECT_EQ(errno, each.error);
        close(fd);
    }
    shell("ip neigh replace " + kHost + " lladdr ff:ff:ff:ff:ff:ff dev z0");
    EXPECT_NE(run_tool("ping -c 1 -W 0.3 " + kHost).code, 0);
}

TEST_F(live, names_the_one_command_that_grants_the_device) {
    // Root without its rights may open the device file, but makes no interface.
    const std::string attach = "setpriv --bounding-set=-all --inh-caps=-all " ZARN_BUILD_DIR
                               "/zarn attach --tap z0 --address " +
                               kHost + "/24";
    tool_result refused = run_tool(attach);
    EXPECT_EQ(refused.code, 1) << refused.out;
    const std::string sudo = "\n  sudo ";
    size_t command = refused.out.find(sudo), end = refused.out.find('\n', command + 1);
    ASSERT_NE(command, std::string::npos) << refused.out;
    EXPECT_EQ(refused.out.find(sudo, end), std::string::npos) << refused.out;
    EXPECT_EQ(if_nametoindex("z0"), 0u);

    command += sudo.size();
    shell(refused.out.substr(command, end - command));
    tool_result granted = run_tool(attach + " & for try in $(seq 50); do ping -c 1 -W 0.2 " + kHost +
                                   " && break; done; kill $!; wait $!");
    EXPECT_EQ(granted.code, 0) << granted.out;
    EXPECT_TRUE(contains(granted.out, " 1 received")) << granted.out;
}

TEST_F(live, keeps_its_memory_flat) {
    start();
    std::vector<size_t> sizes(200);
    std::iota(sizes.begin(), sizes.end(), 1400);
    auto connect_often = [](unsigned times) {
        for (unsigned i = 0; i < times; i++)
            ASSERT_EQ(echo_streams(kHost, 1, 100), "") << i;
    };
    connect_often(1100);  // the kernel lets 1,024 semaphores rest before it uses one again
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(echo_streams(kHost, 50, 50000), "");
    long most = memory() + 64;
    for (int round = 0; round < 10; round++) {
        run_tool("ping -q -f -c 200 -s 4000 " + kHost);
        EXPECT_EQ(echo_datagrams(kHost, sizes, {8, 3, 2000}), "");
        connect_often(300 / kPart);
        EXPECT_EQ(echo_streams(kHost, 1, 1 << 20), "");
        EXPECT_TRUE(contains(counts(), "tcp"));
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    most = LONG_MAX;  // both keep what was given back
#endif
    EXPECT_LE(memory(), most);
}

TEST(judge, finds_what_is_wrong) {
    if (run_tool("command -v tshark").code != 0) GTEST_SKIP() << "needs tshark, which is not installed";
    const std::string sender = "02:7a:61:72:6e:02", sound = ipv4(udp("12345678")),
                      spoiled[] = {
                          ipv4(udp("12345678"), {.bad_checksum = true}),
                          ipv4(udp("12345678").replace(10, 1, "x")),
                          ipv4(tcp("12345678", {}).replace(20, 1, "x"), {.protocol = 6}),
                          ipv4("\x08\x01" + std::string(6, '\0'), {.protocol = 1}),
                          ipv4("\x12\x34\x56"),
                      };
    std::vector<std::string> records = {pcap_record(ethernet(0x800, sound))};
    for (const std::string &packet : spoiled)
        records.push_back(pcap_record(ethernet(0x800, packet)));
    std::string path = scratch_directory() + "/judged.pcap";
    write_file(path, pcap_file(records));
    std::istringstream verdict(judge(path, sender));
    size_t expected = 1;
    for (std::string line; std::getline(verdict, line);)
        EXPECT_EQ(line.substr(0, line.find(';')), std::to_string(++expected)) << line;
    EXPECT_EQ(expected, records.size());
    EXPECT_NE(judge(path, "02:00:00:00:00:01"), "");
}

}  // namespace
