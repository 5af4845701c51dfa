// SPDX-License-Identifier: MIT
//
// What the program reads of capture files that are out of the ordinary or damaged, of either format.

#include <gtest/gtest.h>

#include "tests/host/program.h"

using namespace std::string_literals;

namespace {

const std::string kFrame = ethernet(0x0806, std::string(46, '\0'));
const std::string kNone = std::string(8, '\xff');  // a section length that tells nothing

std::string block(uint32_t type, const std::string &body) {
    const std::string padding((4 - body.size() % 4) % 4, '\0');
    const std::string length = little32(static_cast<uint32_t>(body.size() + padding.size() + 12));
    return little32(type) + length + body + padding + length;
}

std::string section(uint32_t version = 1, uint32_t magic = 0x1a2b3c4d) {
    return block(0x0a0d0d0a, little32(magic) + little32(version) + kNone);
}

std::string interface(uint32_t link, uint32_t snap_length) {
    return block(1, little32(link) + little32(snap_length));
}

// What every file starts with.
std::string start_of(uint32_t link = 1) {
    return section() + interface(link, 262144);
}

std::string simple(const std::string &bytes, size_t wire) {
    return block(3, little32(static_cast<uint32_t>(wire)) + bytes);
}

// Of type 6, or 2 for the obsolete one.
std::string packet(uint32_t type, uint32_t interface, uint32_t captured, uint32_t wire,
                   const std::string &rest) {
    return block(type,
                 little32(interface) + std::string(8, '\0') + little32(captured) + little32(wire) + rest);
}

std::string enhanced(uint32_t interface, const std::string &frame) {
    const auto length = static_cast<uint32_t>(frame.size());
    return packet(6, interface, length, length, frame);
}

// A section of the other byte order with a frame of 60 bytes.
std::string swapped_section() {
    std::string words;
    for (uint32_t word : {0x0a0d0d0au, 28u, 0x1a2b3c4du, 0x10000u, ~0u, ~0u, 28u, 1u, 20u, 0x10000u, 0u, 20u,
                          6u, 92u, 0u, 0u, 0u, 60u, 60u})
        words += little32(__builtin_bswap32(word));
    return words + kFrame + words.substr(52, 4);
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
    bool sound = true;
    for (const reading &c : cases) {
        table_row &row = rows[c.name];
        const std::pair<const char *, unsigned> counts[] = {{"frames", c.frames},
                                                            {"not_ethernet", c.foreign},
                                                            {"cap_bytes", c.captured},
                                                            {"wire_bytes", c.wire}};
        for (const auto &[column, value] : counts)
            EXPECT_EQ(row[column], std::to_string(value)) << c.name << ", " << column;
        EXPECT_EQ(row["status"], c.status) << c.name;
        sound = sound && c.status == "ok" && c.foreign == 0;
        // One line for whatever is not sound, none for the others. It names the frame behind the last good one.
        std::string line = "/" + c.name + ": ";
        const size_t at = result.err.find(line);
        EXPECT_EQ(at != std::string::npos, c.status != "ok" || c.foreign != 0) << line << result.err;
        EXPECT_TRUE(at == result.err.rfind(line)) << result.err;
        if (c.frames == 0 || c.status == "ok" || c.foreign != 0) continue;
        line += "frame " + std::to_string(c.frames + 1) + ": ";
        EXPECT_NE(result.err.find(line), std::string::npos) << line << result.err;
    }
    EXPECT_EQ(result.code, sound ? 0 : 1);
}

TEST(pcapng, reads_sound_files_to_their_end) {
    const std::string start = start_of(), plain = enhanced(0, kFrame);
    const std::string longest(262144, 'x');
    expect_readings({
        {"no_interface", section()},
        {"section_1.2", section(0x00020001) + interface(1, 0) + plain, "ok", 1, 60, 60},
        {"links_differ", start + interface(113, 9) + plain + enhanced(1, kFrame) + plain, "ok", 3, 180, 180,
         1},
        {"late_interface", start + plain + interface(113, 0) + enhanced(1, kFrame), "ok", 2, 120, 120, 1},
        {"snaps_differ",
         section() + interface(1, 20) + interface(1, 0) + plain + enhanced(1, kFrame) +
             simple(kFrame.substr(0, 20), 60),
         "ok", 3, 140, 180},
        {"sections", start + plain + swapped_section() + start_of(276) + plain + swapped_section(), "ok", 4,
         240, 240, 1},
        {"other_byte_order", swapped_section(), "ok", 1, 60, 60},
        {"obsolete", start + interface(1, 0) + packet(2, 0xffff0001, 60, 99, kFrame), "ok", 1, 60, 99},
        {"options", start + packet(6, 0, 5, 4, "abcde\0\0\0\1\0\xff\xff"s + "abcd"), "ok", 1, 5, 4},
        {"other_blocks", start + block(5, "") + plain + block(0x80000bad, std::string(1 << 20, 'x')) + plain,
         "ok", 2, 120, 120},
        {"no_bytes", start + packet(6, 0, 0, 60, "") + simple("", 0), "ok", 2, 0, 60},
        {"longest", start + enhanced(0, longest) + simple(longest, 300000) + plain, "ok", 3, 524348, 562204},
    });
}

TEST(pcapng, tells_how_a_bad_file_ended) {
    const std::string start = start_of(), plain = enhanced(0, kFrame), sound = start + plain;
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
        {"interface_unknown", "damaged", enhanced(1, kFrame)},
        {"interface_short", "damaged", block(1, "abcd")},
        {"packet_short", "damaged", block(6, std::string(16, '\0'))},
        {"simple_short", "damaged", simple(kFrame, 61)},
        {"above_block", "damaged", packet(6, 0, 61, 61, kFrame)},
        {"too_long", "damaged", enhanced(0, std::string(262145, 'x'))},
        {"simple_too_long", "damaged",
         interface(1, 0) + section() + interface(1, 0) + simple(std::string(262145, 'x'), 262145)},
    };
    for (const auto &tail : tails)
        cases.push_back({tail.name, sound + tail.bytes + plain, tail.status, 1, 60, 60});
    // Only the end of a file can be cut.
    cases[cases.size() - std::size(tails)].bytes = sound + tails[0].bytes;
    expect_readings(cases);
}

