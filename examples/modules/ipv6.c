// SPDX-License-Identifier: MIT
//
// IPv6 (RFC 8200): counted; what it carries is not looked at.

#include "sample_module.h"

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);
    gUtil->delete_zarn_data(data);
}

static const sample_protocol_module gIpv6 = SAMPLE_PROTOCOL("network/ipv6");
const void *const modules[] = {&gIpv6, NULL};
