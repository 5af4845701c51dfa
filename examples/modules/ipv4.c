// SPDX-License-Identifier: MIT
//
// IPv4 (RFC 791): checks the header, takes off what follows the datagram in its frame, hands on the rest, and
// puts fragments together again.
//
// Fragments are kept as clones: they refer to the memory of the frames that they came in, and so does the
// whole datagram, which is the fragments' bytes linked in their order. What is kept is bounded, because the
// receiver has only so much memory for frames: the datagram that has waited longest goes first.
//
// On a device only what is for this host is received, and packets are sent to hosts on the same network, in
// fragments if need be: each is a clone of its part of the packet behind a header of its own.

#include "sample_module.h"

#include "sample_clock.h"
#include "sample_host.h"

enum {
    kShortestHeader = 20,
    kLongestHeader = 60,
    kLongestDatagram = 65535,
    kDontFragment = 0x4000,
    kMoreFragments = 0x2000,
    kFragmentOffset = 0x1fff,
    kFrameUnit = 2000,  // bytes; a frame takes one unit of memory for each that it has begun
    kMostUnits = 60,    // enough for the longest datagram in frames of 1514 bytes
    kMostSeconds = 30,  // that a datagram waits for its missing parts
    kTimeToLive = 64,
    kIcmp = 1,
    kEtherType = 0x800
};

typedef struct fragment {
    struct fragment *next;
    uint32_t start;     // offset of its first byte in the payload of the datagram
    uint32_t units;     // of memory that it keeps
    zarn_data_t *data;  // not empty
} fragment;

typedef struct datagram {
    struct datagram *newer;
    sample_network_header network;   // `source`, `destination` and `protocol` are part of the key
    uint16_t id;                     // so is this
    uint32_t born;                   // in seconds
    uint32_t total;                  // payload bytes, 0 as long as the last fragment is missing
    uint32_t gathered;               // payload bytes that are there
    fragment *fragments;             // by offset; they don't overlap
    uint8_t header[kLongestHeader];  // of the first fragment, if it is there
} datagram;

static datagram *gOldest;             // that are incomplete
static uint32_t gUnits;               // of memory in all of them
static const sample_device *gDevice;  // null: the packets are only looked on at
static const sample_protocol_module *gBelow;
static uint16_t gId;  // of the datagram that was sent in fragments last

static const sample_protocol_module gIpv4;

static void delete_fragment(fragment *gone) {
    gUnits -= gone->units;
    gUtil->delete_zarn_data(gone->data);
    gUtil->zarn_free(gone);
}

static void delete_datagram(datagram *gone) {
    datagram **link = &gOldest;
    while (*link != gone)
        link = &(*link)->newer;
    *link = gone->newer;
    while (gone->fragments != NULL) {
        fragment *first = gone->fragments;
        gone->fragments = first->next;
        delete_fragment(first);
    }
    gUtil->zarn_free(gone);
}

static void give_up(datagram *gone) {
    gCounts.incomplete++;
    delete_datagram(gone);
}

// The datagram that the fragment belongs to, a new one if need be. Null without memory.
static datagram *find_datagram(const sample_network_header *network, uint16_t id) {
    datagram **link = &gOldest;
    for (; *link != NULL; link = &(*link)->newer) {
        const sample_network_header *other = &(*link)->network;
        if ((*link)->id == id && other->protocol == network->protocol &&
            same_address(other->source, network->source) &&
            same_address(other->destination, network->destination))
            return *link;
    }
    datagram *created = gUtil->zarn_zalloc(sizeof(datagram));
    if (created == NULL) return NULL;
    created->network = *network;
    created->network.part = SAMPLE_REJOINED;
    created->id = id;
    created->born = read_clock();
    *link = created;
    return created;
}

static uint32_t end_of(const fragment *part) {
    return part->start + part->data->length;
}

// Puts a fragment in its place, or deletes it when it brings nothing new. Of what overlaps the bytes stay
// that came first, unless the new fragment brings more on both sides of them.
static void insert_fragment(datagram *whole, fragment *part) {
    fragment **link = &whole->fragments;
    while (*link != NULL && end_of(*link) <= part->start)
        link = &(*link)->next;
    if (*link != NULL && (*link)->start <= part->start) {
        if (end_of(*link) >= end_of(part)) {
            delete_fragment(part);
            return;
        }
        uint32_t covered = end_of(*link) - part->start;
        gUtil->trim_zarn_data(part->data, 0, covered);
        part->start += covered;
        link = &(*link)->next;
    }
    while (*link != NULL && end_of(*link) <= end_of(part)) {
        fragment *inside = *link;
        *link = inside->next;
        whole->gathered -= inside->data->length;
        delete_fragment(inside);
    }
    if (*link != NULL && (*link)->start < end_of(part)) {
        uint32_t length = (*link)->start - part->start;
        if (length == 0) {
            delete_fragment(part);
            return;
        }
        gUtil->trim_zarn_data(part->data, length, part->data->length - length);
    }
    whole->gathered += part->data->length;
    part->next = *link;
    *link = part;
}

