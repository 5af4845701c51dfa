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
// - The protocols look on, unless they are attached to a device: then they are a host on its network, which
//   answers. Everything then happens on one thread, the stack's: it receives, calls `attend`, and is the one
//   that uses endpoints. Other threads, the timer thread among them, call nothing but `request_attention`.

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

    // On a device.
    uint64_t sent;         // packets that were handed to the protocol below, or to the device
    uint64_t sent_bytes;   // of these, the protocol's own header included
    uint64_t undelivered;  // packets to send that went nowhere: no way there, no answer, no memory
    uint64_t foreign;      // received, but not for this host, or from nobody who could have sent them
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
    const struct sample_protocol_module *below;  // attached to a device: who sends the answer; else null
    const uint8_t *header;  // the header itself; of a datagram put together, that of its first fragment
    uint32_t header_length;
} sample_network_header;

// A live device, which the host supplies. Constant while protocols are attached to it.
typedef struct sample_device {
    uint8_t hardware[6];  // its Ethernet address
    uint8_t address[4];   // the host's IPv4 address on it, as on the wire
    uint32_t prefix;      // bits of `address` that name the network, 1 to 31: there is no way out of it
    uint32_t mtu;         // most bytes behind the Ethernet header
    uint64_t secret[2];   // random: what an outsider must not guess is made of it

    // Sends a whole Ethernet frame and takes it over. A frame that the device has no room for is lost. On the
    // stack's thread.
    void (*transmit)(const struct sample_device *device, zarn_data_t *frame);

    // How many more received frames may be kept. At 0 a protocol keeps nothing of what it receives: some
    // frames' memory is held back for what is dealt with at once, so that acknowledgements still come
    // through when everything is full. On the stack's thread.
    uint32_t (*room)(const struct sample_device *device);

    // Has the stack's thread call `attend` of all protocols soon. Any thread.
    void (*request_attention)(const struct sample_device *device);

    // Microseconds on a clock that only goes forward. Any thread.
    int64_t (*now)(const struct sample_device *device);
} sample_device;

// Whom a packet goes to, as the layer that sends it names it.
typedef struct sample_destination {
    uint8_t address[4];  // of the peer; below the network layer that of the next hop
    uint16_t protocol;   // what the packet is to the layer that sends it: IP protocol number, EtherType
} sample_destination;

typedef enum sample_refusal { SAMPLE_NO_PROTOCOL = 2, SAMPLE_NO_PORT = 3 } sample_refusal;  // codes of ICMP

// What a protocol does on a device. On the stack's thread; operations that a protocol has no use for are
// null.
typedef struct sample_host_operations {
    // From now on the protocol is part of a host. `below` is the one that hands it its packets, null for the
    // lowest. It looks its uppers up, so that `upper_at` tells them, without waiting for packets. Negative:
    // nothing has changed.
    int32_t (*attach)(const sample_device *device, const struct sample_protocol_module *below);

    // Gives back what belongs to the device. Uppers first, with all of their endpoints deleted.
    void (*detach)(void);

    // Deals with what is due: that of timers that have run out, and whatever else can't be done where it
    // comes up. Called after every batch of frames and after `request_attention`.
    void (*attend)(void);

    // Puts the protocol's header before `data` and sends it. Takes the buffer over, always; its memory may be
    // shared with others, so nothing of it is written to. A packet that can't be delivered is lost, as it is
    // on the wire.
    void (*send)(zarn_data_t *data, const sample_destination *to);

    // icmp, and ipv4 on its behalf: tells the sender of a packet, which is `data` from behind the network's
    // header on, that it can't be delivered. The buffer stays the caller's.
    void (*refuse)(zarn_data_t *data, const sample_network_header *network, sample_refusal why);

    // arp: the six bytes of the hardware address of `to`, valid until the next call of the protocol. Null
    // when it isn't known yet: then the buffer was taken over, and is sent again by the protocol below when
    // it is.
    const uint8_t *(*resolve)(zarn_data_t *data, const sample_destination *to);
} sample_host_operations;

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

// The other side of a datagram.
typedef struct sample_peer {
    uint8_t address[4];  // as on the wire
    uint16_t port;
} sample_peer;

// The events that a protocol raises on its endpoints, beside EP_EVENT_READY. A hook may use the `take_` and
// `send_` operations of the endpoint, `end_sending` too: none of them takes its lock or raises an event.
#define SAMPLE_EVENT_DATA 0u                // udp: a datagram has come; tcp: see `take_bytes`
#define SAMPLE_EVENT_ENDED EP_EVENT_STORED  // tcp: on a child, with one of the values below
#define SAMPLE_CLOSED 1u                    // both sides have ended, or one has reset, the connection
#define SAMPLE_FAILED 2u  // it never came about; the child is ready nevertheless, to be dequeued and deleted

// What an endpoint whose `top_module` is a sample protocol can do. Thread level. What a protocol can't do is
// null.
typedef struct sample_endpoint_operations {
    // From now on what arrives for the port in `copied_word_1`, 0 for all ports, is for this endpoint, until
    // it is deleted; not while packets are received. ERR_DUPLICATE when another endpoint has the port. A
    // listener of tcp needs a backlog as well. Children have their listener's port.
    int32_t (*open)(zarn_endpoint_t *ep);

    // udp: hands out the payload of the oldest datagram that nobody has taken, and in `*from`, which may be
    // null, who has sent it; the caller deletes it. ERR_WOULD_BLOCK when there is none.
    int32_t (*take_datagram)(zarn_endpoint_t *ep, sample_peer *from, zarn_data_t **out);

    // tcp: what there is to know about a child.
    int32_t (*get_connection)(zarn_endpoint_t *ep, sample_connection *out);

    // From here on only for endpoints of a host on a device.

    // udp: sends a datagram. Takes the buffer over, unless it is too long: ERR_BAD_VALUE.
    int32_t (*send_datagram)(zarn_endpoint_t *ep, const sample_peer *to, zarn_data_t *data);

    // tcp: hands out the bytes that have come in order and that nobody has taken, and lets the peer send as
    // many more. SAMPLE_EVENT_DATA is raised when there are such bytes, when the peer has ended its side, and
    // when a refused `send_bytes` is worth another try. ERR_WOULD_BLOCK: nothing there yet; SAMPLE_NO_MORE:
    // the peer has ended its side, and all has been taken.
    int32_t (*take_bytes)(zarn_endpoint_t *ep, zarn_data_t **out);

    // tcp: queues bytes, which stay in their memory until the peer has acknowledged them, and sends what it
    // may. Takes the buffer over with 0. ERR_WOULD_BLOCK: no room now. SAMPLE_NO_MORE: this side has ended,
    // or the connection is gone.
    int32_t (*send_bytes)(zarn_endpoint_t *ep, zarn_data_t *data);

    // tcp: ends this side behind what was queued. The connection ends when the peer has done so, too.
    // Deleting an endpoint before SAMPLE_EVENT_ENDED resets the connection.
    int32_t (*end_sending)(zarn_endpoint_t *ep);
} sample_endpoint_operations;

#define SAMPLE_NO_MORE (-2)

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
    const sample_host_operations *host;           // null: the protocol only looks on
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
