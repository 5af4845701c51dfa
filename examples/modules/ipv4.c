// SPDX-License-Identifier: MIT
//
// IPv4 (RFC 791): checks the header, takes off what follows the datagram in its frame, and hands on the rest.

#include "sample_module.h"

enum { kShortestHeader = 20, kMoreFragments = 0x2000, kFragmentOffset = 0x1fff };

// Looks at the header. Returns its length and, in `*total`, that of the datagram, or 0 when the header is no
// base to go on, with the packet counted.
static uint32_t check_header(zarn_data_t *data, uint32_t *total) {
    const uint8_t *header = map_bytes(data, 0, kShortestHeader);
    uint32_t length = header != NULL ? (header[0] & 0x0fu) * 4 : 0;
    if (header == NULL || header[0] >> 4 != 4 || length < kShortestHeader || length > data->length) {
        gCounts.unverified++;
        return 0;
    }
    *total = read16(header + 2);
    if (*total < length) {
        gCounts.unverified++;
        return 0;
    }
    if (gUtil->get_zarn_data_checksum(data, 0, length) != 0) {
        gCounts.bad++;
        return 0;
    }
    if (*total > data->user_word_1) {  // the frame can't have held it
        gCounts.unverified++;
        return 0;
    }
    gCounts.good++;
    return length;
}

static void receive(zarn_data_t *data, const sample_network_header *below) {
    (void)below;
    count_arrival(data);

    uint32_t total;
    uint32_t length = check_header(data, &total);
    const uint8_t *header = length != 0 ? map_bytes(data, 0, length) : NULL;
    if (header == NULL) {
        gUtil->delete_zarn_data(data);
        return;
    }

    sample_network_header network = {.protocol = header[9]};
    for (int i = 0; i < 4; i++) {
        network.source[i] = header[12 + i];
        network.destination[i] = header[16 + i];
    }
    network.fragment = (read16(header + 6) & (kMoreFragments | kFragmentOffset)) != 0;
    if (network.fragment) gCounts.fragments++;

    const sample_protocol_module *upper = find_upper(network.protocol);
    if (upper == NULL) {
        gCounts.unclaimed++;
        gUtil->delete_zarn_data(data);
        return;
    }
    uint32_t padding = data->length > total ? data->length - total : 0;  // of a short frame
    if (padding != 0) gUtil->trim_zarn_data(data, total, padding);
    data->user_word_1 = total;
    strip_header(data, length);
    upper->receive(data, &network);
}

static const sample_protocol_module gIpv4 = SAMPLE_PROTOCOL("network/ipv4");
const void *const modules[] = {&gIpv4, NULL};
