// SPDX-License-Identifier: MIT
//
// The client above the protocols: a TCP listener whose children are the connections in the capture, and a UDP
// endpoint that gets the datagrams.
//
//     consumer                                      accepting thread
//     SYN: ep_spawn_endpoint
//     handshake done: ep_ready_endpoint --hook-->   ep_dequeue_endpoint, hook on the child's end
//     end: ep_notify_endpoint           --hook-->   get_connection, ep_delete_endpoint
//     datagram: ep_notify_endpoint      --hook-->   take_datagram
//
// - A hook runs on the consumer's thread with the endpoint's lock held: it wakes the accepting thread and
//   does nothing else.
// - start, drain and stop are for one thread, which sees to it that no frames are received meanwhile.

#ifndef ZARN_HOST_CONNECTIONS_H
#define ZARN_HOST_CONNECTIONS_H

#include <zarn/zarn_endpoint_hooks.h>

#include <cstdint>
#include <vector>

#include "examples/modules/sample_protocol.h"

constexpr int32_t kDefaultBacklog = 128;

struct connection_totals {
    struct connection {
        sample_connection facts;
        bool open;  // its end isn't in the capture
    };
    std::vector<connection> accepted;  // in the order in which their handshakes were done
    uint64_t failed = 0;               // reset before that
    uint64_t half_open = 0;            // neither done nor reset
    uint64_t datagrams = 0;
    uint64_t datagram_bytes = 0;
};

// A connection that was accepted and not ended yet.
struct accepted_connection {
    ep_hook hook;  // on the endpoint's end
    struct endpoint_client *client;
    zarn_endpoint_t *endpoint;
    uint32_t end;                     // atomic: SAMPLE_CLOSED once it has ended
    accepted_connection *next_ended;  // atomic
    size_t number;                    // in the totals
    size_t place;                     // among those that are open
};

struct endpoint_client {
    zarn_util_module_t *util;
    zarn_endpoint_t *listener;  // null: zarn.conf has no stack for it
    zarn_endpoint_t *receiver;  // likewise
    int32_t backlog;
    ep_hook ready_hook, data_hook;
    int32_t wake_sem, done_sem;
    int32_t threads_before;
    uint32_t woken;              // atomic: 1 from the ring to the look
    uint32_t request;            // atomic
    accepted_connection *ended;  // atomic; a stack that only the accepting thread takes from, all at once
    // The accepting thread's own, but for the time between a drain and the next frame.
    std::vector<accepted_connection *> open;
    connection_totals totals;
};

// Makes the endpoints that zarn.conf has stacks for, and the accepting thread. False, with a line on stderr
// and nothing left, when one of them can't be had.
bool start_endpoints(endpoint_client *client, zarn_util_module_t *util, int32_t backlog);

// Deals with all that the protocols have raised, ends what is still open, and hands out what there was since
// the last time. Nothing of it is left on the endpoints.
connection_totals drain_endpoints(endpoint_client *client);

// Ends the thread and deletes the endpoints, which have been drained.
void stop_endpoints(endpoint_client *client);

#endif