// Links the bytes of all fragments in a buffer of their own. Null without memory.
static zarn_data_t *join_fragments(const datagram *whole) {
    zarn_data_t *data = gUtil->new_zarn_data();
    if (data == NULL) return NULL;
    for (const fragment *part = whole->fragments; part != NULL; part = part->next) {
        if (gUtil->clone_zarn_data(data, part->data, 0, part->data->length) != 0) {
            gUtil->delete_zarn_data(data);
            return NULL;
        }
    }
    data->user_word_1 = data->length;
    return data;
}

// Whether a fragment from `start` to `end` can be one of this datagram. `last` tells that no other follows.
static int fits(const datagram *whole, uint32_t start, uint32_t end, int last) {
    if (end <= start || (!last && (end - start) % 8 != 0)) return 0;
    if (whole->total != 0 && (end > whole->total || (last && end != whole->total))) return 0;
    for (const fragment *part = whole->fragments; last && part != NULL; part = part->next)
        if (end_of(part) > end) return 0;
    return 1;
}

static int32_t look_up(uint32_t protocol, void **table) {
    return gUtil->get_inbound_proto(SAMPLE_FAMILY, (int32_t)protocol, table);
}

static void hand_on(zarn_data_t *data, const sample_network_header *network) {
    const sample_protocol_module *upper = find_upper(network->protocol, look_up);
    if (upper != NULL) {
        hand_up(upper, data, network);
        return;
    }
    if (network->part != SAMPLE_REJOINED) gCounts.unclaimed++;
    if (network->below != NULL) network->below->host->refuse(data, network, SAMPLE_NO_PROTOCOL);
    gUtil->delete_zarn_data(data);
}

static void give_up_expired(void) {
    uint32_t now = read_clock();
    while (gOldest != NULL && now - gOldest->born > kMostSeconds)
        give_up(gOldest);
}

// On a device fragments have half of what others leave.
static int is_full(void) {
    return gUnits > (gDevice != NULL ? gDevice->room(gDevice) : kMostUnits);
}

// Keeps the fragment that `data` is from `header` bytes on to its end, without taking `data` over. Hands the
// datagram on when this was the last one missing.
static void keep_fragment(zarn_data_t *data, uint32_t header, const sample_network_header *network,
                          uint16_t id, uint16_t place) {
    give_up_expired();
    uint32_t start = (place & kFragmentOffset) * 8u, length = data->length - header;
    int last = (place & kMoreFragments) == 0;
    if (header + start + length > kLongestDatagram) return;
    datagram *whole = find_datagram(network, id);
    if (whole == NULL) return;

    fragment *part = fits(whole, start, start + length, last) ? gUtil->zarn_zalloc(sizeof(fragment)) : NULL;
    if (part != NULL) part->data = gUtil->new_zarn_data();
    if (part == NULL || part->data == NULL || gUtil->clone_zarn_data(part->data, data, header, length) != 0) {
        if (part != NULL && part->data != NULL) gUtil->delete_zarn_data(part->data);
        gUtil->zarn_free(part);
        if (whole->fragments == NULL) delete_datagram(whole);
        return;
    }
    part->start = start;
    part->units = 1 + data->user_word_2 / kFrameUnit;
    gUnits += part->units;
    if (last) whole->total = start + length;
    if (start == 0) {
        copy_bytes(whole->header, network->header, network->header_length);
        whole->network.header_length = network->header_length;
    }
    insert_fragment(whole, part);

    if (whole->gathered == whole->total) {
        zarn_data_t *joined = join_fragments(whole);
        sample_network_header joined_network = whole->network;
        uint8_t first_header[kLongestHeader];
        copy_bytes(first_header, whole->header, kLongestHeader);
        joined_network.header = first_header;
        delete_datagram(whole);
        if (joined == NULL) return;
        gCounts.whole++;
        hand_on(joined, &joined_network);
    }
    while (gOldest != NULL && is_full())
        give_up(gOldest);
}

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
    if (sum_packet(data, length) != 0) {
        gCounts.bad++;
        notify(SAMPLE_NOTIFY_BAD_CHECKSUM, 0, header + 12, header + 16);
        return 0;
    }
    if (*total > data->user_word_1) {  // the frame can't have held it
        gCounts.unverified++;
        return 0;
    }
    gCounts.good++;
    return length;
}

