// SPDX-License-Identifier: MIT
#include "host/report.h"

#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace {

using number = uint64_t (*)(const file_result &result);

template <auto member>
uint64_t of_file(const file_result &result) {
    return result.*member;
}

template <protocol_index index, auto member>
uint64_t of_protocol(const file_result &result) {
    return result.protocols.known[index].*member;
}

template <auto member>
uint64_t of_transports(const file_result &result) {
    const auto &known = result.protocols.known;
    return known[kIcmp].*member + known[kTcp].*member + known[kUdp].*member;
}

struct column {
    const char *name;
    number value;
};

// Order and names are those of the tables that replays are compared with.
constexpr column kColumns[] = {
    {"frames", of_file<&file_result::frames>},
    {"not_ethernet", of_file<&file_result::not_ethernet>},
    {"cap_bytes", of_file<&file_result::captured_bytes>},
    {"wire_bytes", of_file<&file_result::wire_bytes>},
    {"short", of_file<&file_result::cut_short>},
    {"vlan", of_protocol<kEthernet, &sample_counts::tagged>},
    {"arp", of_protocol<kArp, &sample_counts::packets>},
    {"ipv4", of_protocol<kIpv4, &sample_counts::packets>},
    {"ipv6", of_protocol<kIpv6, &sample_counts::packets>},
    {"other", of_protocol<kEthernet, &sample_counts::unclaimed>},
    {"ip_good", of_protocol<kIpv4, &sample_counts::good>},
    {"ip_bad", of_protocol<kIpv4, &sample_counts::bad>},
    {"ip_unverified", of_protocol<kIpv4, &sample_counts::unverified>},
    {"fragments", of_protocol<kIpv4, &sample_counts::fragments>},
    {"icmp", of_protocol<kIcmp, &sample_counts::packets>},
    {"icmp_good", of_protocol<kIcmp, &sample_counts::good>},
    {"icmp_bad", of_protocol<kIcmp, &sample_counts::bad>},
    {"icmp_unverified", of_protocol<kIcmp, &sample_counts::unverified>},
    {"tcp", of_protocol<kTcp, &sample_counts::packets>},
    {"tcp_good", of_protocol<kTcp, &sample_counts::good>},
    {"tcp_bad", of_protocol<kTcp, &sample_counts::bad>},
    {"tcp_unverified", of_protocol<kTcp, &sample_counts::unverified>},
    {"udp", of_protocol<kUdp, &sample_counts::packets>},
    {"udp_good", of_protocol<kUdp, &sample_counts::good>},
    {"udp_bad", of_protocol<kUdp, &sample_counts::bad>},
    {"udp_absent", of_protocol<kUdp, &sample_counts::absent>},
    {"udp_unverified", of_protocol<kUdp, &sample_counts::unverified>},
    {"ip_other", of_protocol<kIpv4, &sample_counts::unclaimed>},
    {"whole", of_protocol<kIpv4, &sample_counts::whole>},
    {"whole_good", of_transports<&sample_counts::whole_good>},
    {"whole_bad", of_transports<&sample_counts::whole_bad>},
    {"whole_absent", of_transports<&sample_counts::whole_absent>},
};

// How much of a packet's checksum a protocol tells.
enum checksum_kind { kNoChecksum, kChecksum, kOptionalChecksum };
constexpr checksum_kind kChecksums[kProtocols] = {kNoChecksum, kNoChecksum, kChecksum,        kNoChecksum,
                                                  kChecksum,   kChecksum,   kOptionalChecksum};

double frames_per_second(const file_result &result) {
    return result.seconds > 0 ? static_cast<double>(result.frames) / result.seconds : 0;
}

void print_cell(uint64_t value, bool known) {
    if (known) {
        printf(" %10" PRIu64, value);
    } else {
        printf(" %10s", "-");
    }
}

void print_remainder(const char *what, uint64_t value) {
    if (value != 0) printf("  %s: %" PRIu64 "\n", what, value);
}

void print_protocol(const char *name, const sample_counts &counts, checksum_kind kind) {
    printf("  %-9s %10" PRIu64 " %12" PRIu64, name, counts.packets, counts.bytes);
    print_cell(counts.good, kind != kNoChecksum);
    print_cell(counts.bad, kind != kNoChecksum);
    print_cell(counts.absent, kind == kOptionalChecksum);
    print_cell(counts.unverified, kind != kNoChecksum);
    printf("\n");
}

