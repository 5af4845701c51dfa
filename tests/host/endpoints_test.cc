// SPDX-License-Identifier: MIT
//
// What the replay finds above single packets: datagrams that came in fragments, connections, and the
// protocols that the settings name.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

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

// Pieces are told as "START+LENGTH", with a dot at the last, "?" for other bytes, "#N" for another
// datagram's.
std::string fragment(const std::string &datagram, const std::string &piece, unsigned protocol) {
    size_t start = 0, length = 0;
    sscanf(piece.c_str(), "%zu+%zu", &start, &length);
    std::string bytes = datagram.substr(std::min(start, datagram.size()), length);
    bytes.resize(length, 'x');
    if (piece.find('?') != std::string::npos) bytes.assign(length, '?');
    const unsigned place = static_cast<unsigned>(start / 8);
    const size_t id = piece.find('#');
    return ipv4(
        bytes, {.protocol = protocol,
                .fragment = place | (piece.find('.') == std::string::npos ? 0x2000 : 0),
                .id = id == std::string::npos ? 1 : static_cast<unsigned>(std::stoul(piece.substr(id + 1)))});
}

std::string cut(size_t length, size_t step, bool backwards = false) {
    std::string pieces;
    for (size_t start = 0; start < length; start += step) {
        std::string piece = std::to_string(start) + "+" + std::to_string(std::min(step, length - start));
        if (start + step >= length) piece += ".";
        pieces = backwards ? piece + " " + pieces : pieces + piece + " ";
    }
    return pieces;
}

TEST(fragments, are_put_together_whatever_their_order_and_never_from_what_does_not_fit) {
    const std::string small = udp(std::string(20, 'a') + std::string(20, 'b'));  // 48 bytes
    const std::string longest = udp(std::string(65507, 'z'));
    std::string spoilt = small, unsummed = small, flood;
    spoilt[40] = 'X';
    unsummed.replace(6, 2, 2, '\0');
    for (int id = 1; id <= 100; id++)  // more than is kept: the oldest goes
        flood += "0+16#" + std::to_string(id) + " ";
    const struct {
        const char *name;
        std::string datagram, pieces, counts;  // whole, good, bad, absent
        unsigned protocol = 17;
    } cases[] = {
        {"in_order", small, cut(48, 16), "1 1 0 0"},
        {"backwards", small, cut(48, 16, true), "1 1 0 0"},
        {"header_in_pieces", small, cut(48, 8), "1 1 0 0"},
        {"doubled", small, "0+16 0+16 16+16 16+16 32+16.", "1 1 0 0"},
        {"overlapping_the_one_before", small, "0+24 16+16 32+16.", "1 1 0 0"},
        {"overlapping_the_one_behind", small, "16+16 8+16 0+16 32+16.", "1 1 0 0"},
        {"around_another", small, "8+8 0+32 32+16.", "1 1 0 0"},
        {"between_two_that_touch_it", small, "0+16 16+16 8+16 32+16.", "1 1 0 0"},
        {"later_bytes_differ", small, "0+32 16+16? 32+16.", "1 1 0 0"},
        {"hole", small, "0+16 32+16.", "0 0 0 0"},
        {"no_end", small, "0+16 16+32", "0 0 0 0"},
        {"two_at_once", small, "0+16#1 0+16#2 16+32.#2 16+32.#1", "2 2 0 0"},
        {"no_multiple_of_8", small, "0+13 16+32.", "0 0 0 0"},
        {"two_ends", small, "32+16. 32+8. 0+32", "1 1 0 0"},
        {"behind_the_end", small, "32+16. 48+8 0+32", "1 1 0 0"},
        {"end_before_what_is_there", small, "0+32 32+16 16+8.", "0 0 0 0"},
        {"empty", small, "0+0 0+16 16+0. 16+32.", "1 1 0 0"},
        {"beyond_65535", small, "65528+16. 65528+8.", "0 0 0 0"},
        {"bad_sum", spoilt, cut(48, 16), "1 0 1 0"},
        {"no_sum", unsummed, cut(48, 16), "1 0 0 1"},
        {"unknown_protocol", small, cut(48, 16), "1 0 0 0", 99},
        {"longest", longest, cut(longest.size(), 1480), "1 1 0 0"},
        {"longest_backwards", longest, cut(longest.size(), 1480, true), "1 1 0 0"},
        {"flood", small, flood + "16+32.#100 16+32.#1", "1 1 0 0"},
    };
    strings arguments = {"replay", "--tsv"};
    for (const auto &c : cases) {
        strings packets;
        std::istringstream pieces(c.pieces);
        for (std::string piece; pieces >> piece;)
            packets.push_back(fragment(c.datagram, piece, c.protocol));
        arguments.push_back(write_capture(c.name, packets));
    }
    for (int round = 0; round < 2; round++) {
        auto rows = parse_table(run_program(arguments).out);
        for (const auto &c : cases) {
            table_row row = rows[c.name];
            std::string counts = row["whole"];
            for (const char *column : {"whole_good", "whole_bad", "whole_absent"})
                counts += " " + row[column];
            EXPECT_EQ(counts, c.counts) << c.name << ", " << arguments.back();
        }
        arguments.push_back("--interrupt");
    }
}

