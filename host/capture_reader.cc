// SPDX-License-Identifier: MIT
#include "host/capture_reader.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

// The library tells how a file ended in its message only. The first entry that a message starts with holds;
// what stands in no entry is about a record or a block that cannot be.
constexpr struct {
    std::string_view start;
    capture_status status;
} kMessages[] = {
    // No magic fits into fewer than four bytes.
    {"truncated dump file; tried to read 4 file header bytes", capture_status::kNotACapture},
    {"unknown file format", capture_status::kNotACapture},
    {"truncated", capture_status::kCut},
    {"error reading", capture_status::kUnreadable},
    // Sound files that the library can't handle: interfaces that differ, no interface at all, versions of
    // old.
    {"an interface has a", capture_status::kUnreadable},
    {"the file has sections with different byte orders", capture_status::kUnreadable},
    {"the capture file has no Interface Description Blocks", capture_status::kUnreadable},
    {"archaic", capture_status::kUnreadable},
    {"unsupported", capture_status::kUnreadable},
};

capture_status status_of(std::string_view message) {
    for (const auto &[start, status] : kMessages) {
        if (message.substr(0, start.size()) == start) return status;
    }
    return capture_status::kDamaged;
}

bool fail(capture_reader *reader, capture_status status, const char *message) {
    reader->status = status;
    reader->error = message;
    return false;
}

}  // namespace

const char *capture_status_name(capture_status status) {
    switch (status) {
        case capture_status::kOk:
            return "ok";
        case capture_status::kCut:
            return "cut";
        case capture_status::kDamaged:
            return "damaged";
        case capture_status::kNotACapture:
            return "not_a_capture";
        case capture_status::kUnreadable:
            return "unreadable";
        case capture_status::kStopped:
            return "stopped";
    }
    return "";
}

bool open_capture(capture_reader *reader, const char *path) {
    *reader = {};
    FILE *file = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
    if (file == nullptr) return fail(reader, capture_status::kUnreadable, strerror(errno));
    struct stat info;
    if (fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode))
        reader->size = static_cast<uint64_t>(info.st_size);

    char message[PCAP_ERRBUF_SIZE] = "";
    reader->pcap = pcap_fopen_offline(file, message);
    if (reader->pcap == nullptr) {
        fail(reader, status_of(message), message);
        if (file != stdin) fclose(file);
        return false;
    }
    int link = pcap_datalink(reader->pcap);
    const char *name = pcap_datalink_val_to_name(link);
    reader->link_name = name != nullptr ? name : std::to_string(link);
    return true;
}

bool read_frame(capture_reader *reader, captured_frame *frame) {
    pcap_pkthdr *header;
    const u_char *bytes;
    int result = pcap_next_ex(reader->pcap, &header, &bytes);
    if (result == PCAP_ERROR_BREAK) return false;  // the end of the file
    if (result != 1) {
        const char *message = pcap_geterr(reader->pcap);
        return fail(reader, status_of(message), message);
    }
    frame->bytes = bytes;
    frame->captured = header->caplen;
    frame->on_wire = header->len;
    frame->ethernet = pcap_datalink(reader->pcap) == DLT_EN10MB;
    return true;
}

double capture_progress(const capture_reader *reader) {
    if (reader->size == 0) return -1;
    long position = ftell(pcap_file(reader->pcap));
    return position < 0 ? -1 : static_cast<double>(position) / static_cast<double>(reader->size);
}

void close_capture(capture_reader *reader) {
    if (reader->pcap != nullptr) pcap_close(reader->pcap);
    reader->pcap = nullptr;
}
