// SPDX-License-Identifier: MIT
//
// Runs the built program and makes the captures that it is fed.

#ifndef ZARN_TESTS_HOST_PROGRAM_H
#define ZARN_TESTS_HOST_PROGRAM_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct program_result {
    int code;  // the exit status, or 128 and the signal that ended it
    std::string out, err;
};

// Starts the program with its output in files of the scratch directory, and waits for its end.
pid_t start_program(const std::vector<std::string> &arguments);
program_result finish_program(pid_t child);
program_result run_program(const std::vector<std::string> &arguments);

// A table of tab-separated values: for each row, by the value of its first column, the others by their name.
using table_row = std::map<std::string, std::string>;
std::map<std::string, table_row> parse_table(const std::string &text);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

// A directory of this process that goes at its end.
const std::string &scratch_directory();

// Bytes of packets and captures.

std::string big16(unsigned value);
std::string little32(uint32_t value);

// A captured record of a classic file; `wire` below 0 stands for its own length.
std::string pcap_record(const std::string &frame, int64_t wire = -1);
std::string pcap_file(const std::vector<std::string> &records, uint32_t link = 1);

// Frames with right lengths and checksums, but for the header fields that a test spoils.
std::string ethernet(unsigned type, const std::string &payload);
struct ipv4_fields {
    unsigned protocol = 17;
    unsigned version = 4;
    std::string options = "";
    unsigned fragment = 0;  // the flags and offset word
    unsigned id = 7;
    int total = -1;  // the total length, -1 for the right one
    bool bad_checksum = false;
};
std::string ipv4(const std::string &payload, const ipv4_fields &fields = {});
std::string udp(const std::string &payload, int length = -1);
struct tcp_fields {
    unsigned source = 4000, destination = 80, flags = 16;
    uint32_t sequence = 0, acknowledged = 0;
};
std::string tcp(const std::string &payload, const tcp_fields &fields);

#endif