// Segments are told as "c" or "s" for who sends, the flags, the sequence number and the acknowledged one, then the payload;
// a number in front is the client's port.
std::string segment(const std::string &text) {
    unsigned client = 4000, sequence = 0, acknowledged = 0, flags = 0;
    char names[8] = "", payload[16] = "";
    size_t skip = text.find_first_of("cs");
    if (skip != 0) client = static_cast<unsigned>(std::stoul(text));
    sscanf(&text[skip + 1], "%7[FSRA]%u/%u%15s", names, &sequence, &acknowledged, payload);
    for (const char *name = names; *name != 0; name++)
        flags |= *name == 'F' ? 1 : *name == 'S' ? 2 : *name == 'R' ? 4 : 16;
    bool from_client = text[skip] == 'c';
    std::string packet = ipv4(
        tcp(payload, {from_client ? client : 80, from_client ? 80 : client, flags, sequence, acknowledged}),
        {.protocol = 6});
    // The sums do not tell who is who.
    if (!from_client) std::rotate(packet.begin() + 12, packet.begin() + 16, packet.begin() + 20);
    return packet;
}

// The numbers of an object of a report in JSON: of connections, how many were accepted and how many of these have
// not ended, the bytes there and back, and how many were refused, failed and half made.
std::string numbers_of(const std::string &json, const std::string &object) {
    size_t at = json.find("\"" + object + "\": {");
    std::string numbers;
    for (const size_t end = json.find_first_of("[}", at); at < end; at++) {
        if (json[at] != ':' || isdigit(json[at + 2]) == 0) continue;
        numbers += (numbers.empty() ? "" : " ") + std::to_string(std::stoul(json.substr(at + 2)));
    }
    return numbers;
}

TEST(connections, are_followed_from_their_handshake_to_their_end) {
    const std::string made = "cS100/0 sSA500/101 cA101/501 ";
    const struct {
        std::string name, steps, expected;
    } cases[] = {
        {"made", made, "1 1 0 0 0 0 0"},
        {"both_ends", made + "cA101/501hello sA501/106world! cFA106/507 cA107/507 sFA507/107",
         "1 0 5 6 0 0 0"},
        {"sent_again",
         "cS100/0 sSA500/101 " + made + "cA104/501def cA101/501abcd cA101/501abcdefg cA100/501?",
         "1 1 7 0 0 0 0"},
        {"numbers_wrap", "cS4294967294/0 sSA500/4294967295 cA4294967295/501abc cA2/501def", "1 1 6 0 0 0 0"},
        {"reset", made + "cA101/501ab sR501/0", "1 0 2 0 0 0 0"},
        {"refused_by_the_server", "cS100/0 sRA0/101", "0 0 0 0 0 1 0"},
        {"half_made", "cS100/0 sSA500/101 cA101/400", "0 0 0 0 0 0 1"},
        {"without_a_start", "cA101/501 sA501/101abc", "0 0 0 0 0 0 0"},
        {"same_ports_again", made + "cA101/501abc cS9000/0 sSA7000/9001 cA9001/7001defg", "2 1 7 0 0 0 0"},
        {"backlog", "1cS1/0 2cS1/0 3cS1/0 3cS1/0 1sRA0/2", "0 0 0 0 2 1 1"},
    };
    for (const auto &c : cases) {
        strings packets;
        std::istringstream steps(c.steps);
        for (std::string step; steps >> step;)
            packets.push_back(segment(step));
        program_result result =
            run_program({"replay", "--json", "--backlog", "2", write_capture(c.name, packets)});
        EXPECT_EQ(numbers_of(result.out, "connections"), c.expected) << c.name;
        EXPECT_EQ(result.err.find("the backlog is full") != std::string::npos, c.name == "backlog");
    }
}

// The numbers come from a count of the distinct sequence numbers in the files, made by other means.
TEST(connections, in_the_captures_have_the_bytes_that_were_sent) {
    const struct {
        std::string path, connections, datagrams;
    } cases[] = {{kSamples + "/nano.pcap", "1 0 77 5245 ", "40 "},
                 {kSamples + "/fragments.pcap", "0 0 0 0 ", "12 "},
                 {kAll + "/http.pcap", "10 0 775 283100 ", "0 "},
                 {kAll + "/tcp-loss.pcap", "2 0 25966 288276 ", "0 "},
                 {kAll + "/mixed.pcap", "35 0 246551 329767 ", "1482 "}};
    for (const auto &c : cases) {
        if (!std::filesystem::exists(c.path)) continue;  // the samples are always there
        for (const char *mode : {"--json", "--interrupt"}) {
            const std::string out = run_program({"replay", "--json", c.path, mode}).out;
            EXPECT_TRUE(numbers_of(out, "connections").starts_with(c.connections)) << c.path << out;
            EXPECT_TRUE(numbers_of(out, "datagrams").starts_with(c.datagrams)) << c.path << out;
        }
    }
}

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
    write_file(conf, "domains {\n  2 { in { 1 icmp }\n");
    for (const std::string &path : {conf, scratch_directory() + "/no.conf"}) {  // never read in part
        program_result result = run_program({"replay", "--conf", path, sample});
        EXPECT_EQ(std::to_string(result.code) + result.out, "1");
        EXPECT_NE(result.err.find(path), std::string::npos) << result.err;
    }
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
