// SPDX-License-Identifier: MIT
//
// Ethernet: addresses, any number of VLAN tags, and the EtherType that tells who is next. The first datalink
// stack that the roster finds keeps its reference on the family: as long as packets can be received, the
// modules above stay.

#include "sample_module.h"

enum {
    kAddresses = 12,
    kType = 2,
    kTag = 4,
    kTypeVlan = 0x8100,
    kTypeServiceVlan = 0x88a8,
    kFirstType = 0x600
};

static uint8_t gHoldsFamily;

static int is_tag(uint32_t type) {
    return type == kTypeVlan || type == kTypeServiceVlan;
}

// Of a stack of several modules the frame goes to the lowest, which is named last.
static int32_t look_up(uint32_t type, void **table) {
    void **tables;
    int32_t count;
    int32_t status = gUtil->get_outbound_protos(1, SAMPLE_FAMILY, (int32_t)type, 0, &tables, &count);
    if (status != 0) return status;
    if (count > 0) *table = tables[count - 1];
    if (gHoldsFamily || count == 0) {
        gUtil->release_family_ref(SAMPLE_FAMILY);
    } else {
        gHoldsFamily = 1;
    }
    return 0;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);
    data->user_word_2 = data->length;

    // A frame may be nothing but tags: each type is looked at alone, so that none is gathered with all before
    // it.
    uint32_t length = kAddresses + kType;
    const uint8_t *type = map_bytes(data, kAddresses, kType);
    if (type != NULL && is_tag(read16(type))) gCounts.tagged++;
    while (type != NULL && is_tag(read16(type))) {
        length += kTag;
        type = map_bytes(data, length - kType, kType);
    }

    // Below the first EtherType it is a length of IEEE 802.3.
    const sample_protocol_module *upper =
        type != NULL && read16(type) >= kFirstType ? find_upper(read16(type), look_up) : NULL;
    if (upper == NULL) {
        gCounts.unclaimed++;
        gUtil->delete_zarn_data(data);
        return;
    }
    strip_header(data, length);
    upper->receive(data, NULL);
}

static void flush(void) {
    forget_uppers();
    if (gHoldsFamily) gUtil->release_family_ref(SAMPLE_FAMILY);
    gHoldsFamily = 0;
}

static const sample_protocol_module gEthernet = {
    {{"network/ethernet", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    flush,
    NULL,
    NULL};
const void *const modules[] = {&gEthernet, NULL};
