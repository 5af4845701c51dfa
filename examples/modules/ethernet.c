// SPDX-License-Identifier: MIT
//
// Ethernet: addresses, any number of VLAN tags, and the EtherType that tells who is next.

#include "sample_module.h"

enum { kAddresses = 12, kType = 2, kTag = 4, kTypeVlan = 0x8100, kTypeServiceVlan = 0x88a8 };

static int is_tag(uint32_t type) {
    return type == kTypeVlan || type == kTypeServiceVlan;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);

    // A frame may be nothing but tags: each type is looked at alone, so that none is gathered with all before
    // it.
    uint32_t length = kAddresses + kType;
    const uint8_t *type = map_bytes(data, kAddresses, kType);
    if (type != NULL && is_tag(read16(type))) gCounts.tagged++;
    while (type != NULL && is_tag(read16(type))) {
        length += kTag;
        type = map_bytes(data, length - kType, kType);
    }

    const sample_protocol_module *upper = type != NULL ? find_upper(read16(type)) : NULL;
    if (upper == NULL) {
        gCounts.unclaimed++;
        gUtil->delete_zarn_data(data);
        return;
    }
    strip_header(data, length);
    upper->receive(data, NULL);
}

static const sample_protocol_module gEthernet = SAMPLE_PROTOCOL("network/ethernet");
const void *const modules[] = {&gEthernet, NULL};
