// SPDX-License-Identifier: MIT
//
// What a replay tells about each file: a table for people, a row of tab-separated values, or a JSON object.

#ifndef ZARN_HOST_REPORT_H
#define ZARN_HOST_REPORT_H

#include <array>
#include <cstdint>
#include <string>

#include "host/capture_reader.h"
#include "host/connections.h"
#include "host/dma_check.h"
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
    uint64_t dropped = 0;    // frames that the receiving side let go because there was no room
    uint64_t cut_short = 0;  // frames of which less was captured than was on the wire
    double seconds = 0;      // from the first frame read to the last one done
    dma_counts dma;
    protocol_counts protocols = {};
    connection_totals connections = {};
    // When the file was done:
    std::array<pool_state, kPools> pools = {};
    uint64_t heap_bytes = 0;  // of the whole program
};

enum class report_format { kTable, kTsv, kJson };

struct report_style {
    report_format format = report_format::kTable;
    bool drops = false;  // frames may be dropped, and the report tells how many were
    bool dma = false;    // buffers were mapped for hardware, and the report tells how many
};

// What stands in front of the first file and behind the last one; nothing in some formats.
void print_report_start(const report_style &style);
void print_report_end(const report_style &style, const std::array<pool_state, kPools> &pools);

void print_file_result(const report_style &style, const file_result &result);

// A table for people of what the protocols have received and sent on a device.
void print_host_counts(const protocol_counts &counts);

#endif