// Nothing on this host wants what is for all. Somebody who sends to us is a host, and not this one.
static int is_for_us(const sample_network_header *network) {
    const uint8_t *from = network->source;
    return same_address(network->destination, gDevice->address) && !same_address(from, gDevice->address) &&
           !is_broadcast(gDevice, from) && from[0] != 0 && from[0] != 127 && from[0] < 224;
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

    sample_network_header network = {.protocol = header[9],
                                     .part = SAMPLE_ALL,
                                     .below = gDevice != NULL ? &gIpv4 : NULL,
                                     .header = header,
                                     .header_length = length};
    for (int i = 0; i < 4; i++) {
        network.source[i] = header[12 + i];
        network.destination[i] = header[16 + i];
    }
    if (gDevice != NULL && !is_for_us(&network)) {
        gCounts.foreign++;
        gUtil->delete_zarn_data(data);
        return;
    }
    uint16_t id = read16(header + 4), place = read16(header + 6);
    uint32_t padding = data->length > total ? data->length - total : 0;  // of a short frame
    if (padding != 0) gUtil->trim_zarn_data(data, total, padding);
    data->user_word_1 = total;
    if ((place & (kMoreFragments | kFragmentOffset)) != 0) {
        gCounts.fragments++;
        network.part = SAMPLE_PART;
        if (data->length == total) keep_fragment(data, length, &network, id, place);
    }
    strip_header(data, length);
    hand_on(data, &network);
}

static void flush(void) {
    while (gOldest != NULL)
        give_up(gOldest);
    forget_uppers();
}

// Sending

// Puts the header before what it goes with, and sends that. `place` is the flags and the offset.
static void send_piece(zarn_data_t *data, const sample_destination *to, uint32_t place) {
    uint8_t *header = prepend_header(data, kShortestHeader);
    if (header == NULL) {
        lose_packet(data);
        return;
    }
    write16(header, 0x4500);
    write16(header + 2, data->length);
    write16(header + 4, gId);
    write16(header + 6, place);
    header[8] = kTimeToLive;
    header[9] = (uint8_t)to->protocol;
    write16(header + 10, 0);
    copy_bytes(header + 12, gDevice->address, 4);
    copy_bytes(header + 16, to->address, 4);
    write_checksum(header + 10, gUtil->get_zarn_checksum(header, kShortestHeader, 0));
    count_departure(data);
    sample_destination next_hop = *to;
    next_hop.protocol = kEtherType;
    gBelow->host->send(data, &next_hop);
}

static void send_packet(zarn_data_t *data, const sample_destination *to) {
    uint32_t total = data->length, most = gDevice->mtu - kShortestHeader;
    if (total > kLongestDatagram - kShortestHeader || !is_on_network(gDevice, to->address) ||
        same_address(to->address, gDevice->address)) {
        lose_packet(data);
        return;
    }
    // Numbers come again all too soon: what nobody needs to put together spends none [RFC 6864].
    if (total <= most) {
        send_piece(data, to, kDontFragment);
        return;
    }
    gId++;
    most -= most % 8;
    for (uint32_t start = 0; start < total; start += most) {
        uint32_t length = total - start < most ? total - start : most;
        zarn_data_t *piece = gUtil->new_zarn_data();
        if (piece == NULL || gUtil->clone_zarn_data(piece, data, start, length) != 0) {
            if (piece != NULL) gUtil->delete_zarn_data(piece);
            lose_packet(data);
            return;
        }
        send_piece(piece, to, start / 8 | (start + length < total ? kMoreFragments : 0));
    }
    gUtil->delete_zarn_data(data);
}

static void refuse(zarn_data_t *data, const sample_network_header *network, sample_refusal why) {
    const sample_protocol_module *icmp = find_upper(kIcmp, look_up);
    if (icmp != NULL && icmp->host != NULL && icmp->host->refuse != NULL)
        icmp->host->refuse(data, network, why);
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    int32_t status = start_clock(device);
    if (status != 0) return status;
    for (uint32_t protocol = 0; protocol < SAMPLE_UPPERS; protocol++)
        find_upper(protocol, look_up);
    gDevice = device;
    gBelow = below;
    return 0;
}

static void detach(void) {
    while (gOldest != NULL)
        give_up(gOldest);
    stop_clock();
    start_clock(NULL);
    gDevice = NULL;
}

static int32_t start_or_stop_ipv4(int32_t op) {
    if (op == MODULE_STOP) stop_clock();
    int32_t status = start_or_stop(op);
    if (op != MODULE_START || status != 0) return status;
    status = start_clock(NULL);
    if (status != 0) start_or_stop(MODULE_STOP);
    return status;
}

static const sample_host_operations kHost = {
    .attach = attach, .detach = detach, .attend = give_up_expired, .send = send_packet, .refuse = refuse};
static const sample_protocol_module gIpv4 = {
    {{"network/ipv4", SAMPLE_PROTOCOL_FLAGS, start_or_stop_ipv4}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    flush,
    NULL,
    &kHost};
const void *const modules[] = {&gIpv4, NULL};