std::string address_text(const uint8_t *address, uint16_t port) {
    char text[32];
    snprintf(text, sizeof(text), "%u.%u.%u.%u:%u", address[0], address[1], address[2], address[3], port);
    return text;
}

struct connection_sums {
    uint64_t open, client_bytes, server_bytes;
};

connection_sums sum_connections(const connection_totals &totals) {
    connection_sums sums = {};
    for (const auto &connection : totals.accepted) {
        sums.open += connection.open;
        sums.client_bytes += connection.facts.client_bytes;
        sums.server_bytes += connection.facts.server_bytes;
    }
    return sums;
}

void print_connections(const file_result &result) {
    constexpr size_t kMostRows = 10;
    const connection_totals &totals = result.connections;
    uint64_t refused = result.protocols.known[kTcp].refused;
    size_t left = totals.accepted.size();
    if (left != 0) printf("  %-43s %12s %12s\n", "connection", "bytes there", "bytes back");
    for (const auto &[facts, open] : totals.accepted) {
        if (totals.accepted.size() - left == kMostRows) break;
        printf("  %-21s %-21s %12" PRIu64 " %12" PRIu64 "%s\n",
               address_text(facts.client, facts.client_port).c_str(),
               address_text(facts.server, facts.server_port).c_str(), facts.client_bytes, facts.server_bytes,
               open ? "  not ended" : "");
        left--;
    }
    if (left != 0 && left != totals.accepted.size()) printf("  and %zu more\n", left);
    if (!totals.accepted.empty()) {
        connection_sums sums = sum_connections(totals);
        std::string name = std::to_string(totals.accepted.size()) + " in all";
        printf("  %-43s %12" PRIu64 " %12" PRIu64 "\n", name.c_str(), sums.client_bytes, sums.server_bytes);
    }
    print_remainder("connections refused, the backlog was full", refused);
    print_remainder("connections reset before they were made", totals.failed);
    print_remainder("connections half made", totals.half_open);
    if (totals.datagrams != 0)
        printf("  UDP datagrams received: %" PRIu64 ", %" PRIu64 " bytes\n", totals.datagrams,
               totals.datagram_bytes);
    print_remainder("UDP datagrams without room", result.protocols.known[kUdp].refused);
}

void print_table(const report_style &style, const file_result &result) {
    const auto &known = result.protocols.known;
    printf("%s: %s\n", result.path.c_str(), capture_status_name(result.status));
    printf("  %-9s %10s %12s %10s %10s %10s %10s\n", "protocol", "frames", "bytes", "good", "bad", "absent",
           "unverified");
    for (size_t i = 0; i < kProtocols; i++)
        print_protocol(protocol_name(static_cast<int>(i)), known[i], kChecksums[i]);
    for (const named_counts &other : result.protocols.others)
        print_protocol(other.name.c_str(), other.counts, kOptionalChecksum);
    print_remainder("with a VLAN tag", known[kEthernet].tagged);
    print_remainder("other EtherTypes", known[kEthernet].unclaimed);
    print_remainder("IPv4 fragments", known[kIpv4].fragments);
    print_remainder("IPv4 datagrams put together from fragments", known[kIpv4].whole);
    print_remainder("of these, with a bad checksum", of_transports<&sample_counts::whole_bad>(result));
    print_remainder("IPv4 datagrams with fragments missing", known[kIpv4].incomplete);
    print_remainder("other IPv4 protocols", known[kIpv4].unclaimed);
    print_remainder("cut short by the capture", result.cut_short);
    print_remainder("not Ethernet", result.not_ethernet);
    print_connections(result);
    if (style.drops) printf("  dropped: %" PRIu64 "\n", result.dropped);
    if (style.dma)
        printf("  mapped for hardware: %" PRIu64 " buffers in %" PRIu64 " physical runs, %" PRIu64
               " faults\n",
               result.dma.buffers, result.dma.runs, result.dma.faults);
    printf("  %" PRIu64 " frames, %" PRIu64 " bytes captured of %" PRIu64 " in %.3f ms: %.0f frames/s\n\n",
           result.frames, result.captured_bytes, result.wire_bytes, result.seconds * 1e3,
           frames_per_second(result));
}

void print_host_protocol(const char *name, const sample_counts &counts, checksum_kind kind) {
    printf("  %-9s %10" PRIu64 " %14" PRIu64, name, counts.packets, counts.bytes);
    print_cell(counts.good, kind != kNoChecksum);
    print_cell(counts.bad, kind != kNoChecksum);
    printf(" %10" PRIu64 " %10" PRIu64 " %14" PRIu64 " %10" PRIu64 "\n", counts.foreign, counts.sent,
           counts.sent_bytes, counts.undelivered);
}

