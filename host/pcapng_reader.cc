// SPDX-License-Identifier: MIT
#include "host/pcapng_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

enum block_type : uint32_t {
    kInterface = 1,
    kObsoletePacket = 2,
    kSimplePacket = 3,
    kEnhancedPacket = 6,
};

constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;
constexpr uint32_t kFrameOfBlock = 12;          // the type, and the length before and behind the body
constexpr uint32_t kLongestBlock = 128U << 20;  // what is longer was not meant as a length

// The body of a block starts with fields of a fixed size. What follows is a frame, options, or skipped.
constexpr uint32_t kMostFields = 20;
uint32_t size_of_fields(uint32_t type) {
    switch (type) {
        case kPcapngSection:
            return 16;
        case kInterface:
            return 8;
        case kObsoletePacket:
        case kEnhancedPacket:
            return 20;
        case kSimplePacket:
            return 4;
        default:
            return 0;
    }
}

bool fail(pcapng_reader *reader, capture_status status, const std::string &message) {
    reader->status = status;
    reader->error = message;
    return false;
}

bool fail_damaged(pcapng_reader *reader, const std::string &message) {
    return fail(reader, capture_status::kDamaged, message);
}

// After a read that got less than it should. The file must not be read again: an interrupted pipe would wait.
bool fail_read(pcapng_reader *reader) {
    if (ferror(reader->file)) return fail(reader, capture_status::kUnreadable, strerror(errno));
    return fail(reader, capture_status::kCut, "the file ends inside a block");
}

bool read_bytes(pcapng_reader *reader, void *bytes, size_t count) {
    return fread(bytes, 1, count, reader->file) == count || fail_read(reader);
}

bool skip_bytes(pcapng_reader *reader, uint32_t count) {
    uint8_t skipped[4096];
    while (count != 0) {
        uint32_t part = std::min<uint32_t>(count, sizeof(skipped));
        if (!read_bytes(reader, skipped, part)) return false;
        count -= part;
    }
    return true;
}

uint16_t get16(const pcapng_reader *reader, const uint8_t *bytes) {
    uint16_t value;
    memcpy(&value, bytes, sizeof(value));
    return reader->swapped ? __builtin_bswap16(value) : value;
}

uint32_t get32(const pcapng_reader *reader, const uint8_t *bytes) {
    uint32_t value;
    memcpy(&value, bytes, sizeof(value));
    return reader->swapped ? __builtin_bswap32(value) : value;
}

// A section starts anew with its byte order and its interfaces. `magic` is the one word that tells the order,
// and is needed to read the length before it.
bool start_section(pcapng_reader *reader, const uint8_t *magic) {
    reader->interfaces.clear();
    for (bool swapped : {false, true}) {
        reader->swapped = swapped;
        if (get32(reader, magic) == kByteOrderMagic) return reader->in_section = true;
    }
    return fail_damaged(reader, "a section's byte order is unknown");
}

// Takes in the fields of a block that holds no frame.
bool note_fields(pcapng_reader *reader, uint32_t type, const uint8_t *fields) {
    if (type == kInterface) {
        reader->interfaces.push_back({get16(reader, fields), get32(reader, fields + 4)});
    } else if (type == kPcapngSection) {
        uint16_t major = get16(reader, fields + 4), minor = get16(reader, fields + 6);
        // 1.2 is the same as 1.0; some programs write it.
        if (major != 1 || (minor != 0 && minor != 2)) {
            return fail(reader, capture_status::kUnreadable,
                        "version " + std::to_string(major) + "." + std::to_string(minor) +
                            " of pcapng is not supported");
        }
    }
    return true;
}

