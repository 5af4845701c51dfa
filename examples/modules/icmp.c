// SPDX-License-Identifier: MIT
//
// ICMP (RFC 792): its checksum covers the message and nothing else.

#include "sample_module.h"

enum { kHeader = 8 };

static sample_verdict check(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->part == SAMPLE_PART) return kUnverified;
    if (data->length < kHeader || data->length < data->user_word_1) return kUnverified;
    return gUtil->get_zarn_data_checksum(data, 0, data->length) == 0 ? kGood : kBad;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    count_packet(data, network, check(data, network));
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gIcmp = SAMPLE_PROTOCOL("network/icmp");
const void *const modules[] = {&gIcmp, NULL};
