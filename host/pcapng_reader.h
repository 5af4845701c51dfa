// SPDX-License-Identifier: MIT
//
// Reads the frames of a pcapng file (draft-ietf-opsawg-pcapng): sections of either byte order, each with as
// many interfaces as it describes, whatever their link types and snap lengths. Options and blocks that hold
// no frame are skipped.
//
// - The file is the caller's, is read from front to end only, and may be a pipe.
// - No length in the file makes the reader take more memory than the longest frame needs; a described
//   interface takes less than its block.
// - One thread at a time.

#ifndef ZARN_HOST_PCAPNG_READER_H
#define ZARN_HOST_PCAPNG_READER_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "host/capture_reader.h"

// The type of the block that starts a section, and so the file's first four bytes in either byte order.
constexpr uint32_t kPcapngSection = 0x0a0d0d0a;

struct pcapng_interface {
    uint32_t link;         // the LINKTYPE_ value
    uint32_t snap_length;  // bytes, 0 for no limit
};

struct pcapng_reader {
    FILE *file = nullptr;
    bool in_section = false;                   // some section's byte order was read
    bool swapped = false;                      // the section is of the other byte order
    std::vector<pcapng_interface> interfaces;  // of the section
    std::vector<uint8_t> bytes;                // of the last frame
    capture_status status = capture_status::kOk;
    std::string error;  // one line for people once `status` is not kOk
};

// Starts to read the file, whose first four bytes have been read already and are kPcapngSection. False sets
// `status` and `error`.
bool start_pcapng(pcapng_reader *reader, FILE *file);

// Reads the next frame, and the link type of its interface; `frame->ethernet` is left to the caller. The
// bytes are the reader's until the next call. False at the end of what can be read; `status` tells which end
// it is.
bool read_pcapng_frame(pcapng_reader *reader, captured_frame *frame, uint32_t *link);

#endif
