// SPDX-License-Identifier: MIT
//
// What the sample protocol modules share: how packets travel from one to the next, what each one counts, and
// what endpoints of theirs can do.
//
// - A packet is a `zarn_data_t` that starts with the header of the protocol that receives it. `length` is
//   what was captured, `user_word_1` what there was on the wire: they differ when the capture cut the packet
//   short. Who strips a header strips it from both. `user_word_2` tells how long the captured frame was: so
//   much of the receiver's memory comes back when the packet goes.
// - `receive` owns the buffer: it hands it on or deletes it, on every path.
// - Payload is never copied. Headers are looked at in place, wherever their bytes lie.
// - Who comes next is the roster's business: zarn.conf names for each EtherType and each IP protocol number
//   the module that receives it.
// - One thread at a time calls `receive` of the modules of one stack; `flush` and `take_counts` have no
//   packets beside them. Endpoints may be used by other threads at any time.

#ifndef SAMPLE_PROTOCOL_H
#define SAMPLE_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_util.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SAMPLE_FAMILY 2  // IPv4, and whatever is found by an EtherType

// What one protocol has seen. Every packet whose checksum the protocol looks at is in exactly one of `good`,
// `bad`, `absent` and `unverified`; protocols without a checksum leave the four at 0. Datagrams that were put
// together from fragments are in no count but the `whole` ones.
typedef struct sample_counts {
    uint64_t packets;     // handed to the protocol
    uint64_t bytes;       // captured bytes of these, the protocol's own header included
    uint64_t good;        // the checksum is right
    uint64_t bad;         // it is not
    uint64_t absent;      // the sender left the checksum out
    uint64_t unverified;  // cut short, a fragment, or malformed: no verdict
    uint64_t unclaimed;   // for no protocol that stands above this one
    uint64_t unloadable;  // lookups that found a protocol in zarn.conf which can't be loaded
    uint64_t refused;     // tcp: SYNs that the listener had no room for; udp: datagrams, likewise
    uint64_t tagged;      // ethernet: with at least one VLAN tag
    uint64_t fragments;   // ipv4: parts of a larger datagram
    uint64_t whole;       // ipv4: datagrams that were put together from these
    uint64_t incomplete;  // ipv4: datagrams that were given up before all of their fragments had come
    uint64_t whole_good;  // of the whole datagrams of this protocol
    uint64_t whole_bad;
    uint64_t whole_absent;
} sample_counts;

typedef enum sample_part {
    SAMPLE_ALL,      // a packet as it arrived
    SAMPLE_PART,     // a fragment, the first or a later one
    SAMPLE_REJOINED  // a datagram whose fragments were put together; each of them has been received before
} sample_part;

// What the network layer tells the protocol above it about a packet.
typedef struct sample_network_header {
    uint8_t source[4];  // as on the wire
    uint8_t destination[4];
    uint8_t protocol;
    sample_part part;
} sample_network_header;

// A connection, seen from its listener. The client is who sent the SYN. Bytes are payload, and each place in
// the stream counts once: what is sent again adds nothing, and a hole that nobody filled counts as sent.
typedef struct sample_connection {
    uint8_t client[4];  // as on the wire
    uint8_t server[4];
    uint16_t client_port;
    uint16_t server_port;
    uint64_t client_bytes;  // sent by the client
    uint64_t server_bytes;
} sample_connection;

// The events that a protocol raises on its endpoints, beside EP_EVENT_READY.
#define SAMPLE_EVENT_DATA 0u                // udp: a datagram has come
#define SAMPLE_EVENT_ENDED EP_EVENT_STORED  // tcp: on a child, with one of the values below
#define SAMPLE_CLOSED 1u                    // both sides have ended, or one has reset, the connection
#define SAMPLE_FAILED 2u  // it never came about; the child is ready nevertheless, to be dequeued and deleted

// What an endpoint whose `top_module` is a sample protocol can do. Thread level.
typedef struct sample_endpoint_operations {
    // From now on what arrives is for this endpoint, until it is deleted; not while packets are received.
    // ERR_DUPLICATE when another endpoint has it. A listener of tcp needs a backlog as well.
    int32_t (*open)(zarn_endpoint_t *ep);

    // udp: hands out the payload of the oldest datagram that nobody has taken; the caller deletes it.
    // ERR_WOULD_BLOCK when there is none. Null elsewhere.
    int32_t (*take_datagram)(zarn_endpoint_t *ep, zarn_data_t **out);

    // tcp: what there is to know about a child. Null elsewhere.
    int32_t (*get_connection)(zarn_endpoint_t *ep, sample_connection *out);
} sample_endpoint_operations;

// The `flags` of every sample protocol module: other modules do not have what follows `protocol`.
#define SAMPLE_PROTOCOL_FLAGS 0x53414d50u

typedef struct sample_protocol_module {
    protocol_module protocol;

    // Takes a packet over. `network` is null below the network layer and valid during the call.
    void (*receive)(zarn_data_t *data, const sample_network_header *network);

    // The protocols above this one that packets have been handed to, by numbers from 0 on; null at the end.
    const struct sample_protocol_module *(*upper_at)(int32_t number);

    // Hands the counts out and starts them again at 0.
    void (*take_counts)(sample_counts *counts);

    // Gives back what is kept from packets, and forgets the protocols above: their modules may go. From the
    // top of a stack to its bottom, because the lowest protocol holds the reference on the family.
    void (*flush)(void);

    const sample_endpoint_operations *endpoints;  // null: endpoints of this protocol do nothing
} sample_protocol_module;

// The messages that the sample protocols send through `zarn_notify`. The payload is a sample_notice.
#define SAMPLE_NOTIFY_BAD_CHECKSUM 1u  // `detail` is the IP protocol number, 0 for the IPv4 header itself
#define SAMPLE_NOTIFY_BACKLOG_FULL 2u  // `detail` is the port that the client wanted

typedef struct sample_notice {
    uint8_t source[4];
    uint8_t destination[4];
} sample_notice;

#ifdef __cplusplus
}
#endif

#endif