// Reads the frame behind the fields of a packet block; `rest` bytes of its body are left, and fewer then.
bool read_packet(pcapng_reader *reader, uint32_t type, const uint8_t *fields, uint32_t *rest,
                 captured_frame *frame, uint32_t *link) {
    uint32_t interface = 0;
    if (type == kObsoletePacket) interface = get16(reader, fields);
    if (type == kEnhancedPacket) interface = get32(reader, fields);
    if (interface >= reader->interfaces.size()) {
        return fail_damaged(reader, "the packet's interface " + std::to_string(interface) +
                                        " is not among the section's " +
                                        std::to_string(reader->interfaces.size()));
    }
    const pcapng_interface &from = reader->interfaces[interface];
    *link = from.link;
    if (type == kSimplePacket) {
        frame->on_wire = get32(reader, fields);
        frame->captured = frame->on_wire;
        if (from.snap_length != 0) frame->captured = std::min(frame->captured, from.snap_length);
    } else {
        frame->captured = get32(reader, fields + 12);
        frame->on_wire = get32(reader, fields + 16);
    }
    if (frame->captured > kMostCaptured || frame->captured > *rest) {
        return fail_damaged(reader, "the captured length " + std::to_string(frame->captured) +
                                        " is more than " +
                                        (frame->captured > *rest ? "the block holds" : "frames can have"));
    }
    *rest -= frame->captured;
    frame->bytes = reader->bytes.data();
    return read_bytes(reader, reader->bytes.data(), frame->captured);
}

// Reads a block from behind its type. `*is_frame` tells whether it held a frame.
bool read_block(pcapng_reader *reader, uint32_t type, captured_frame *frame, uint32_t *link, bool *is_frame) {
    uint8_t head[4], tail[4], fields[kMostFields];
    if (!read_bytes(reader, head, sizeof(head))) return false;
    uint32_t known = 0;  // bytes of `fields`
    if (type == kPcapngSection) {
        known = 4;
        if (!read_bytes(reader, fields, known) || !start_section(reader, fields)) return false;
    }
    uint32_t length = get32(reader, head), size = size_of_fields(type);
    if (length % 4 != 0 || length < kFrameOfBlock + size || length > kLongestBlock) {
        return fail_damaged(reader, "a block of type " + std::to_string(type) + " can't be " +
                                        std::to_string(length) + " bytes long");
    }
    if (!read_bytes(reader, fields + known, size - known)) return false;
    uint32_t rest = length - kFrameOfBlock - size;
    *is_frame = type == kObsoletePacket || type == kSimplePacket || type == kEnhancedPacket;
    bool sound =
        *is_frame ? read_packet(reader, type, fields, &rest, frame, link) : note_fields(reader, type, fields);
    if (!sound || !skip_bytes(reader, rest) || !read_bytes(reader, tail, sizeof(tail))) return false;
    if (memcmp(head, tail, sizeof(tail)) == 0) return true;
    return fail_damaged(reader, "the lengths of a block disagree: " + std::to_string(length) + " and " +
                                    std::to_string(get32(reader, tail)));
}

}  // namespace

bool start_pcapng(pcapng_reader *reader, FILE *file) {
    reader->file = file;
    reader->bytes.resize(kMostCaptured);
    captured_frame frame;
    uint32_t link;
    bool is_frame;
    if (read_block(reader, kPcapngSection, &frame, &link, &is_frame)) return true;
    // Without a byte order the four bytes before were no more than half of a magic.
    if (!reader->in_section && reader->status != capture_status::kUnreadable)
        return fail(reader, capture_status::kNotACapture, "unknown file format");
    return false;
}

bool read_pcapng_frame(pcapng_reader *reader, captured_frame *frame, uint32_t *link) {
    for (bool is_frame = false; !is_frame;) {
        uint8_t type[4];
        size_t got = fread(type, 1, sizeof(type), reader->file);
        if (got == 0 && !ferror(reader->file)) return false;  // the end of the file
        if (got < sizeof(type)) return fail_read(reader);
        if (!read_block(reader, get32(reader, type), frame, link, &is_frame)) return false;
    }
    return true;
}
