// SPDX-License-Identifier: MIT
//
// The program on real captures, on bad input, and on bytes that make no sense.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <iterator>
#include <random>
#include <set>
#include <sstream>

using namespace std::string_literals;

#include "tests/host/program.h"

namespace {

const std::string kSamples = ZARN_SOURCE_DIR "/examples/captures";

using strings = std::vector<std::string>;

// The ways in which frames come to the protocols; nothing is lost on any of them.
const strings kModes[] = {{}, {"--interrupt"}, {"--rate", "1000000"}, {"--dma"}, {"--profile"}};

// Replays `files` and hands out the rows.
std::map<std::string, table_row> replay(const strings &files, int code, const strings &mode = {}) {
    strings arguments = {"replay", "--tsv"};
    arguments.insert(arguments.end(), mode.begin(), mode.end());
    arguments.insert(arguments.end(), files.begin(), files.end());
    program_result result = run_program(arguments);
    EXPECT_EQ(result.code, code) << result.err;
    return parse_table(result.out);
}

void expect_oracle(const std::string &directory) {
    std::map<std::string, table_row> oracle = parse_table(read_file(directory + "/oracle.tsv"));
    ASSERT_FALSE(oracle.empty());
    strings files;
    for (const auto &[name, row] : oracle)
        files.push_back(directory + "/" + name);
    for (const strings &mode : kModes) {
        std::map<std::string, table_row> rows = replay(files, 1, mode);
        EXPECT_EQ(rows.size(), oracle.size());
        for (const auto &[name, expected] : oracle) {
            for (const auto &[column, value] : expected)
                EXPECT_EQ(rows[name][column], value) << name << column << testing::PrintToString(mode);
        }
    }
}

TEST(replay, agrees_with_the_counts_of_the_captures) {
    expect_oracle(kSamples);
    std::string all = ZARN_SOURCE_DIR "/../shared/captures";
    if (std::filesystem::exists(all + "/oracle.tsv")) expect_oracle(all);
}

TEST(replay, sorts_out_frames_that_captures_seldom_hold) {
    const std::string datagram = udp("abcdefgh"), router_alert = "\x94\x04\x00\x00"s;
    const std::string options = ethernet(0x0800, ipv4(datagram, {.options = router_alert}));
    auto record = [](const std::string &packet, int64_t wire = -1) {
        return pcap_record(ethernet(0x0800, packet), wire);
    };
    // Longer than a slot, so that headers and sums meet scattered data; one is nothing but tags.
    std::string tags = std::string(12, 'm');
    while (tags.size() + 4 <= 262144)
        tags += big16(0x8100) + big16(1);
    const struct {
        const char *name;
        std::string record, counted;
    } cases[] = {
        {"no_type", pcap_record("\x01\x02\x03"), "other"},
        {"no_bytes", pcap_record("", 60), "other short"},
        {"802.3", pcap_record(ethernet(0x05dc, std::string(60, 'x'))), "other"},
        {"two_tags",
         pcap_record(ethernet(0x88a8, big16(5) + big16(0x8100) + big16(10) + big16(0x0800) + ipv4(datagram))),
         "vlan ipv4 ip_good udp udp_good"},
        {"half_a_tag", pcap_record(ethernet(0x8100, "\x01"), 64), "vlan other short"},
        {"options", pcap_record(options), "ipv4 ip_good udp udp_good"},
        {"options_cut_off", pcap_record(options.substr(0, 36), 90), "ipv4 ip_unverified short"},
        {"version_5", record(ipv4(datagram, {.version = 5})), "ipv4 ip_unverified"},
        {"total_0", record(ipv4(datagram, {.total = 0})), "ipv4 ip_unverified"},
        {"total_above_the_frame", record(ipv4(datagram, {.total = 37})), "ipv4 ip_unverified"},
        {"total_above_and_bad", record(ipv4(datagram, {.total = 37, .bad_checksum = true})), "ipv4 ip_bad"},
        {"total_on_the_wire", record(ipv4(datagram, {.total = 37}), 60),
         "short ipv4 ip_good udp udp_unverified"},
        {"udp_shorter_than_its_packet", record(ipv4(udp("abcd+stray", 12))), "ipv4 ip_good udp udp_good"},
        {"udp_longer_than_its_packet", record(ipv4(udp("abcd", 13))), "ipv4 ip_good udp udp_unverified"},
        {"udp_header_too_short", record(ipv4(datagram.substr(0, 7))), "ipv4 ip_good udp udp_unverified"},
        {"absent_in_a_fragment", record(ipv4(std::string(16, '\0'), {.fragment = 0x2000})),
         "ipv4 ip_good fragments udp udp_unverified"},
        {"icmp_of_odd_length", record(ipv4("\x08\x00\x9e\x98\x00\x01\x00\x02\x56"s, {.protocol = 1})),
         "ipv4 ip_good icmp icmp_bad"},
        {"tcp_header_too_long",
         record(ipv4(std::string(12, 'a') + "\x60" + std::string(7, 'a'), {.protocol = 6})),
         "ipv4 ip_good tcp tcp_unverified"},
        {"ip_in_ip", record(ipv4(ipv4(datagram), {.protocol = 4})), "ipv4 ip_good ip_other"},
        {"jumbo", record(ipv4(udp(std::string(65507, '\xa5')))), "ipv4 ip_good udp udp_good"},
        {"tags_only", pcap_record(tags), "other vlan"},
        {"longer_than_it_was", record(ipv4(datagram), 20), "ipv4 ip_good udp udp_good"},
    };
    strings files;
    for (const auto &c : cases) {
        files.push_back(scratch_directory() + "/" + c.name);
        write_file(files.back(), pcap_file({c.record}));
    }
    for (const strings &mode : {kModes[0], kModes[1]}) {
        std::map<std::string, table_row> rows = replay(files, 0, mode);
        for (const auto &c : cases) {
            // What is not named has to be 0, but for the bytes.
            std::set<std::string> seen, counted = {"frames"};
            std::istringstream names(c.counted);
            counted.insert(std::istream_iterator<std::string>(names), {});
            for (const auto &[column, value] : rows[c.name]) {
                if (column == "status" || column.ends_with("_bytes") || value == "0") continue;
                EXPECT_EQ(value, "1") << c.name << ", " << column;
                seen.insert(column);
            }
            EXPECT_EQ(seen, counted) << c.name;
        }
    }
    // The second type is kept in the place of the first, unless it is for nobody.
    const std::string crowded = scratch_directory() + "/crowded_place";
    write_file(crowded, pcap_file({record(ipv4(datagram)), pcap_record(ethernet(0x0901, "x"))}));
    table_row row = replay({crowded}, 0)["crowded_place"];
    for (const char *column : {"other", "ipv4", "ip_good", "udp", "udp_good"})
        EXPECT_EQ(row[column], "1") << column;
}

TEST(replay, maps_each_frame_for_hardware_where_it_may_block) {
    // The jumbo frame lies in 33 slots, and a slot in one page; the frame without bytes needs no map.
    const std::string path = scratch_directory() + "/dma";
    write_file(path, pcap_file({pcap_record(ethernet(0x0800, ipv4(udp("ab")))), pcap_record("", 60),
                                pcap_record(ethernet(0x0800, ipv4(udp(std::string(65507, 'x')))))}));
    for (const strings &mode : {strings{"--dma"}, strings{"--dma", "--interrupt", "--repeat", "3"}}) {
        table_row row = replay({path}, 0, mode)["dma"];
        const int rounds = mode.size() == 1 ? 1 : 3;
        for (const auto &[column, each] :
             {std::pair{"udp_good", 2}, {"dma_buffers", 2}, {"dma_runs", 34}, {"dma_faults", 0}})
            EXPECT_EQ(row[column], std::to_string(each * rounds)) << column;
    }
    std::string json = run_program({"replay", "--dma", "--json", path}).out;
    EXPECT_NE(json.find("\"dma\": {\"buffers\": 2, \"runs\": 34, \"faults\": 0}"), std::string::npos) << json;
    EXPECT_NE(run_program({"replay", "--dma", path}).out.find("mapped for hardware: 2 buffers in 34 "),
              std::string::npos);
}

TEST(replay, counts_every_round_and_every_drop) {
    const std::string sample = kSamples + "/nano.pcap";
    table_row once = replay({sample}, 0)["nano.pcap"];
    table_row often = replay({"--repeat", "40", sample}, 0)["nano.pcap"];
    for (const char *column : {"frames", "cap_bytes", "ipv4", "icmp_good", "tcp_good", "udp_good"})
        EXPECT_EQ(std::stoul(often[column]), 40 * std::stoul(once[column])) << column;

    for (const strings &mode : {strings{"--drop"}, strings{"--drop", "--interrupt"}}) {
        table_row row = replay({"--repeat", "200", sample}, 0, mode)["nano.pcap"];
        auto count = [&](const char *column) { return std::stoul(row[column]); };
        EXPECT_EQ(count("frames"), 200 * std::stoul(once["frames"]));
        EXPECT_EQ(count("frames"),
                  count("dropped") + count("arp") + count("ipv4") + count("ipv6") + count("other"));
        EXPECT_EQ(count("ipv4"), count("ip_good"));
    }

    // At a tenth of a second's worth of frames, the tenth of a second has to pass.
    std::string json = run_program({"replay", "--json", "--rate", "720", sample}).out;
    size_t seconds = json.find("\"seconds\": ");
    ASSERT_NE(seconds, std::string::npos) << json;
    EXPECT_GE(std::stod(json.substr(seconds + 11)), 71.0 / 720);
}

// A line "Function: NAME" of the report is followed by "kernel: N; real N; last thread: N".
TEST(replay, measures_what_is_done_with_a_frame) {
    for (const strings &mode : {strings{}, {"--interrupt"}, {"--tsv"}}) {
        strings arguments = {"replay", "--profile", kSamples + "/two-links.pcapng"};
        arguments.insert(arguments.end(), mode.begin(), mode.end());
        const program_result result = run_program(arguments);
        const bool table = mode == strings{"--tsv"};
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(table ? result.out.substr(0, 4) : result.err, table ? "file" : "");
        std::istringstream report(table ? result.err : result.out);
        std::map<std::string, long> real;
        for (std::string name, line; std::getline(report, line);) {
            if (line.starts_with("Function: ")) name = line.substr(10);
            if (line.starts_with("kernel: ")) real[name] = std::stol(line.substr(line.find("real ") + 5));
        }
        EXPECT_EQ(real.erase("zarn:receive"), mode == strings{"--interrupt"} ? 0u : 1u);
        EXPECT_EQ(real.erase("zarn:checksum") + real.erase("network/arp:receive"), 2u);
        const long ipv4 = real["network/ipv4:receive"];
        EXPECT_GE(real["network/ethernet:receive"], ipv4);
        for (const char *upper : {"network/icmp:receive", "network/tcp:receive", "network/udp:receive"})
            EXPECT_TRUE(real[upper] > 0 && real[upper] <= ipv4) << upper;
        EXPECT_EQ(real.size(), 5u);
    }
}

TEST(replay, ends_in_order_when_it_is_told_to) {
    const std::string frame = ethernet(0x0806, std::string(46, '\0'));
    const std::string bytes = pcap_file({pcap_record(frame), pcap_record(frame)});
    const std::string path = scratch_directory() + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (int signal : {SIGINT, SIGTERM}) {
        for (const strings &mode : {kModes[0], kModes[1]}) {
            strings arguments = {"replay", "--tsv", path};
            arguments.insert(arguments.end(), mode.begin(), mode.end());
            pid_t child = start_program(arguments);
            // Two frames, and then nothing comes any more.
            int pipe = open(path.c_str(), O_WRONLY);
            ASSERT_EQ(write(pipe, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
            for (int left = 1; left != 0; usleep(1000))
                ioctl(pipe, FIONREAD, &left);
            usleep(50'000);
            kill(child, signal);
            program_result result = finish_program(child);
            close(pipe);
            EXPECT_EQ(result.code, 0) << result.err;
            table_row row = parse_table(result.out)["pipe"];
            EXPECT_EQ(row["status"] + row["frames"] + row["arp"], "stopped22");
        }
    }
}

TEST(replay, answers_a_wrong_command_line_with_its_usage) {
    const std::string sample = kSamples + "/padded.pcap";
    struct {
        strings arguments;
        int code;
        const char *out, *err;
    } cases[] = {
        {{"--help"}, 0, "usage: zarn COMMAND", ""},
        {{"replay", "--help"}, 0, "usage: zarn replay", ""},
        {{}, 2, "", "usage: zarn COMMAND"},
        {{"sing"}, 2, "", "no command 'sing'"},
        {{"replay"}, 2, "", "no file named"},
        {{"replay", "--tsv", "--json", sample}, 2, "", "exclude each other"},
        {{"replay", "--loud", sample}, 2, "", "--loud"},
        {{"replay", "--rate", "0", sample}, 2, "", "0 is no number from 1 up"},
        {{"replay", "--repeat", "2x", sample}, 2, "", "2x is no number"},
        {{"replay", "--repeat", "2", "-"}, 2, "", "standard input"},
        {{"replay", "--debug", "-"}, 2, "", "standard input"},
        {{"replay", "--command", " ", sample}, 2, "", "needs a command"},
        {{"replay", "--command", "sing", sample}, 1, "still out", "no command 'sing'"},
        {{"replay", sample, "--modules"}, 2, "", "--modules needs a value"},
        {{"replay", "--tsv", "/missing", scratch_directory(), sample}, 1, "padded.pcap\tok", "/missing: "},
        {{"replay", "--modules", scratch_directory(), sample}, 3, "", "network/zarn_util"},
        {{"replay", sample}, 0, "still out", ""},
        {{"replay", "--json", sample}, 0, "\"udp_good\": 20, \"udp_bad\": 0, \"udp_absent\": 6", ""},
    };
    for (const auto &c : cases) {
        program_result result = run_program(c.arguments);
        SCOPED_TRACE(c.arguments.empty() ? "" : c.arguments.back());
        EXPECT_EQ(result.code, c.code);
        EXPECT_NE(result.out.find(c.out), std::string::npos) << result.out;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        EXPECT_EQ(result.err.empty(), *c.err == 0) << result.err;
    }
}

// Whatever the bytes are, the program ends in order: nothing crashes and nothing stays out.
TEST(replay, survives_mutated_captures) {
    strings seeds;
    for (const auto &entry : std::filesystem::directory_iterator(kSamples)) {
        if (entry.path().extension() != ".tsv") seeds.push_back(entry.path());
    }
    std::sort(seeds.begin(), seeds.end());
    std::mt19937 random(20);
    auto below = [&](size_t limit) { return static_cast<size_t>(random()) % limit; };
    const strings modes[] = {{}, {"--interrupt"}, {"--drop"}, {"--interrupt", "--drop"}, {"--dma"}};
    for (int round = 0; round < 5; round++) {
        strings arguments = {"replay", "--tsv"};
        arguments.insert(arguments.end(), modes[round].begin(), modes[round].end());
        for (size_t i = 0; i < 40; i++) {
            std::string bytes = read_file(seeds[below(seeds.size())]);
            // Spoils frames more often than the records around them: a spoilt record ends the file.
            for (size_t change = 1 + below(200); change != 0; change--)
                bytes[below(bytes.size())] ^= static_cast<char>(1 << below(8));
            if (below(8) == 0) bytes.resize(bytes.size() - below(std::min<size_t>(60, bytes.size())));
            std::string path = scratch_directory() + "/mutated" + std::to_string(i);
            write_file(path, bytes);
            arguments.push_back(path);
        }
        program_result result = run_program(arguments);
        EXPECT_LE(result.code, 1) << "round " << round << ": " << result.err;
        EXPECT_EQ(parse_table(result.out).size(), 40u);
    }
}

}  // namespace
