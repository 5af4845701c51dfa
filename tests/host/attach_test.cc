// SPDX-License-Identifier: MIT
//
// What `zarn attach` refuses before it has opened a device.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/host/program.h"

TEST(attach, refuses_what_makes_no_sense_and_tells_why) {
    const std::vector<std::string> good = {"--tap", "zt0", "--address", "10.9.9.2/24"};
    const struct {
        std::vector<std::string> arguments;  // behind a device and an address that are good
        int code;
        const char *text;
    } cases[] = {
        {{"--address", "10.9.9.2"}, 2, "is no address like"},
        {{"--address", "10.9.9.2/0"}, 2, "is no address like"},
        {{"--address", "10.9.9.2/32"}, 2, "is no address like"},
        {{"--address", "10.9.9.2/24x"}, 2, "is no address like"},
        {{"--address", "10.9.9.256/24"}, 2, "is no address like"},
        {{"--address", "10.9.9.0/24"}, 2, "is no address of one host"},
        {{"--address", "10.9.9.255/24"}, 2, "is no address of one host"},
        {{"--address", "127.0.0.2/8"}, 2, "is no address of one host"},
        {{"--address", "224.0.0.5/24"}, 2, "is no address of one host"},
        {{"--tap", ""}, 2, "is no name of an interface"},
        {{"--tap", "zt%d"}, 2, "is no name of an interface"},
        {{"--tap", "sixteen_letters_"}, 2, "is no name of an interface"},
        {{"more"}, 2, "unexpected argument more"},
        {{"--pcap"}, 2, "--pcap needs a value"},
        {{"--conf", "/nowhere/zarn.conf"}, 1, "/nowhere/zarn.conf"},
        {{"--tap", "lo"}, 1, access("/dev/net/tun", R_OK) == 0 ? "of another kind" : "zarn: "},
    };
    for (const auto &refused : cases) {
        std::vector<std::string> arguments = {"attach"};
        arguments.insert(arguments.end(), good.begin(), good.end());
        arguments.insert(arguments.end(), refused.arguments.begin(), refused.arguments.end());
        const program_result result = run_program(arguments);
        EXPECT_EQ(result.code, refused.code) << refused.arguments.back();
        EXPECT_NE(result.err.find(refused.text), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(run_program({"attach", good[0], good[1]}).code, 2);
    EXPECT_EQ(run_program({"attach", good[2], good[3]}).code, 2);
    EXPECT_EQ(run_program({"attach", "--help"}).code, 0);
}
