// SPDX-License-Identifier: MIT
//
// What every file of a sample protocol module may use: the table, the module's counts, and the helpers that
// protocols have in common. The file that includes `sample_module.h` has the two variables.

#ifndef SAMPLE_PACKET_H
#define SAMPLE_PACKET_H

#include "sample_protocol.h"

// Each module's own, whatever others are loaded beside it.
extern __attribute__((visibility("hidden"))) zarn_util_module_t *gUtil;
extern __attribute__((visibility("hidden"))) sample_counts gCounts;
extern __attribute__((visibility("hidden"))) uint8_t gProfiled;  // constant while the module is in service

// Hands a packet to the protocol above, which owns it from here. The times of that protocol include those of
// the protocols above it.
static inline void hand_up(const sample_protocol_module *upper, zarn_data_t *data,
                           const sample_network_header *network) {
    if (gProfiled) gUtil->_enter_prof_func(upper->protocol.head.name, "receive", PROF_RECORD);
    upper->receive(data, network);
    if (gProfiled) gUtil->_exit_prof_func(upper->protocol.head.name, "receive", PROF_RECORD);
}

static inline uint32_t sum_packet(zarn_data_t *data, uint32_t length) {
    if (gProfiled) gUtil->_enter_prof_func("zarn", "checksum", PROF_RECORD);
    uint32_t sum = gUtil->get_zarn_data_checksum(data, 0, length);
    if (gProfiled) gUtil->_exit_prof_func("zarn", "checksum", PROF_RECORD);
    return sum;
}

static inline void count_arrival(const zarn_data_t *data) {
    gCounts.packets++;
    gCounts.bytes += data->length;
}

static inline uint16_t read16(const uint8_t *bytes) {
    return (uint16_t)(bytes[0] << 8 | bytes[1]);
}

static inline uint32_t read32(const uint8_t *bytes) {
    return (uint32_t)read16(bytes) << 16 | read16(bytes + 2);
}

static inline void write16(uint8_t *bytes, uint32_t value) {
    bytes[0] = (uint8_t)(value >> 8);
    bytes[1] = (uint8_t)value;
}

static inline void write32(uint8_t *bytes, uint32_t value) {
    write16(bytes, value >> 16);
    write16(bytes + 2, value);
}

// `length` bytes of the packet from `offset` on in one piece, or null when they were not captured.
static inline const uint8_t *map_bytes(zarn_data_t *data, uint32_t offset, uint32_t length) {
    void *bytes = NULL;
    return gUtil->map_to_zarn_data(data, offset, &bytes, length) == 0 ? (const uint8_t *)bytes : NULL;
}

// Takes a header of `length` bytes off the front of a packet that has them.
static inline void strip_header(zarn_data_t *data, uint32_t length) {
    gUtil->trim_zarn_data(data, 0, length);
    data->user_word_1 -= length;
}

// Tells whoever wants to know. A notification that can't be delivered is gone.
static inline void notify(uint32_t kind, uint32_t detail, const uint8_t *source, const uint8_t *destination) {
    sample_notice notice;
    for (int i = 0; i < 4; i++) {
        notice.source[i] = source[i];
        notice.destination[i] = destination[i];
    }
    gUtil->zarn_notify(kind, detail, &notice, sizeof(notice));
}

// What a look at the checksum of a packet has come to.
typedef enum sample_verdict { kUnverified, kGood, kBad, kAbsent } sample_verdict;

// Counts a packet of a protocol above the network layer. Who hands packets up by another way than the network
// layer has no header to show.
static inline void count_packet(const zarn_data_t *data, const sample_network_header *network,
                                sample_verdict verdict) {
    if (network != NULL && verdict == kBad)
        notify(SAMPLE_NOTIFY_BAD_CHECKSUM, network->protocol, network->source, network->destination);
    if (network != NULL && network->part == SAMPLE_REJOINED) {
        gCounts.whole_good += verdict == kGood;
        gCounts.whole_bad += verdict == kBad;
        gCounts.whole_absent += verdict == kAbsent;
        return;
    }
    count_arrival(data);
    gCounts.good += verdict == kGood;
    gCounts.bad += verdict == kBad;
    gCounts.absent += verdict == kAbsent;
    gCounts.unverified += verdict == kUnverified;
}

// The checksum of the first `length` bytes of the packet, not 0 and all of them there, and the pseudo header
// of the other arguments. The two pieces are summed where they lie: the checksum of one is the seed of the
// other.
static inline uint32_t transport_checksum(zarn_data_t *data, uint32_t length, const uint8_t *source,
                                          const uint8_t *destination, uint8_t protocol) {
    uint8_t pseudo[12] = {0};
    for (int i = 0; i < 4; i++) {
        pseudo[i] = source[i];
        pseudo[4 + i] = destination[i];
    }
    pseudo[9] = protocol;
    write16(pseudo + 10, length);
    return gUtil->get_zarn_checksum(pseudo, sizeof(pseudo), (uint16_t)sum_packet(data, length));
}

// Whether that is what a right checksum among these bytes gives.
static inline int transport_sum_ok(zarn_data_t *data, uint32_t length, const sample_network_header *network) {
    uint32_t checksum =
        transport_checksum(data, length, network->source, network->destination, network->protocol);
    return checksum == 0 || checksum == 0xffff;  // the two zeros of one's complement
}

// The node of the protocol `module` on an endpoint's chain, or null.
static inline proto_node *find_node(const zarn_endpoint_t *ep, const sample_protocol_module *module) {
    proto_node *node = ep->protocols;
    while (node != NULL && node->module != &module->protocol)
        node = node->next;
    return node;
}

#endif
