// SPDX-License-Identifier: MIT
//
// What the files of a protocol use that is part of a host: packets to be sent, and addresses. Include it
// behind sample_module.h or sample_packet.h.

#ifndef SAMPLE_HOST_H
#define SAMPLE_HOST_H

// The operations want and give checksums as the machine reads them where they lie.
static inline uint16_t read_checksum(const uint8_t *bytes) {
    uint16_t checksum;
    uint8_t *to = (uint8_t *)&checksum;
    to[0] = bytes[0];
    to[1] = bytes[1];
    return checksum;
}

static inline void write_checksum(uint8_t *bytes, uint32_t checksum) {
    uint16_t word = (uint16_t)checksum;
    const uint8_t *from = (const uint8_t *)&word;
    bytes[0] = from[0];
    bytes[1] = from[1];
}

static inline void copy_bytes(uint8_t *to, const uint8_t *from, uint32_t length) {
    for (uint32_t i = 0; i < length; i++)
        to[i] = from[i];
}

// Puts a header of `length` bytes before the packet, for the caller to write. It lies in a block of its own,
// which the packet frees: so the packet's other memory may be shared. Blocks of several protocols share a
// descriptor. Null without memory: then the packet is only good for `lose_packet`.
static inline uint8_t *prepend_header(zarn_data_t *data, uint32_t length) {
    uint8_t *header = gUtil->zarn_falloc(length);
    if (header == NULL) return NULL;
    if (gUtil->prepend_zarn_data(data, header, length, gUtil->zarn_free) == 0) return header;
    gUtil->zarn_free(header);
    return NULL;
}

static inline void lose_packet(zarn_data_t *data) {
    gCounts.undelivered++;
    gUtil->delete_zarn_data(data);
}

static inline void count_departure(const zarn_data_t *data) {
    gCounts.sent++;
    gCounts.sent_bytes += data->length;
}

static inline int same_address(const uint8_t *a, const uint8_t *b) {
    return read32(a) == read32(b);
}

// The bits of an address that tell hosts of the device's network apart.
static inline uint32_t host_bits(const sample_device *device) {
    return 0xffffffffu >> device->prefix;
}

// Whether the address is that of a host, or of all hosts, on the device's network.
static inline int is_on_network(const sample_device *device, const uint8_t *address) {
    return ((read32(address) ^ read32(device->address)) & ~host_bits(device)) == 0;
}

// Whether the address stands for all hosts on the device's network. One of two hosts has no such address.
static inline int is_broadcast(const sample_device *device, const uint8_t *address) {
    uint32_t bits = host_bits(device);
    return read32(address) == 0xffffffffu ||
           (bits > 1 && is_on_network(device, address) && (read32(address) & bits) == bits);
}

#endif
