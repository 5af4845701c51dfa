// SPDX-License-Identifier: MIT
//
// What the files of the TCP module have in common. Where to find what:
//
//     tcp.c             receives segments, and opens and ends endpoints
//     tcp_observer.c    follows the connections of others, as long as there is no device
//     tcp_host.c        on a device: finds the connection of a segment, and makes new ones
//     tcp_endpoint.c    what the client of a connection does with it, and what it is told
//     tcp_input.c       what an arriving segment does to its connection
//     tcp_queue.c       the bytes that wait, in either direction
//     tcp_output.c      makes segments and sends what may be sent
//     tcp_congestion.c  how much may be under way, and for how long
//     tcp_sack.c        what has come behind a hole, in either direction
//     tcp_timer.c       what happens when nothing has happened

#ifndef SAMPLE_TCP_H
#define SAMPLE_TCP_H

#include "sample_packet.h"

#pragma GCC visibility push(hidden)

enum { kShortestHeader = 20, kFlags = 13, kTcpProtocol = 6 };
enum { kFin = 1, kSyn = 2, kReset = 4, kPush = 8, kAck = 16 };

typedef struct segment {
    const sample_network_header *network;
    uint16_t source_port, destination_port;
    uint32_t sequence, acknowledged;
    uint32_t window;   // as in the header
    uint32_t header;   // bytes, options included
    uint32_t payload;  // bytes on the wire
    uint8_t flags;
    const uint8_t *options;  // valid as long as the buffer; null: none, or not captured
} segment;

// An option, its kind in byte 0 and its length in byte 1. Null: there is none in front of anything malformed.
const uint8_t *find_option(const segment *in, uint8_t kind);

extern const sample_protocol_module gTcp;

// Guards the listeners, and the observer's connections. Nothing is called under it that takes the lock of an
// endpoint: endpoints are deleted, and this lock is taken, with the lock of a listener held.
extern zarn_tallylock_t gLock;

// Who takes connections to the port, or null. Under the lock.
zarn_endpoint_t *find_listener(uint16_t port);

// The observer keeps a connection in the node of an endpoint; so does the host, of another kind.
void observe_segment(const segment *in);
void forget_observed(proto_node *node);
void describe_observed(const proto_node *node, sample_connection *out);

extern const sample_host_operations kHost;
int attached(void);                                          // whether there is a device
void receive_segment(const segment *in, zarn_data_t *data);  // takes the buffer over, the header in it
void release_endpoint(proto_node *node);
void describe_connection(const proto_node *node, sample_connection *out);

int32_t take_bytes(zarn_endpoint_t *ep, zarn_data_t **out);
int32_t send_bytes(zarn_endpoint_t *ep, zarn_data_t *data);
int32_t end_sending(zarn_endpoint_t *ep);

#pragma GCC visibility pop

#endif
