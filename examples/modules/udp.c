// SPDX-License-Identifier: MIT
//
// UDP (RFC 768): a checksum that may be absent, over as many bytes as the header says.

#include "sample_module.h"

enum { kHeader = 8 };

static uint64_t *verdict(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->fragment) return &gCounts.unverified;
    const uint8_t *header = map_bytes(data, 0, kHeader);
    if (header == NULL) return &gCounts.unverified;
    if (read16(header + 6) == 0) return &gCounts.absent;
    uint32_t length = read16(header + 4);
    if (length < kHeader || length > data->length || data->length < data->user_word_1)
        return &gCounts.unverified;
    return transport_sum_ok(data, length, network) ? &gCounts.good : &gCounts.bad;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    count_arrival(data);
    ++*verdict(data, network);
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gUdp = SAMPLE_PROTOCOL("network/udp");
const void *const modules[] = {&gUdp, NULL};
