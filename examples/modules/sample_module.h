// SPDX-License-Identifier: MIT
//
// The frame of a sample protocol module: its state, its start and stop, and the helpers that protocols have
// in common. A module is one source file that includes this, provides `receive`, and ends with its record:
//
//     static const sample_protocol_module gArp = SAMPLE_PROTOCOL("network/arp");
//     const void *const modules[] = {&gArp, NULL};

#ifndef SAMPLE_MODULE_H
#define SAMPLE_MODULE_H

#include "sample_protocol.h"

#define SAMPLE_UPPERS 8

// The protocols that stand above one.
typedef struct sample_uppers {
    uint32_t keys[SAMPLE_UPPERS];
    const sample_protocol_module *modules[SAMPLE_UPPERS];  // null: the place is free
} sample_uppers;

static zarn_util_module_t *gUtil;
static sample_counts gCounts;
static sample_uppers gUppers;

static void receive(zarn_data_t *data, const sample_network_header *network);

static int32_t std_ops(int32_t op) {
    switch (op) {
        case MODULE_START:
            return kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&gUtil);
        case MODULE_STOP:
            return kern_module_release(ZARN_UTIL_MODULE_NAME);
        default:
            return -1;
    }
}

// Nothing is kept for an endpoint.
static int32_t init_protocol(proto_node *node) {
    (void)node;
    return 0;
}

static int32_t uninit_protocol(proto_node *node) {
    (void)node;
    return 0;
}

static int32_t attach(uint32_t key, const sample_protocol_module *upper) {
    int free_place = SAMPLE_UPPERS;
    for (int i = SAMPLE_UPPERS - 1; i >= 0; i--) {
        if (gUppers.modules[i] == NULL) {
            free_place = i;
        } else if (gUppers.keys[i] == key) {
            gUppers.modules[i] = upper;
            return 0;
        }
    }
    if (upper == NULL) return 0;
    if (free_place == SAMPLE_UPPERS) return ERR_NO_MEMORY;
    gUppers.keys[free_place] = key;
    gUppers.modules[free_place] = upper;
    return 0;
}

static inline const sample_protocol_module *find_upper(uint32_t key) {
    for (int i = 0; i < SAMPLE_UPPERS; i++) {
        if (gUppers.modules[i] != NULL && gUppers.keys[i] == key) return gUppers.modules[i];
    }
    return NULL;
}

static void take_counts(sample_counts *counts) {
    *counts = gCounts;
    gCounts = (sample_counts){0};
}

#define SAMPLE_PROTOCOL(name) \
    { {{name, 0, std_ops}, init_protocol, uninit_protocol}, receive, attach, take_counts }

static inline void count_arrival(const zarn_data_t *data) {
    gCounts.packets++;
    gCounts.bytes += data->length;
}

static inline uint16_t read16(const uint8_t *bytes) {
    return (uint16_t)(bytes[0] << 8 | bytes[1]);
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

// Whether the first `length` bytes of the packet, not 0 and all of them captured, and the pseudo header of
// `network` sum up to what a right checksum gives. The two pieces are summed where they lie: the checksum of
// one is the seed of the other.
static inline int transport_sum_ok(zarn_data_t *data, uint32_t length, const sample_network_header *network) {
    uint8_t pseudo[12] = {0};
    for (int i = 0; i < 4; i++) {
        pseudo[i] = network->source[i];
        pseudo[4 + i] = network->destination[i];
    }
    pseudo[9] = network->protocol;
    pseudo[10] = (uint8_t)(length >> 8);
    pseudo[11] = (uint8_t)length;
    uint32_t checksum = gUtil->get_zarn_checksum(pseudo, sizeof(pseudo),
                                                 (uint16_t)gUtil->get_zarn_data_checksum(data, 0, length));
    return checksum == 0 || checksum == 0xffff;  // the two zeros of one's complement
}

#endif
