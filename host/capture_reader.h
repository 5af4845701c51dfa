// SPDX-License-Identifier: MIT
//
// Reads the frames of a capture file, and tells how the file ended.
//
// - A frame's bytes belong to the reader until the next call. One thread at a time.
// - Files are pcap of either byte order with micro- or nanoseconds, and pcapng.
// - Frames come whole as they were recorded, also when they are longer than the file's snap length.

#ifndef ZARN_HOST_CAPTURE_READER_H
#define ZARN_HOST_CAPTURE_READER_H

#include <cstdint>
#include <cstdio>
#include <string>

enum class capture_status {
    kOk,
    kCut,          // ends inside a record or a header
    kDamaged,      // holds a record or a block that cannot be
    kNotACapture,  // starts with no magic that is known
    kUnreadable,   // can't be opened or read
    kStopped,      // sound as far as it was read; the reading was ended
};

// "ok", "cut", ...
const char *capture_status_name(capture_status status);

// Bytes that a frame can have been captured with; a longer one is taken for damage.
constexpr uint32_t kMostCaptured = 262144;

struct captured_frame {
    const uint8_t *bytes;
    uint32_t captured;  // bytes at `bytes`
    uint32_t on_wire;   // what the frame had
    bool ethernet;      // recorded on an interface whose link type is Ethernet
};

// Stays where it is while it is open.
struct capture_reader {
    FILE *file = nullptr;
    struct pcap *pcap = nullptr;             // reads the classic format
    struct pcapng_reader *pcapng = nullptr;  // or this one the other
    // The head of a classic file, which was read to tell the format, and how much of it the library has got.
    uint8_t head[24] = {};
    size_t head_size = 0, head_given = 0;
    capture_status status = capture_status::kOk;  // other than kOk once something was wrong
    std::string error;                            // then one line for people, without the file's name
    std::string link_name;                        // the last link type but Ethernet, for people
    uint64_t size = 0;                            // bytes of the file, 0 when not known
};

// Opens the file; "-" is the standard input. False sets `status` and `error`.
bool open_capture(capture_reader *reader, const char *path);

// Reads the next frame. False at the end of what can be read; `status` tells which end it is.
bool read_frame(capture_reader *reader, captured_frame *frame);

// How much of the file was read, from 0 to 1; below 0 when that is not known.
double capture_progress(const capture_reader *reader);

// Closes whatever is open. `status` and `error` stay.
void close_capture(capture_reader *reader);

#endif
