// SPDX-License-Identifier: MIT
#include "tests/host/program.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

struct scratch {
    std::string path;
    scratch() {
        char name[] = "/tmp/zarn_host_XXXXXX";
        path = mkdtemp(name);
    }
    ~scratch() { std::filesystem::remove_all(path); }
};

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::istringstream all(text);
    for (std::string part; std::getline(all, part, separator);)
        parts.push_back(part);
    return parts;
}

}  // namespace

const std::string &scratch_directory() {
    static scratch directory;
    return directory.path;
}

std::string read_file(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

pid_t start_program(const std::vector<std::string> &arguments) {
    std::string out = scratch_directory() + "/out", err = scratch_directory() + "/err";
    fflush(nullptr);
    pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is cut off leaves nobody behind
    if (freopen(out.c_str(), "w", stdout) == nullptr || freopen(err.c_str(), "w", stderr) == nullptr)
        _exit(126);
    std::string program = ZARN_BUILD_DIR "/zarn";
    std::vector<char *> argv{program.data()};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
}

program_result finish_program(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    program_result result = {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                             read_file(scratch_directory() + "/out"),
                             read_file(scratch_directory() + "/err")};
    // Sanitizers may end the program with a status that it has itself.
    for (const char *report : {"Sanitizer", "runtime error"}) {
        if (result.err.find(report) != std::string::npos) ADD_FAILURE() << result.err;
    }
    return result;
}

program_result run_program(const std::vector<std::string> &arguments) {
    return finish_program(start_program(arguments));
}

std::map<std::string, table_row> parse_table(const std::string &text) {
    std::map<std::string, table_row> table;
    std::vector<std::string> names;
    for (const std::string &line : split(text, '\n')) {
        if (line.empty() || line.rfind("total ", 0) == 0) continue;
        std::vector<std::string> cells = split(line, '\t');
        if (names.empty()) {
            names = cells;
            continue;
        }
        table_row &row = table[cells[0]];
        for (size_t i = 1; i < names.size(); i++)
            row[names[i]] = i < cells.size() ? cells[i] : "missing";
    }
    return table;
}

std::string big16(unsigned value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string little32(uint32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; i++)
        bytes += static_cast<char>(value >> 8 * i);
    return bytes;
}

// The checksum of RFC 1071, as the two bytes that go into the header; written for this side only.
static std::string internet_checksum(const std::string &bytes) {
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i++)
        sum += static_cast<uint8_t>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return big16(~sum);
}

std::string pcap_record(const std::string &frame, int64_t wire) {
    uint32_t captured = static_cast<uint32_t>(frame.size());
    return little32(0) + little32(0) + little32(captured) +
           little32(wire < 0 ? captured : static_cast<uint32_t>(wire)) + frame;
}

std::string pcap_file(const std::vector<std::string> &records, uint32_t link) {
    std::string file = little32(0xa1b2c3d4) + little32(0x00040002) + little32(0) + little32(0) +
                       little32(262144) + little32(link);
    for (const std::string &record : records)
        file += record;
    return file;
}

std::string ethernet(unsigned type, const std::string &payload) {
    return std::string("\x02zarn\x01\x02zarn\x02") + big16(type) + payload;
}

static const std::string kAddresses = "\x0a\x0b\x0c\x0d\x0a\x0b\x0c\x0e";

std::string ipv4(const std::string &payload, const ipv4_fields &fields) {
    const size_t length = 20 + fields.options.size();
    const size_t total = fields.total < 0 ? length + payload.size() : static_cast<size_t>(fields.total);
    const std::string first = {static_cast<char>(fields.version << 4 | length / 4), '\0'};
    const std::string start = first + big16(static_cast<unsigned>(total)) + big16(fields.id) +
                              big16(fields.fragment) + "\x40" + static_cast<char>(fields.protocol);
    const std::string end = kAddresses + fields.options;
    std::string checksum = internet_checksum(start + end);
    if (fields.bad_checksum) checksum[1] ^= 1;
    return start + checksum + end + payload;
}

std::string udp(const std::string &payload, int length) {
    const size_t size = length < 0 ? 8 + payload.size() : static_cast<size_t>(length);
    const std::string head = big16(5000) + big16(53) + big16(static_cast<unsigned>(size));
    const std::string covered = (head + big16(0) + payload).substr(0, size);
    return head + internet_checksum(kAddresses + big16(17) + head.substr(4) + covered) + payload;
}

std::string tcp(const std::string &payload, const tcp_fields &fields) {
    const auto big32 = [](uint32_t value) { return big16(value >> 16) + big16(value); };
    const std::string head = big16(fields.source) + big16(fields.destination) + big32(fields.sequence) +
                             big32(fields.acknowledged) + "\x50" + static_cast<char>(fields.flags) +
                             big16(65535);
    const std::string size = big16(static_cast<unsigned>(20 + payload.size()));
    return head + internet_checksum(kAddresses + big16(6) + size + head + big16(0) + big16(0) + payload) +
           big16(0) + payload;
}