// The name alone: rows are compared with those of other machines.
std::string file_name(const std::string &path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string escape_for_tsv(const std::string &text) {
    std::string escaped;
    for (char c : text) {
        switch (c) {
            case '\t':
                escaped += "\\t";
                break;
            case '\n':
                escaped += "\\n";
                break;
            case '\r':
                escaped += "\\r";
                break;
            case '\\':
                escaped += "\\\\";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

void print_tsv(const report_style &style, const file_result &result) {
    printf("%s\t%s", escape_for_tsv(file_name(result.path)).c_str(), capture_status_name(result.status));
    for (const column &column : kColumns)
        printf("\t%" PRIu64, column.value(result));
    if (style.drops) printf("\t%" PRIu64, result.dropped);
    if (style.dma)
        printf("\t%" PRIu64 "\t%" PRIu64 "\t%" PRIu64, result.dma.buffers, result.dma.runs,
               result.dma.faults);
    printf("\n");
}

// Bytes of the UTF-8 character that `text` starts with, 0 when it starts with none.
size_t utf8_length(std::string_view text) {
    auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0u; };
    size_t length = byte(0) < 0x80 ? 1 : byte(0) < 0xc2 ? 0 : byte(0) < 0xe0 ? 2 : byte(0) < 0xf0 ? 3 : 4;
    if (byte(0) > 0xf4) return 0;
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    if (byte(0) == 0xe0 && byte(1) < 0xa0) return 0;  // longer than need be
    if (byte(0) == 0xed && byte(1) > 0x9f) return 0;  // a surrogate
    if (byte(0) == 0xf0 && byte(1) < 0x90) return 0;
    if (byte(0) == 0xf4 && byte(1) > 0x8f) return 0;
    return length;
}

// A JSON string. A path is any bytes: what is no UTF-8 becomes the replacement character.
std::string quote_for_json(std::string_view text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        size_t length = utf8_length(text);
        unsigned first = static_cast<uint8_t>(text[0]);
        if (length == 0) {
            quoted += "\\ufffd";
        } else if (first == '"' || first == '\\') {
            quoted += {'\\', text[0]};
        } else if (first < 0x20 || first == 0x7f) {
            char code[8];
            snprintf(code, sizeof(code), "\\u%04x", first);
            quoted += code;
        } else {
            quoted += text.substr(0, length);
        }
        text.remove_prefix(length != 0 ? length : 1);
    }
    return quoted + '"';
}

void print_json_protocol(const char *separator, const std::string &name, const sample_counts &counts,
                         checksum_kind kind) {
    printf("%s%s: {\"frames\": %" PRIu64 ", \"bytes\": %" PRIu64, separator, quote_for_json(name).c_str(),
           counts.packets, counts.bytes);
    if (kind != kNoChecksum) {
        printf(", \"good\": %" PRIu64 ", \"bad\": %" PRIu64, counts.good, counts.bad);
        if (kind == kOptionalChecksum) printf(", \"absent\": %" PRIu64, counts.absent);
        printf(", \"unverified\": %" PRIu64, counts.unverified);
    }
    printf("}");
}

void print_json_connections(const file_result &result) {
    const connection_totals &totals = result.connections;
    const connection_sums sums = sum_connections(totals);
    printf("\"connections\": {\"accepted\": %zu, \"not_ended\": %" PRIu64 ", \"client_bytes\": %" PRIu64
           ", \"server_bytes\": %" PRIu64 ", \"refused\": %" PRIu64 ", \"failed\": %" PRIu64
           ", \"half_made\": %" PRIu64 ", \"list\": [",
           totals.accepted.size(), sums.open, sums.client_bytes, sums.server_bytes,
           result.protocols.known[kTcp].refused, totals.failed, totals.half_open);
    const char *separator = "";
    for (const auto &[facts, open] : totals.accepted) {
        printf("%s{\"client\": \"%s\", \"server\": \"%s\", \"client_bytes\": %" PRIu64
               ", \"server_bytes\": %" PRIu64 ", \"ended\": %s}",
               separator, address_text(facts.client, facts.client_port).c_str(),
               address_text(facts.server, facts.server_port).c_str(), facts.client_bytes, facts.server_bytes,
               open ? "false" : "true");
        separator = ", ";
    }
    printf("]}, \"datagrams\": {\"received\": %" PRIu64 ", \"bytes\": %" PRIu64 "}", totals.datagrams,
           totals.datagram_bytes);
}

void print_json(const report_style &style, const file_result &result) {
    printf("{\"file\": %s, \"status\": \"%s\"", quote_for_json(result.path).c_str(),
           capture_status_name(result.status));
    if (!result.error.empty()) printf(", \"error\": %s", quote_for_json(result.error).c_str());
    for (const column &column : kColumns)
        printf(", \"%s\": %" PRIu64, column.name, column.value(result));
    if (style.drops) printf(", \"dropped\": %" PRIu64, result.dropped);
    if (style.dma)
        printf(", \"dma\": {\"buffers\": %" PRIu64 ", \"runs\": %" PRIu64 ", \"faults\": %" PRIu64 "}",
               result.dma.buffers, result.dma.runs, result.dma.faults);
    printf(", \"seconds\": %.6f, \"frames_per_second\": %.0f", result.seconds, frames_per_second(result));
    printf(", \"protocols\": {");
    for (size_t i = 0; i < kProtocols; i++)
        print_json_protocol(i != 0 ? ", " : "", protocol_name(static_cast<int>(i)), result.protocols.known[i],
                            kChecksums[i]);
    for (const named_counts &other : result.protocols.others)
        print_json_protocol(", ", other.name, other.counts, kOptionalChecksum);
    printf("}, ");
    print_json_connections(result);
    printf(", \"heap_bytes\": %" PRIu64 ", \"pools\": {", result.heap_bytes);
    for (int i = 0; i < kPools; i++) {
        const pool_state &pool = result.pools[i];
        printf("%s\"%s\": {\"block_size\": %" PRIu32 ", \"blocks\": %" PRIu32 ", \"out\": %" PRIu32
               ", \"fall_backs\": %" PRIu64 "}",
               i != 0 ? ", " : "", pool.name, pool.block_size, pool.blocks, pool.out, pool.fall_backs);
    }
    printf("}}\n");
}

}  // namespace

void print_report_start(const report_style &style) {
    if (style.format != report_format::kTsv) return;
    printf("file\tstatus");
    for (const column &column : kColumns)
        printf("\t%s", column.name);
    if (style.drops) printf("\tdropped");
    if (style.dma) printf("\tdma_buffers\tdma_runs\tdma_faults");
    printf("\n");
}

void print_file_result(const report_style &style, const file_result &result) {
    switch (style.format) {
        case report_format::kTable:
            print_table(style, result);
            break;
        case report_format::kTsv:
            print_tsv(style, result);
            break;
        case report_format::kJson:
            print_json(style, result);
            break;
    }
    fflush(stdout);
}

void print_report_end(const report_style &style, const std::array<pool_state, kPools> &pools) {
    if (style.format != report_format::kTable) return;
    printf("%-8s %10s %10s %10s %14s\n", "pool", "block size", "blocks", "still out", "heap instead");
    for (const pool_state &pool : pools) {
        printf("%-8s %10" PRIu32 " %10" PRIu32 " %10" PRIu32 " %14" PRIu64 "\n", pool.name, pool.block_size,
               pool.blocks, pool.out, pool.fall_backs);
    }
}

void print_host_counts(const protocol_counts &counts) {
    const auto &known = counts.known;
    printf("  %-9s %10s %14s %10s %10s %10s %10s %14s %10s\n", "protocol", "received", "bytes", "good", "bad",
           "foreign", "sent", "bytes", "lost");
    for (size_t i = 0; i < kProtocols; i++)
        print_host_protocol(protocol_name(static_cast<int>(i)), known[i], kChecksums[i]);
    for (const named_counts &other : counts.others)
        print_host_protocol(other.name.c_str(), other.counts, kOptionalChecksum);
    print_remainder("for EtherTypes that nobody receives", known[kEthernet].unclaimed);
    print_remainder("IPv4 fragments received", known[kIpv4].fragments);
    print_remainder("IPv4 datagrams put together from fragments", known[kIpv4].whole);
    print_remainder("of these, with a bad checksum",
                    known[kIcmp].whole_bad + known[kTcp].whole_bad + known[kUdp].whole_bad);
    print_remainder("IPv4 datagrams with fragments missing", known[kIpv4].incomplete);
    print_remainder("for IPv4 protocols that nobody receives", known[kIpv4].unclaimed);
    print_remainder("TCP connections refused, the backlog was full", known[kTcp].refused);
    print_remainder("UDP datagrams without room", known[kUdp].refused);
}
