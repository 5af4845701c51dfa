// SPDX-License-Identifier: MIT
//
// What a replay tells about each file: a table for people, a row of tab-separated values, or a JSON object.

#ifndef ZARN_HOST_REPORT_H
#define ZARN_HOST_REPORT_H

#include <array>
#include <cstdint>
#include <string>

#include "host/capture_reader.h"
#include "host/heap_meter.h"
#include "host/protocol_stack.h"

struct file_result {
    std::string path;
    capture_status status = capture_status::kOk;
    std::string error;          // a line for people, empty when all is well
    uint64_t frames = 0;        // records read
    uint64_t not_ethernet = 0;  // of these, from an interface of another link type
    uint64_t captured_bytes = 0;
    uint64_t wire_bytes = 0;
    uint64_t cut_short = 0;  // frames of which less was captured than was on the wire
    double seconds = 0;      // from the first frame read to the last one done
    protocol_counts protocols = {};
    std::array<pool_state, kPools> pools = {};  // when the file was done
};

enum class report_format { kTable, kTsv, kJson };

// What stands in front of the first file and behind the last one; nothing in some formats.
void print_report_start(report_format format);
void print_report_end(report_format format, const std::array<pool_state, kPools> &pools);

void print_file_result(report_format format, const file_result &result);

#endif
