// SPDX-License-Identifier: MIT
//
// What the replay finds above single packets: datagrams that came in fragments, connections, and the
// protocols that the settings name.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/host/program.h"

namespace {

using strings = std::vector<std::string>;

const std::string kSamples = ZARN_SOURCE_DIR "/examples/captures";
const std::string kAll = ZARN_SOURCE_DIR "/../shared/captures";

std::string write_capture(const std::string &name, const strings &packets) {
    strings records;
    for (const std::string &packet : packets)
        records.push_back(pcap_record(ethernet(0x0800, packet)));
    std::string path = scratch_directory() + "/" + name;
    write_file(path, pcap_file(records));
    return path;
}

// Fragments

struct piece {
    size_t start, length;
    bool more = true;
    unsigned id = 1;
    bool spoilt = false;  // its bytes are others
};

struct fragments_case {
    const char *name;
    std::string datagram;
    std::vector<piece> pieces;
    const char *whole, *good, *bad, *absent;
    unsigned protocol = 17;
};

std::string fragment(const std::string &datagram, const piece &piece, unsigned protocol) {
    std::string bytes = datagram.substr(std::min(piece.start, datagram.size()), piece.length);
    bytes.resize(piece.length, 'x');
    if (piece.spoilt) bytes.assign(piece.length, '?');
    unsigned place = static_cast<unsigned>(piece.start / 8) | (piece.more ? 0x2000 : 0);
    return ipv4(bytes, {.protocol = protocol, .fragment = place, .id = piece.id});
}

std::vector<piece> cut(size_t length, size_t step, unsigned id = 1) {
    std::vector<piece> pieces;
    for (size_t start = 0; start < length; start += step)
        pieces.push_back({start, std::min(step, length - start), start + step < length, id});
    return pieces;
}

TEST(fragments, are_put_together_whatever_their_order_and_never_from_what_does_not_fit) {
    const std::string small = udp(std::string(20, 'a') + std::string(20, 'b'));  // 48 bytes
    const std::string longest = udp(std::string(65507, 'z'));
    std::string spoilt = small, unsummed = small;
    spoilt[40] = 'X';
    unsummed.replace(6, 2, 2, '\0');

    // More than is kept: the oldest goes, the latest can still be completed.
    std::vector<piece> flood;
    for (unsigned id = 1; id <= 100; id++)
        flood.push_back({0, 16, true, id});
    flood.push_back({16, 32, false, 100});
    flood.push_back({16, 32, false, 1});
    std::vector<piece> backwards = cut(longest.size(), 1480);
    std::reverse(backwards.begin(), backwards.end());

    const fragments_case cases[] = {
        {"in_order", small, cut(48, 16), "1", "1", "0", "0"},
        {"backwards", small, {{32, 16, false}, {16, 16}, {0, 16}}, "1", "1", "0", "0"},
        {"header_in_pieces", small, cut(48, 8), "1", "1", "0", "0"},
        {"doubled", small, {{0, 16}, {0, 16}, {16, 16}, {16, 16}, {32, 16, false}}, "1", "1", "0", "0"},
        {"overlapping_the_one_before", small, {{0, 24}, {16, 16}, {32, 16, false}}, "1", "1", "0", "0"},
        {"overlapping_the_one_behind",
         small,
         {{16, 16}, {8, 16}, {0, 16}, {32, 16, false}},
         "1",
         "1",
         "0",
         "0"},
        {"around_another", small, {{8, 8}, {0, 32}, {32, 16, false}}, "1", "1", "0", "0"},
        {"between_two_that_touch_it",
         small,
         {{0, 16}, {16, 16}, {8, 16}, {32, 16, false}},
         "1",
         "1",
         "0",
         "0"},
        {"later_bytes_differ",
         small,
         {{0, 32}, {16, 16, true, 1, true}, {32, 16, false}},
         "1",
         "1",
         "0",
         "0"},
        {"hole", small, {{0, 16}, {32, 16, false}}, "0", "0", "0", "0"},
        {"no_end", small, {{0, 16}, {16, 32}}, "0", "0", "0", "0"},
        {"two_at_once",
         small,
         {{0, 16, true, 1}, {0, 16, true, 2}, {16, 32, false, 2}, {16, 32, false, 1}},
         "2",
         "2",
         "0",
         "0"},
        {"no_multiple_of_8", small, {{0, 13}, {16, 32, false}}, "0", "0", "0", "0"},
        {"two_ends", small, {{32, 16, false}, {32, 8, false}, {0, 32}}, "1", "1", "0", "0"},
        {"behind_the_end", small, {{32, 16, false}, {48, 8}, {0, 32}}, "1", "1", "0", "0"},
        {"end_before_what_is_there", small, {{0, 32}, {32, 16}, {16, 8, false}}, "0", "0", "0", "0"},
        {"empty", small, {{0, 0}, {0, 16}, {16, 0, false}, {16, 32, false}}, "1", "1", "0", "0"},
        {"beyond_65535", small, {{65528, 16, false}, {65528, 8, false}}, "0", "0", "0", "0"},
        {"bad_sum", spoilt, cut(48, 16), "1", "0", "1", "0"},
        {"no_sum", unsummed, cut(48, 16), "1", "0", "0", "1"},
        {"unknown_protocol", small, cut(48, 16), "1", "0", "0", "0", 99},
        {"longest", longest, cut(longest.size(), 1480), "1", "1", "0", "0"},
        {"longest_backwards", longest, backwards, "1", "1", "0", "0"},
        {"flood", small, flood, "1", "1", "0", "0"},
    };
    strings arguments = {"replay", "--tsv"};
    for (const fragments_case &c : cases) {
        strings packets;
        for (const piece &piece : c.pieces)
            packets.push_back(fragment(c.datagram, piece, c.protocol));
        arguments.push_back(write_capture(c.name, packets));
    }
    for (const char *mode : {"--tsv", "--interrupt"}) {
        arguments[1] = mode;
        if (mode != strings{"--tsv"}[0]) arguments.push_back("--tsv");
        program_result result = run_program(arguments);
        EXPECT_EQ(result.code, 0) << result.err;
        auto rows = parse_table(result.out);
        for (const fragments_case &c : cases) {
            table_row row = rows[c.name];
            EXPECT_EQ(
                row["whole"] + " " + row["whole_good"] + " " + row["whole_bad"] + " " + row["whole_absent"],
                std::string(c.whole) + " " + c.good + " " + c.bad + " " + c.absent)
                << c.name << ", " << mode;
            EXPECT_EQ(row["fragments"], std::to_string(c.pieces.size())) << c.name;
        }
    }
}

// Connections

enum : unsigned { kFin = 1, kSyn = 2, kReset = 4, kAck = 16 };

struct step {
    bool from_client;
    unsigned flags;
    uint32_t sequence, acknowledged;
    const char *payload = "";
    unsigned client_port = 4000;
};

std::string segment(const step &step) {
    std::string packet = ipv4(
        tcp(step.payload, {step.from_client ? step.client_port : 80, step.from_client ? 80 : step.client_port,
                           step.flags, step.sequence, step.acknowledged}),
        {.protocol = 6});
    // The sums do not tell who is who.
    if (!step.from_client) std::rotate(packet.begin() + 12, packet.begin() + 16, packet.begin() + 20);
    return packet;
}

TEST(connections, are_followed_from_their_handshake_to_their_end) {
    const step syn = {true, kSyn, 100, 0}, syn_ack = {false, kSyn | kAck, 500, 101},
               ack = {true, kAck, 101, 501};
    struct {
        const char *name;
        std::vector<step> steps;
        const char *expected;
    } cases[] = {
        {"made", {syn, syn_ack, ack}, "1 1 0 0 0 0 0"},
        {"both_ends",
         {syn,
          syn_ack,
          ack,
          {true, kAck, 101, 501, "hello"},
          {false, kAck, 501, 106, "world!"},
          {true, kFin | kAck, 106, 507},
          {true, kAck, 107, 507},
          {false, kFin | kAck, 507, 107}},
         "1 0 5 6 0 0 0"},
        {"sent_again",
         {syn,
          syn,
          syn_ack,
          syn_ack,
          ack,
          {true, kAck, 104, 501, "def"},
          {true, kAck, 101, 501, "abcd"},
          {true, kAck, 101, 501, "abcdefg"},
          {true, kAck, 100, 501, "?"}},
         "1 1 7 0 0 0 0"},
        {"numbers_wrap",
         {{true, kSyn, 0xfffffffe, 0},
          {false, kSyn | kAck, 500, 0xffffffff},
          {true, kAck, 0xffffffff, 501, "abc"},
          {true, kAck, 2, 501, "def"}},
         "1 1 6 0 0 0 0"},
        {"reset",
         {syn, syn_ack, ack, {true, kAck, 101, 501, "ab"}, {false, kReset, 501, 0}},
         "1 0 2 0 0 0 0"},
        {"refused_by_the_server", {syn, {false, kReset | kAck, 0, 101}}, "0 0 0 0 0 1 0"},
        {"half_made", {syn, syn_ack, {true, kAck, 101, 400}}, "0 0 0 0 0 0 1"},
        {"without_a_start", {ack, {false, kAck, 501, 101, "abc"}}, "0 0 0 0 0 0 0"},
        {"same_ports_again",
         {syn,
          syn_ack,
          ack,
          {true, kAck, 101, 501, "abc"},
          {true, kSyn, 9000, 0},
          {false, kSyn | kAck, 7000, 9001},
          {true, kAck, 9001, 7001, "defg"}},
         "2 1 7 0 0 0 0"},
        {"backlog",
         {{true, kSyn, 1, 0, "", 1},
          {true, kSyn, 1, 0, "", 2},
          {true, kSyn, 1, 0, "", 3},
          {true, kSyn, 1, 0, "", 3},
          {false, kReset | kAck, 0, 2, "", 1}},
         "0 0 0 0 2 1 1"},
    };
    for (const auto &c : cases) {
        strings packets;
        for (const step &step : c.steps)
            packets.push_back(segment(step));
        const std::string path = write_capture(c.name, packets);
        program_result result = run_program({"replay", "--json", "--backlog", "2", path});
        EXPECT_EQ(result.code, 0) << result.err;
        unsigned long accepted = 9, open = 9, client = 9, server = 9, refused = 9, failed = 9, half = 9;
        size_t at = result.out.find("\"connections\"");
        ASSERT_NE(at, std::string::npos) << result.out;
        sscanf(&result.out[at],
               "\"connections\": {\"accepted\": %lu, \"not_ended\": %lu, \"client_bytes\": %lu, "
               "\"server_bytes\": %lu, \"refused\": %lu, \"failed\": %lu, \"half_made\": %lu",
               &accepted, &open, &client, &server, &refused, &failed, &half);
        std::string found;
        for (unsigned long number : {accepted, open, client, server, refused, failed, half})
            found += (found.empty() ? "" : " ") + std::to_string(number);
        EXPECT_EQ(found, c.expected) << c.name;
        EXPECT_EQ(result.err.find("the backlog is full") != std::string::npos, refused != 0) << result.err;
    }
}

// The numbers come from a count of the distinct sequence numbers in the files, made by other means.
TEST(connections, in_the_captures_have_the_bytes_that_were_sent) {
    const struct {
        std::string path;
        const char *connections, *datagrams;
    } cases[] = {
        {kSamples + "/nano.pcap",
         "\"accepted\": 1, \"not_ended\": 0, \"client_bytes\": 77, \"server_bytes\": 5245",
         "\"received\": 40"},
        {kSamples + "/fragments.pcap", "\"accepted\": 0", "\"received\": 12"},
        {kAll + "/http.pcap",
         "\"accepted\": 10, \"not_ended\": 0, \"client_bytes\": 775, \"server_bytes\": 283100",
         "\"received\": 0"},
        {kAll + "/tcp-loss.pcap",
         "\"accepted\": 2, \"not_ended\": 0, \"client_bytes\": 25966, \"server_bytes\": 288276",
         "\"received\": 0"},
        {kAll + "/mixed.pcap",
         "\"accepted\": 35, \"not_ended\": 0, \"client_bytes\": 246551, \"server_bytes\": 329767, "
         "\"refused\": 0, "
         "\"failed\": 2",
         "\"received\": 1482"},
    };
    for (const auto &c : cases) {
        if (!std::filesystem::exists(c.path)) continue;  // the samples are always there
        for (const strings &mode : {strings{}, strings{"--interrupt"}}) {
            strings arguments = {"replay", "--json", c.path};
            arguments.insert(arguments.end(), mode.begin(), mode.end());
            program_result result = run_program(arguments);
            EXPECT_EQ(result.code, 0) << result.err;
            EXPECT_NE(result.out.find(c.connections), std::string::npos) << result.out;
            EXPECT_NE(result.out.find(c.datagrams), std::string::npos) << result.out;
        }
    }
}

// Settings

TEST(settings, decide_which_protocols_receive) {
    const std::string sample = kSamples + "/nano.pcap", arp_only = "dl { 806 { 0 arp } }";
    const std::string ip = "dl { 800 { 0 ipv4 } } ", tcp_and_icmp = "in { 1 icmp ; 6 tcp } ";
    struct {
        std::string family;
        int code;
        table_row counts;
        const char *err;
    } cases[] = {
        {ip + "in { 1 icmp ; 6 tcp ; 17 udp }", 0, {{"udp", "40"}, {"ip_other", "0"}, {"other", "2"}}, ""},
        {ip + tcp_and_icmp, 0, {{"udp", "0"}, {"ip_other", "40"}, {"tcp_good", "18"}}, ""},
        {ip + tcp_and_icmp + "out { 1 { 6 tcp ipv4 } }", 0, {{"tcp_good", "18"}}, ""},
        {arp_only, 0, {{"arp", "2"}, {"ipv4", "0"}, {"other", "70"}}, ""},
        {ip + "in { 1 icmp ; 6 tcp ; 17 missing }", 3, {{"udp", "0"}, {"ip_other", "40"}}, "network/missing"},
        {ip + "out { 1 { 6 tcp missing } }", 3, {}, "network/missing"},
        {ip + "out { 2 { 17 icmp } }", 3, {}, "can't make the UDP endpoint"},
        {ip + "in { 17 zarn_notify }", 0, {{"ip_other", "70"}}, "network/zarn_notify doesn't receive"},
    };
    const std::string conf = scratch_directory() + "/tried.conf";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.family);
        write_file(conf, "domains { 2 { " + c.family + " } }\n");
        program_result result = run_program({"replay", "--tsv", "--conf", conf, sample});
        EXPECT_EQ(result.code, c.code) << result.err;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        EXPECT_EQ(result.err.empty(), *c.err == 0) << result.err;
        table_row row = parse_table(result.out)["nano.pcap"];
        for (const auto &[column, value] : c.counts)
            EXPECT_EQ(row[column], value) << column;
    }
}

TEST(settings, are_refused_when_they_have_a_mistake_and_never_read_in_part) {
    const std::string sample = kSamples + "/nano.pcap", conf = scratch_directory() + "/broken.conf";
    write_file(conf, "domains {\n  2 { in { 1 icmp }\n");
    for (const std::string &path : {conf, scratch_directory() + "/no.conf"}) {
        program_result result = run_program({"replay", "--conf", path, sample});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find(path), std::string::npos) << result.err;
    }
}

TEST(notifications, are_told_without_end_only_in_numbers) {
    std::string bad = udp("abcdefgh");
    bad[10] = '!';
    const std::string path = write_capture("bad_sums", strings(50, ipv4(bad)));
    program_result result = run_program({"replay", "--json", path});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 4) << result.err;
    EXPECT_NE(result.err.find("a bad UDP checksum: from 10.11.12.13 to 10.11.12.14\n"), std::string::npos);
    EXPECT_NE(result.err.find("50 times in all\n"), std::string::npos) << result.err;
}

}  // namespace
