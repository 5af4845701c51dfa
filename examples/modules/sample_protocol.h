// SPDX-License-Identifier: MIT
//
// What the sample protocol modules share: how packets travel from one to the next, and what each one counts.
//
// - A packet is a `zarn_data_t` that starts with the header of the protocol that receives it. `length` is
//   what was captured, `user_word_1` what there was on the wire: they differ when the capture cut the packet
//   short. Who strips a header strips it from both. The client word crosses queues with the buffer.
// - `receive` owns the buffer: it hands it on or deletes it, on every path.
// - Payload is never copied. Headers are looked at in place, wherever their bytes lie.
// - One thread at a time calls into the modules of one stack; nothing here takes a lock.

#ifndef SAMPLE_PROTOCOL_H
#define SAMPLE_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_util.h>

#ifdef __cplusplus
extern "C" {
#endif

// What one protocol has seen. Every packet whose checksum the protocol looks at is in exactly one of `good`,
// `bad`, `absent` and `unverified`; protocols without a checksum leave the four at 0.
typedef struct sample_counts {
    uint64_t packets;     // handed to the protocol
    uint64_t bytes;       // captured bytes of these, the protocol's own header included
    uint64_t good;        //
    uint64_t bad;         //
    uint64_t absent;      // the sender left the checksum out
    uint64_t unverified;  // cut short, a fragment, or malformed: no verdict
    uint64_t unclaimed;   // for no protocol that stands above this one
    uint64_t tagged;      // ethernet: with at least one VLAN tag
    uint64_t fragments;   // ipv4: parts of a larger datagram
} sample_counts;

// What the network layer tells the protocol above it about a packet.
typedef struct sample_network_header {
    uint8_t source[4];  // as on the wire
    uint8_t destination[4];
    uint8_t protocol;
    uint8_t fragment;  // not 0: a part of a larger datagram, the first or a later one
} sample_network_header;

typedef struct sample_protocol_module {
    protocol_module protocol;

    // Takes a packet over. `network` is null below the network layer and valid during the call.
    void (*receive)(zarn_data_t *data, const sample_network_header *network);

    // Packets that carry `key`, an EtherType or an IP protocol number, go to `upper` from now on; null
    // detaches. Returns 0, or ERR_NO_MEMORY when no place is left. A protocol that looks at no such key has
    // no use for it. Not while packets are received.
    int32_t (*attach)(uint32_t key, const struct sample_protocol_module *upper);

    // Hands the counts out and starts them again at 0. Not while packets are received.
    void (*take_counts)(sample_counts *counts);
} sample_protocol_module;

#ifdef __cplusplus
}
#endif

#endif
