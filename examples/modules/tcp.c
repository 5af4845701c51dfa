// SPDX-License-Identifier: MIT
//
// TCP (RFC 9293): the checksum over pseudo header, header and payload.

#include "sample_module.h"

enum { kShortestHeader = 20 };

static uint64_t *verdict(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->fragment) return &gCounts.unverified;
    if (data->length < kShortestHeader || data->length < data->user_word_1) return &gCounts.unverified;
    const uint8_t *header = map_bytes(data, 0, kShortestHeader);
    if (header == NULL) return &gCounts.unverified;
    uint32_t length = (header[12] >> 4) * 4u;
    if (length < kShortestHeader || length > data->length) return &gCounts.unverified;
    return transport_sum_ok(data, data->length, network) ? &gCounts.good : &gCounts.bad;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    count_arrival(data);
    ++*verdict(data, network);
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gTcp = SAMPLE_PROTOCOL("network/tcp");
const void *const modules[] = {&gTcp, NULL};
