// SPDX-License-Identifier: MIT
//
// What the program reads of capture files that are out of the ordinary or damaged, of either format.

#include <gtest/gtest.h>

#include "tests/host/program.h"

using namespace std::string_literals;

namespace {

const std::string kFrame = ethernet(0x0806, std::string(46, '\0'));
const std::string kNone = std::string(8, '\xff');  // a section length that tells nothing

std::string swap32(uint32_t value) {
    return little32(__builtin_bswap32(value));
}

std::string section(uint32_t version = 1, uint32_t magic = 0x1a2b3c4d) {
    return pcapng_block(0x0a0d0d0a, little32(magic) + little32(version) + kNone);
}

std::string interface(uint32_t link, uint32_t snap_length) {
    return pcapng_block(1, little32(link) + little32(snap_length));
}

std::string simple(const std::string &bytes, size_t wire) {
    return pcapng_block(3, little32(static_cast<uint32_t>(wire)) + bytes);
}

// Of type 6, or 2 for the obsolete one.
std::string packet(uint32_t type, uint32_t interface, uint32_t captured, uint32_t wire,
                   const std::string &rest) {
    return pcapng_block(
        type, little32(interface) + std::string(8, '\0') + little32(captured) + little32(wire) + rest);
}

// A section of the other byte order with a frame of 60 bytes.
std::string swapped_section() {
    return swap32(0x0a0d0d0a) + swap32(28) + swap32(0x1a2b3c4d) + std::string("\0\1\0\0", 4) + kNone +
           swap32(28) + swap32(1) + swap32(20) + std::string("\0\1\0\0", 4) + swap32(0) + swap32(20) +
           swap32(6) + swap32(92) + swap32(0) + std::string(8, '\0') + swap32(60) + swap32(60) + kFrame +
           swap32(92);
}

struct reading {
    std::string name, bytes, status = "ok";
    unsigned frames = 0, captured = 0, wire = 0, foreign = 0;
};

// Replays the files, all in one run.
void expect_readings(const std::vector<reading> &cases) {
    std::vector<std::string> arguments = {"replay", "--tsv"};
    for (const reading &c : cases) {
        arguments.push_back(scratch_directory() + "/" + c.name);
        write_file(arguments.back(), c.bytes);
    }
    program_result result = run_program(arguments);
    std::map<std::string, table_row> rows = parse_table(result.out);
    for (const reading &c : cases) {
        SCOPED_TRACE(c.name);
        table_row &row = rows[c.name];
        EXPECT_EQ(row["status"], c.status);
        EXPECT_EQ(row["frames"], std::to_string(c.frames));
        EXPECT_EQ(row["not_ethernet"], std::to_string(c.foreign));
        EXPECT_EQ(row["cap_bytes"], std::to_string(c.captured));
        EXPECT_EQ(row["wire_bytes"], std::to_string(c.wire));
        // One line for whatever is not sound, none for the others.
        size_t told = 0;
        for (size_t at = 0; (at = result.err.find("/" + c.name + ": ", at)) != std::string::npos; at++)
            told++;
        EXPECT_EQ(told, c.status != "ok" || c.foreign != 0 ? 1u : 0u) << result.err;
    }
}

TEST(pcapng, reads_sound_files_to_their_end) {
    const std::string start = pcapng_start(), plain = pcapng_packet(0, kFrame);
    const std::string longest(262144, 'x');
    expect_readings({
        {"no_interface", section()},
        {"section_1.2", section(0x00020001) + interface(1, 0) + plain, "ok", 1, 60, 60},
        {"links_differ", start + interface(113, 9) + plain + pcapng_packet(1, kFrame) + plain, "ok", 3, 180,
         180, 1},
        {"late_interface", start + plain + interface(113, 0) + pcapng_packet(1, kFrame), "ok", 2, 120, 120,
         1},
        {"snaps_differ",
         section() + interface(1, 20) + interface(1, 0) + plain + pcapng_packet(1, kFrame) +
             simple(kFrame.substr(0, 20), 60),
         "ok", 3, 140, 180},
        {"sections", start + plain + swapped_section() + pcapng_start(276) + plain + swapped_section(), "ok",
         4, 240, 240, 1},
        {"other_byte_order", swapped_section(), "ok", 1, 60, 60},
        {"obsolete", start + interface(1, 0) + packet(2, 0xffff0001, 60, 99, kFrame), "ok", 1, 60, 99},
        {"options", start + packet(6, 0, 5, 4, "abcde\0\0\0\1\0\xff\xff"s + "abcd"), "ok", 1, 5, 4},
        {"other_blocks",
         start + pcapng_block(5, "") + plain + pcapng_block(0x80000bad, std::string(1 << 20, 'x')) + plain,
         "ok", 2, 120, 120},
        {"no_bytes", start + packet(6, 0, 0, 60, "") + simple("", 0), "ok", 2, 0, 60},
        {"longest", start + pcapng_packet(0, longest) + simple(longest, 300000) + plain, "ok", 3, 524348,
         562204},
    });
}

TEST(pcapng, tells_how_a_bad_file_ended) {
    const std::string start = pcapng_start(), plain = pcapng_packet(0, kFrame), sound = start + plain;
    auto wrong_end = [](std::string block) { return block.replace(block.size() - 4, 4, little32(8)); };
    std::vector<reading> cases = {
        {"gzip", "\x1f\x8b\x08\0\0\0\0\0\0\3"s + sound, "not_a_capture"},
        {"no_magic", section(1, 0x12345678) + plain, "not_a_capture"},
        {"version_2", section(2) + plain, "unreadable"},
    };
    for (unsigned size : {1u, 4u, 11u, 12u, 27u, 29u, 55u, 75u, 76u, 139u})
        cases.push_back(
            {"cut_at_" + std::to_string(size), sound.substr(0, size), size < 12 ? "not_a_capture" : "cut"});
    const struct {
        const char *name, *status;
        std::string bytes;
    } tails[] = {
        {"tail_cut", "cut", "\6\0"s},
        {"zeros", "damaged", std::string(64, '\0')},
        {"length_8", "damaged", little32(0xbad) + little32(8)},
        {"length_huge", "damaged", little32(0xbad) + little32(0xfffffff0)},
        {"lengths_disagree", "damaged", wrong_end(plain)},
        {"section_disagrees", "damaged", wrong_end(section())},
        {"section_without_magic", "damaged", section(1, 7)},
        {"section_has_its_own_interfaces", "damaged", section() + plain},
        {"interface_unknown", "damaged", pcapng_packet(1, kFrame)},
        {"interface_short", "damaged", pcapng_block(1, "abcd")},
        {"packet_short", "damaged", pcapng_block(6, std::string(16, '\0'))},
        {"simple_short", "damaged", simple(kFrame, 61)},
        {"above_block", "damaged", packet(6, 0, 61, 61, kFrame)},
        {"too_long", "damaged", pcapng_packet(0, std::string(262145, 'x'))},
        {"simple_too_long", "damaged",
         interface(1, 0) + section() + interface(1, 0) + simple(std::string(262145, 'x'), 262145)},
    };
    for (const auto &tail : tails)
        cases.push_back({tail.name, sound + tail.bytes + plain, tail.status, 1, 60, 60});
    // Only the end of a file can be cut.
    cases[cases.size() - std::size(tails)].bytes = sound + tails[0].bytes;
    expect_readings(cases);
}

TEST(pcap, frames_come_as_long_as_they_were_recorded) {
    const std::string records = pcap_record(kFrame) + pcap_record(std::string(262144, 'x'), 300000);
    std::string small = pcap_file({records}), none = small, other = pcap_file({}, 231);
    small.replace(16, 4, little32(20));
    none.replace(16, 4, little32(0xffffffff));
    other.replace(16, 4, little32(1 << 24));
    expect_readings({
        {"small_snap", small, "ok", 2, 262204, 300060},
        {"no_snap", none, "ok", 2, 262204, 300060},
        {"too_long_for_any_link",
         other + pcap_record(kFrame) + pcap_record(std::string(262145, 'x')) + pcap_record(kFrame), "damaged",
         1, 60, 60, 1},
    });
}

// A pipe hands out what has come, and can't be read backwards.
TEST(pcapng, comes_through_a_pipe) {
    const std::string path = scratch_directory() + "/piped";
    for (const std::string &bytes :
         {pcapng_start() + pcapng_packet(0, kFrame), pcap_file({pcap_record(kFrame)})}) {
        write_file(path, bytes);
        std::string command = "cat " + path + " | " ZARN_BUILD_DIR "/zarn replay --tsv -";
        FILE *program = popen(command.c_str(), "r");
        ASSERT_NE(program, nullptr);
        std::string out;
        for (int c; (c = getc(program)) != EOF;)
            out += static_cast<char>(c);
        EXPECT_EQ(pclose(program), 0);
        EXPECT_EQ(parse_table(out)["-"]["arp"], "1") << out;
    }
}

}  // namespace
