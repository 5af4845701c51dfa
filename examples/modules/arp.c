// SPDX-License-Identifier: MIT
//
// ARP (RFC 826): counted, not answered.

#include "sample_module.h"

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gArp = SAMPLE_PROTOCOL("network/arp");
const void *const modules[] = {&gArp, NULL};
