// SPDX-License-Identifier: MIT
#include "host/capture_reader.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "host/pcapng_reader.h"

namespace {

// The library tells how a file ended in its message only. The first entry that a message starts with holds;
// what stands in no entry is about a record that cannot be.
constexpr struct {
    std::string_view start;
    capture_status status;
} kMessages[] = {
    // No magic fits into fewer than four bytes.
    {"truncated dump file; tried to read 4 file header bytes", capture_status::kNotACapture},
    {"unknown file format", capture_status::kNotACapture},
    {"truncated", capture_status::kCut},
    {"error reading", capture_status::kUnreadable},
    // Versions that the library doesn't know, or no longer.
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

constexpr size_t kFileBuffer = 64 * 1024;

// The file as the library reads it: the head that was read already, and what follows in the file. Hands out
// neither more nor less than is asked for, so that frames of a pipe don't wait for those behind them.
ssize_t read_for_library(void *cookie, char *bytes, size_t count) {
    capture_reader *reader = static_cast<capture_reader *>(cookie);
    size_t got = std::min(count, reader->head_size - reader->head_given);
    memcpy(bytes, reader->head + reader->head_given, got);
    reader->head_given += got;
    got += fread(bytes + got, 1, count - got, reader->file);
    return ferror(reader->file) ? -1 : static_cast<ssize_t>(got);
}

bool open_classic(capture_reader *reader) {
    // The library cuts frames to the snap length in the head, bytes 16 to 19. The record tells what was
    // recorded, so give none.
    memset(reader->head + 16, 0, 4);
    FILE *stream = fopencookie(reader, "rb", {read_for_library, nullptr, nullptr, nullptr});
    if (stream == nullptr) return fail(reader, capture_status::kUnreadable, strerror(errno));
    // Of a pipe no more is asked for than the library wants.
    const size_t buffer = reader->size != 0 ? kFileBuffer : 0;
    setvbuf(stream, nullptr, buffer != 0 ? _IOFBF : _IONBF, buffer);
    char message[PCAP_ERRBUF_SIZE] = "";
    reader->pcap = pcap_fopen_offline(stream, message);
    if (reader->pcap != nullptr) return true;
    fclose(stream);
    return fail(reader, status_of(message), message);
}

bool read_classic_frame(capture_reader *reader, captured_frame *frame, uint32_t *link) {
    pcap_pkthdr *header;
    const u_char *bytes;
    int result = pcap_next_ex(reader->pcap, &header, &bytes);
    if (result == PCAP_ERROR_BREAK) return false;  // the end of the file
    if (result != 1) {
        const char *message = pcap_geterr(reader->pcap);
        return fail(reader, status_of(message), message);
    }
    // The library lets frames of some link types be longer.
    if (header->caplen > kMostCaptured)
        return fail(reader, capture_status::kDamaged, "the captured length is more than frames can have");
    frame->bytes = bytes;
    frame->captured = header->caplen;
    frame->on_wire = header->len;
    *link = static_cast<uint32_t>(pcap_datalink(reader->pcap));
    return true;
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
    reader->file = strcmp(path, "-") == 0 ? stdin : fopen(path, "rb");
    if (reader->file == nullptr) return fail(reader, capture_status::kUnreadable, strerror(errno));
    struct stat info;
    if (fstat(fileno(reader->file), &info) == 0 && S_ISREG(info.st_mode))
        reader->size = static_cast<uint64_t>(info.st_size);

    uint32_t magic = 0;
    reader->head_size = fread(reader->head, 1, sizeof(magic), reader->file);
    if (reader->head_size == sizeof(magic)) {
        memcpy(&magic, reader->head, sizeof(magic));
        if (magic == kPcapngSection) {
            reader->pcapng = new pcapng_reader;
            return start_pcapng(reader->pcapng, reader->file) ||
                   fail(reader, reader->pcapng->status, reader->pcapng->error.c_str());
        }
        reader->head_size +=
            fread(reader->head + sizeof(magic), 1, sizeof(reader->head) - sizeof(magic), reader->file);
    }
    if (ferror(reader->file)) return fail(reader, capture_status::kUnreadable, strerror(errno));
    return open_classic(reader);
}

bool read_frame(capture_reader *reader, captured_frame *frame) {
    uint32_t link;
    if (reader->pcapng == nullptr) {
        if (!read_classic_frame(reader, frame, &link)) return false;
    } else if (!read_pcapng_frame(reader->pcapng, frame, &link)) {
        return fail(reader, reader->pcapng->status, reader->pcapng->error.c_str());
    }
    // Ethernet and most others have one number in files and in the library.
    frame->ethernet = link == DLT_EN10MB;
    if (!frame->ethernet) {
        const char *name = pcap_datalink_val_to_name(static_cast<int>(link));
        reader->link_name = name != nullptr ? name : std::to_string(link);
    }
    return true;
}

double capture_progress(const capture_reader *reader) {
    if (reader->size == 0) return -1;
    long position = ftell(reader->file);
    return position < 0 ? -1 : static_cast<double>(position) / static_cast<double>(reader->size);
}

void close_capture(capture_reader *reader) {
    if (reader->pcap != nullptr) pcap_close(reader->pcap);
    delete reader->pcapng;
    if (reader->file != nullptr && reader->file != stdin) fclose(reader->file);
    reader->pcap = nullptr;
    reader->pcapng = nullptr;
    reader->file = nullptr;
}