TEST(pcap, frames_come_as_long_as_they_were_recorded_and_a_bad_file_ends_in_order) {
    const std::string records = pcap_record(kFrame) + pcap_record(std::string(262144, 'x'), 300000);
    std::string small = pcap_file({records}), none = small, other = pcap_file({}, 231),
                sound = pcap_file({pcap_record(kFrame), pcap_record(kFrame)});
    small.replace(16, 4, little32(20));
    none.replace(16, 4, little32(0xffffffff));
    other.replace(16, 4, little32(1 << 24));
    expect_readings({
        {"small_snap", small, "ok", 2, 262204, 300060},
        {"no_snap", none, "ok", 2, 262204, 300060},
        {"too_long_for_any_link",
         other + pcap_record(kFrame) + pcap_record(std::string(262145, 'x')) + pcap_record(kFrame), "damaged",
         1, 60, 60, 1},
        {"no_bytes", "", "not_a_capture"},
        {"text", "these are no frames", "not_a_capture"},
        {"cut_in_the_header", sound.substr(0, 20), "cut"},
        {"cut_in_a_record_header", sound.substr(0, sound.size() - kFrame.size() - 3), "cut", 1, 60, 60},
        {"cut_in_a_record", sound.substr(0, sound.size() - 1), "cut", 1, 60, 60},
        {"too_long", sound + std::string(8, '\0') + little32(262145) + little32(9), "damaged", 2, 120, 120},
    });
}

// A pipe hands out what has come, and can't be read backwards.
TEST(pcapng, comes_through_a_pipe) {
    const std::string path = scratch_directory() + "/piped";
    for (const std::string &bytes : {start_of() + enhanced(0, kFrame), pcap_file({pcap_record(kFrame)})}) {
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
