// SPDX-License-Identifier: MIT
#include "tests/live/live_fixture.h"

#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <utility>

void nap(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

bool comes(const std::function<bool()> &holds) {
    for (int i = 0; i < 1000 && !holds(); i++)
        nap(10);
    return holds();
}

std::string judge(const std::string &capture, const std::string &sender) {
    std::istringstream lines(
        run_tool(
            "tshark -n -r " + capture + " -Y eth.src==" + sender +
            // Whatever the payload looks like, it is an echo.
            " -d udp.port==0-65535,data -d tcp.port==0-65535,data"
            " -o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -o tcp.check_checksum:TRUE -T fields"
            " -E separator=';' -e frame.number -e ip.checksum.status -e icmp.checksum.status -e "
            "udp.checksum.status"
            " -e tcp.checksum.status -e _ws.malformed -e _ws.expert.severity -e _ws.col.Info 2>/dev/null")
            .out);
    constexpr char kBad = '0', kGood = '1', kError[] = "8388608";
    std::string faults;
    bool good = false;
    for (std::string line; std::getline(lines, line) && faults.size() < 1000;) {
        std::istringstream fields(line);
        std::string field;
        std::getline(fields, field, ';');
        bool bad = false;
        for (int i = 0; i < 6 && std::getline(fields, field, ';'); i++) {
            bad |= i < 4 ? contains(field, {kBad}) : i == 4 ? !field.empty() : contains(field, kError);
            good |= i == 0 && contains(field, {kGood});
        }
        if (bad) faults += line + "\n";
    }
    return good ? faults : faults + "no frame with a good checksum";
}

std::string shell(const std::string &command) {
    tool_result result = run_tool(command);
    EXPECT_EQ(result.code, 0) << command << "\n" << result.out;
    return result.out;
}

void live::SetUp() {
    std::string reason = enter_own_network("ip ping nc tshark");
    if (!reason.empty()) GTEST_SKIP() << reason;
}

void live::TearDown() {
    if (child_ > 0) stop(SIGTERM);
}

void live::start(const relay_rates *rates) {
    child_ = start_program({"attach", "--tap", "z0", "--address", kHost + "/24", "--pcap", capture_});
    ASSERT_TRUE(comes([&] { return if_nametoindex("z0") != 0 || !runs(); }));
    ASSERT_TRUE(runs()) << finish_program(std::exchange(child_, 0)).err;
    std::string mine = "z0";
    if (rates != nullptr) {
        mine = "p0";
        shell("ip link set z0 arp off up");
        wire_ = std::make_unique<relay>(open_packets("z0"), open_tap(mine), *rates);
    }
    shell("ip addr add 10.9.0.1/24 dev " + mine + " && ip link set " + mine + " up");
    ASSERT_TRUE(comes([] { return run_tool("ping -c 1 -W 1 " + kHost).code == 0; }));
    std::istringstream neighbour(shell("ip neigh show " + kHost));
    while (neighbour >> hardware_ && hardware_ != "lladdr")
        continue;
    neighbour >> hardware_;
}

program_result live::stop(int signal) {
    kill(child_, signal);
    EXPECT_TRUE(comes([&] { return !runs(); })) << "does not end";
    kill(child_, SIGKILL);
    program_result result = finish_program(std::exchange(child_, 0));
    wire_.reset();
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_EQ(if_nametoindex("z0"), 0u);
    EXPECT_EQ(judge(capture_, hardware_), "");
    return result;
}

bool live::runs() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

std::string live::counts() {
    size_t before = read_file(scratch_directory() + "/out").size();
    kill(child_, SIGUSR1);
    EXPECT_TRUE(comes([&] { return read_file(scratch_directory() + "/out").size() > before; }));
    nap(50);
    return read_file(scratch_directory() + "/out").substr(before);
}

long live::memory() const {
    std::string status = read_file("/proc/" + std::to_string(child_) + "/status");
    return std::stol(status.substr(status.find("RssAnon:") + 8));
}

void on_any_wire::SetUp() {
    live::SetUp();
    if (!IsSkipped()) start(good() ? nullptr : &GetParam().rates);
}

void on_any_wire::TearDown() {
    if (!good() && wire_ != nullptr) {
        for (const std::atomic<uint64_t> *fate : {&wire_->lost, &wire_->doubled, &wire_->late})
            EXPECT_GT(*fate, 0u) << "of " << wire_->carried << " frames";
    }
    live::TearDown();
}

INSTANTIATE_TEST_SUITE_P(live, on_any_wire,
                         testing::Values(wire{"good", true, {}}, wire{"bad", false, {10, 20, 50}}),
                         [](const auto &each) { return testing::PrintToString(each.param); });
