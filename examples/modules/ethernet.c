// SPDX-License-Identifier: MIT
//
// Ethernet: addresses, any number of VLAN tags, and the EtherType that tells who is next. The first datalink
// stack that the roster finds keeps its reference on the family: as long as packets can be received, the
// modules above stay.
//
// On a device only frames for this host are received, and the hardware address that a packet goes to is asked
// of the protocol that stands above for that.

#include "sample_module.h"

#include "sample_host.h"

enum {
    kAddresses = 12,
    kAddress = 6,
    kType = 2,
    kTag = 4,
    kTypeIpv4 = 0x800,
    kTypeArp = 0x806,
    kTypeVlan = 0x8100,
    kTypeServiceVlan = 0x88a8,
    kFirstType = 0x600
};

static const uint8_t kEverybody[kAddress] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

static uint8_t gHoldsFamily;
static const sample_device *gDevice;             // null: the frames are only looked on at
static const sample_protocol_module *gResolver;  // who knows hardware addresses; with a device not null

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

static int is_address(zarn_data_t *data, const uint8_t *address) {
    const uint8_t *to = map_bytes(data, 0, kAddress);
    for (int i = 0; i < kAddress && to != NULL; i++)
        if (to[i] != address[i]) return 0;
    return to != NULL;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);
    data->user_word_2 = data->length;
    int for_all = gDevice != NULL && is_address(data, kEverybody);
    if (gDevice != NULL && !for_all && !is_address(data, gDevice->hardware)) {
        gCounts.foreign++;
        gUtil->delete_zarn_data(data);
        return;
    }

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
    // With a packet for one host in it, it would have all of them answer [RFC 1122, 3.2.2].
    if (for_all && upper != gResolver) {
        gCounts.foreign++;
        gUtil->delete_zarn_data(data);
        return;
    }
    strip_header(data, length);
    hand_up(upper, data, NULL);
}

static void send_packet(zarn_data_t *data, const sample_destination *to) {
    const uint8_t *hardware =
        is_broadcast(gDevice, to->address) ? kEverybody : gResolver->host->resolve(data, to);
    if (hardware == NULL) return;
    uint8_t *header = prepend_header(data, kAddresses + kType);
    if (header == NULL) {
        lose_packet(data);
        return;
    }
    copy_bytes(header, hardware, kAddress);
    copy_bytes(header + kAddress, gDevice->hardware, kAddress);
    write16(header + kAddresses, to->protocol);
    count_departure(data);
    gDevice->transmit(gDevice, data);
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    (void)below;
    gResolver = find_upper(kTypeArp, look_up);
    if (gResolver == NULL || gResolver->host == NULL || gResolver->host->resolve == NULL) {
        kern_log("ethernet: for EtherType 806 the settings name nobody who finds hardware addresses\n");
        return ERR_NO_STACK;
    }
    find_upper(kTypeIpv4, look_up);
    gDevice = device;
    return 0;
}

static void detach(void) {
    gDevice = NULL;
}

static void flush(void) {
    forget_uppers();
    if (gHoldsFamily) gUtil->release_family_ref(SAMPLE_FAMILY);
    gHoldsFamily = 0;
}

static const sample_host_operations kHost = {.attach = attach, .detach = detach, .send = send_packet};
static const sample_protocol_module gEthernet = {
    {{"network/ethernet", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    flush,
    NULL,
    &kHost};
const void *const modules[] = {&gEthernet, NULL};
