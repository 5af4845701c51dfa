// SPDX-License-Identifier: MIT
//
// ICMP (RFC 792): its checksum covers the message and nothing else.

#include "sample_module.h"

enum { kHeader = 8 };

static uint64_t *verdict(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->fragment) return &gCounts.unverified;
    if (data->length < kHeader || data->length < data->user_word_1) return &gCounts.unverified;
    return gUtil->get_zarn_data_checksum(data, 0, data->length) == 0 ? &gCounts.good : &gCounts.bad;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    count_arrival(data);
    ++*verdict(data, network);
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gIcmp = SAMPLE_PROTOCOL("network/icmp");
const void *const modules[] = {&gIcmp, NULL};
