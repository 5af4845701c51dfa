// SPDX-License-Identifier: MIT
//
// What the host on a device serves, through endpoints: UDP echo on port 7, TCP echo on port 7, and TCP
// discard on port 9.
//
//     hooks, with the endpoint's lock held     serve_clients, behind each batch of frames
//     datagram, bytes: take, clone, send
//     child ready: note                        ep_dequeue_endpoint, hooks on
//     connection ended: note                   hooks off, ep_delete_endpoint
//
// All of it happens on the stack's thread.

#ifndef ZARN_HOST_SERVICES_H
#define ZARN_HOST_SERVICES_H

#include <zarn/zarn_endpoint_hooks.h>

#include <cstdint>
#include <string>
#include <vector>

#include "examples/modules/sample_protocol.h"

struct host_services;

enum class service_kind { kDatagramEcho, kEcho, kDiscard };

// An endpoint that was opened for a port.
struct host_service {
    host_services *services;
    service_kind kind;
    uint32_t port;
    zarn_endpoint_t *endpoint;  // null: not served
    ep_hook hook;               // datagrams on their data, listeners on ready children
};

// A connection that was accepted, until it is deleted.
struct host_connection {
    host_services *services;
    service_kind kind;
    zarn_endpoint_t *endpoint;
    const sample_endpoint_operations *can;
    ep_hook data_hook, end_hook;
    zarn_data_t *unsent;  // taken and refused by send_bytes; while it is there nothing is taken
    bool sending_ended;
    bool done;     // on the list of those to be deleted
    size_t place;  // among all
};

struct service_counts {
    uint64_t datagrams, datagram_bytes;  // echoed
    uint64_t connections, failed;        // accepted; of these, reset before they were made
    uint64_t echoed_bytes, discarded_bytes;
};

struct host_services {
    zarn_util_module_t *util = nullptr;
    std::vector<host_service *> all;
    std::vector<host_connection *> connections;  // that are open
    std::vector<host_connection *> done;         // of these, to be deleted
    bool children_ready = false;
    service_counts counts = {};
};

// Opens the endpoints. What can't be served is told in a line on stderr, and left out.
void start_services(host_services *services, zarn_util_module_t *util);

// Deals with what hooks have noted.
void serve_clients(host_services *services);

// Resets the connections that are open and deletes all endpoints.
void stop_services(host_services *services);

// "UDP echo on port 7", ...
std::string service_text(const host_service &service);

#endif
