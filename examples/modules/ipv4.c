// SPDX-License-Identifier: MIT
//
// IPv4 (RFC 791): checks the header, takes off what follows the datagram in its frame, hands on the rest, and
// puts fragments together again.
//
// Fragments are kept as clones: they refer to the memory of the frames that they came in, and so does the
// whole datagram, which is the fragments' bytes linked in their order. What is kept is bounded, because the
// receiver has only so much memory for frames: the datagram that has waited longest goes first.

#include "sample_module.h"

enum {
    kShortestHeader = 20,
    kLongestDatagram = 65535,
    kMoreFragments = 0x2000,
    kFragmentOffset = 0x1fff,
    kFrameUnit = 2000,  // bytes; a frame takes one unit of memory for each that it has begun
    kMostUnits = 60,    // enough for the longest datagram in frames of 1514 bytes
    kMostSeconds = 30   // that a datagram waits for its missing parts
};

#define SECOND INT64_C(1000000)

typedef struct fragment {
    struct fragment *next;
    uint32_t start;     // offset of its first byte in the payload of the datagram
    uint32_t units;     // of memory that it keeps
    zarn_data_t *data;  // not empty
} fragment;

typedef struct datagram {
    struct datagram *newer;
    sample_network_header network;  // `source`, `destination` and `protocol` are part of the key
    uint16_t id;                    // so is this
    uint32_t born;                  // in seconds
    uint32_t total;                 // payload bytes, 0 as long as the last fragment is missing
    uint32_t gathered;              // payload bytes that are there
    fragment *fragments;            // by offset; they don't overlap
} datagram;

static datagram *gOldest;  // that are incomplete
static uint32_t gUnits;    // of memory in all of them
static zarn_timer_t *gTimer;
static uint32_t gSeconds;  // since the start; counted by the timer thread, atomic

static void count_second(zarn_timer_t *timer, void *arg) {
    (void)arg;
    __atomic_fetch_add(&gSeconds, 1, __ATOMIC_RELAXED);
    gUtil->zarn_set_timer(timer, SECOND, 1);
}

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

static int same_address(const uint8_t *a, const uint8_t *b) {
    return read32(a) == read32(b);
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
    created->born = __atomic_load_n(&gSeconds, __ATOMIC_RELAXED);
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
        upper->receive(data, network);
        return;
    }
    if (network->part != SAMPLE_REJOINED) gCounts.unclaimed++;
    gUtil->delete_zarn_data(data);
}

// Keeps the fragment that `data` is from `header` bytes on to its end, without taking `data` over. Hands the
// datagram on when this was the last one missing.
static void keep_fragment(zarn_data_t *data, uint32_t header, const sample_network_header *network,
                          uint16_t id, uint16_t place) {
    uint32_t now = __atomic_load_n(&gSeconds, __ATOMIC_RELAXED);
    while (gOldest != NULL && now - gOldest->born > kMostSeconds)
        give_up(gOldest);

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
    insert_fragment(whole, part);

    if (whole->gathered == whole->total) {
        zarn_data_t *joined = join_fragments(whole);
        sample_network_header joined_network = whole->network;
        delete_datagram(whole);
        if (joined == NULL) return;
        gCounts.whole++;
        hand_on(joined, &joined_network);
    }
    while (gUnits > kMostUnits)
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
    if (gUtil->get_zarn_data_checksum(data, 0, length) != 0) {
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

    sample_network_header network = {.protocol = header[9], .part = SAMPLE_ALL};
    for (int i = 0; i < 4; i++) {
        network.source[i] = header[12 + i];
        network.destination[i] = header[16 + i];
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

static int32_t start_or_stop_ipv4(int32_t op) {
    if (op == MODULE_STOP) gUtil->delete_zarn_timer(gTimer);
    int32_t status = start_or_stop(op);
    if (op != MODULE_START || status != 0) return status;
    gTimer = gUtil->create_zarn_timer(count_second, NULL);
    if (gTimer == NULL) {
        start_or_stop(MODULE_STOP);
        return ERR_NO_MEMORY;
    }
    gUtil->zarn_set_timer(gTimer, SECOND, 1);
    return 0;
}

static const sample_protocol_module gIpv4 = {
    {{"network/ipv4", SAMPLE_PROTOCOL_FLAGS, start_or_stop_ipv4}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    flush,
    NULL,
    NULL};
const void *const modules[] = {&gIpv4, NULL};
