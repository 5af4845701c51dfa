// SPDX-License-Identifier: MIT
#include "host/services.h"

#include <cinttypes>
#include <cstdio>

#include "host/endpoints.h"

namespace {

constexpr uint32_t kEchoPort = 7, kDiscardPort = 9;
constexpr uint32_t kBacklog = 128;

// A buffer of the same bytes: their memory is shared, not copied. The source is gone. Null without memory.
zarn_data_t *clone_payload(zarn_util_module_t *util, zarn_data_t *source) {
    zarn_data_t *clone = util->new_zarn_data();
    if (clone != nullptr && util->clone_zarn_data(clone, source, 0, source->length) != 0) {
        util->delete_zarn_data(clone);
        clone = nullptr;
    }
    util->delete_zarn_data(source);
    return clone;
}

// Datagrams

// Whether an answer to the port may be answered in turn: by an echo, or by one of the services that answer
// whatever they get. With a made-up sender that would never come to an end.
bool would_answer_for_ever(uint16_t port) {
    constexpr uint16_t kDaytime = 13, kQuote = 17, kCharacters = 19, kTime = 37;
    return port == 0 || port == kEchoPort || port == kDaytime || port == kQuote || port == kCharacters ||
           port == kTime;
}

void echo_datagrams(zarn_endpoint_t *ep, uint32_t, uintptr_t argument, uintptr_t) {
    host_services *services = reinterpret_cast<host_service *>(argument)->services;
    zarn_util_module_t *util = services->util;
    const sample_endpoint_operations *can = endpoint_operations(ep);
    sample_peer from;
    zarn_data_t *data;
    while (can->take_datagram(ep, &from, &data) == 0) {
        if (would_answer_for_ever(from.port)) {
            util->delete_zarn_data(data);
            continue;
        }
        zarn_data_t *answer = clone_payload(util, data);
        if (answer == nullptr) continue;
        const uint32_t length = answer->length;
        if (can->send_datagram(ep, &from, answer) != 0) {
            util->delete_zarn_data(answer);
            continue;
        }
        services->counts.datagrams++;
        services->counts.datagram_bytes += length;
    }
}

// Connections

void note_done(host_connection *connection) {
    if (connection->done) return;
    connection->done = true;
    connection->services->done.push_back(connection);
}

// What has come. Null when nothing is there; behind the last of it this side ends, too.
zarn_data_t *take_bytes(host_connection *connection) {
    zarn_data_t *taken;
    const int32_t status = connection->can->take_bytes(connection->endpoint, &taken);
    if (status == SAMPLE_NO_MORE) {
        connection->sending_ended = true;
        connection->can->end_sending(connection->endpoint);
    }
    return status == 0 ? taken : nullptr;
}

// Sends what has come as long as the connection takes it. Without memory for an echo the connection can only
// be given up: deleted before its end, it is reset.
void echo_bytes(host_connection *connection) {
    host_services *services = connection->services;
    zarn_util_module_t *util = services->util;
    while (!connection->done && !connection->sending_ended) {
        if (connection->unsent == nullptr) {
            zarn_data_t *taken = take_bytes(connection);
            if (taken == nullptr) return;
            connection->unsent = clone_payload(util, taken);
            if (connection->unsent == nullptr) {
                note_done(connection);
                return;
            }
        }
        const uint32_t length = connection->unsent->length;
        const int32_t status = connection->can->send_bytes(connection->endpoint, connection->unsent);
        if (status == ERR_WOULD_BLOCK) return;
        if (status == 0) {
            services->counts.echoed_bytes += length;
        } else {  // nobody is there to take it
            util->delete_zarn_data(connection->unsent);
            if (status != SAMPLE_NO_MORE) note_done(connection);
        }
        connection->unsent = nullptr;
    }
}

void discard_bytes(host_connection *connection) {
    host_services *services = connection->services;
    while (!connection->sending_ended) {
        zarn_data_t *taken = take_bytes(connection);
        if (taken == nullptr) return;
        services->counts.discarded_bytes += taken->length;
        services->util->delete_zarn_data(taken);
    }
}

void on_data(zarn_endpoint_t *, uint32_t, uintptr_t argument, uintptr_t) {
    auto *connection = reinterpret_cast<host_connection *>(argument);
    if (connection->kind == service_kind::kEcho) {
        echo_bytes(connection);
    } else {
        discard_bytes(connection);
    }
}

void on_end(zarn_endpoint_t *, uint32_t, uintptr_t connection, uintptr_t) {
    note_done(reinterpret_cast<host_connection *>(connection));
}

void on_child(zarn_endpoint_t *, uint32_t, uintptr_t service, uintptr_t) {
    reinterpret_cast<host_service *>(service)->services->children_ready = true;
}

void accept(host_service *listener, zarn_endpoint_t *child) {
    host_services *services = listener->services;
    zarn_util_module_t *util = services->util;
    services->counts.connections++;
    if (child->event2_value == SAMPLE_FAILED) {
        services->counts.failed++;
        delete_endpoint(util, child);
        return;
    }
    auto *connection =
        new host_connection{services, listener->kind, child, endpoint_operations(child),  {}, {},
                            nullptr,  false,          false, services->connections.size()};
    const auto argument = reinterpret_cast<uintptr_t>(connection);
    connection->data_hook = {nullptr, on_data, argument, 0, 0};
    connection->end_hook = {nullptr, on_end, argument, 0, 0};
    services->connections.push_back(connection);
    ep_add_hook(util, child, SAMPLE_EVENT_DATA, &connection->data_hook);
    ep_add_hook(util, child, SAMPLE_EVENT_ENDED, &connection->end_hook);
    // What was raised before has met no hook.
    on_data(child, 0, argument, 0);
    if (child->event2_value != 0) note_done(connection);
}

void finish(host_services *services, host_connection *connection) {
    zarn_util_module_t *util = services->util;
    ep_remove_hook(util, connection->endpoint, SAMPLE_EVENT_DATA, &connection->data_hook);
    ep_remove_hook(util, connection->endpoint, SAMPLE_EVENT_ENDED, &connection->end_hook);
    if (connection->unsent != nullptr) util->delete_zarn_data(connection->unsent);
    delete_endpoint(util, connection->endpoint);
    services->connections[connection->place] = services->connections.back();
    services->connections[connection->place]->place = connection->place;
    services->connections.pop_back();
    delete connection;
}

// Starting

bool can_serve(const sample_endpoint_operations *can, service_kind kind) {
    if (can == nullptr) return false;
    if (kind == service_kind::kDatagramEcho)
        return can->take_datagram != nullptr && can->send_datagram != nullptr;
    return can->take_bytes != nullptr && can->send_bytes != nullptr && can->end_sending != nullptr;
}

int32_t open_service(host_service *service) {
    zarn_util_module_t *util = service->services->util;
    const bool datagrams = service->kind == service_kind::kDatagramEcho;
    zarn_endpoint_t *ep;
    int32_t status = util->ep_new_endpoint(&ep, SAMPLE_FAMILY, datagrams ? kDatagrams : kStreams,
                                           datagrams ? kUdpProtocol : kTcpProtocol);
    if (status != 0) return status;
    ep->copied_word_1 = service->port;
    const sample_endpoint_operations *can = endpoint_operations(ep);
    status = can_serve(can, service->kind) ? can->open(ep) : ERR_BAD_VALUE;
    service->hook = {nullptr, datagrams ? echo_datagrams : on_child, reinterpret_cast<uintptr_t>(service), 0,
                     0};
    if (status == 0)
        status = ep_add_hook(util, ep, datagrams ? SAMPLE_EVENT_DATA : EP_EVENT_READY, &service->hook);
    if (status != 0) {
        delete_endpoint(util, ep);
        return status;
    }
    service->endpoint = ep;
    if (!datagrams) util->ep_set_backlog(ep, kBacklog);
    return 0;
}

}  // namespace

std::string service_text(const host_service &service) {
    const char *what = service.kind == service_kind::kDatagramEcho ? "UDP echo"
                       : service.kind == service_kind::kEcho       ? "TCP echo"
                                                                   : "TCP discard";
    return what + (" on port " + std::to_string(service.port));
}

void start_services(host_services *services, zarn_util_module_t *util) {
    constexpr struct {
        service_kind kind;
        uint32_t port;
    } kServices[] = {{service_kind::kDatagramEcho, kEchoPort},
                     {service_kind::kEcho, kEchoPort},
                     {service_kind::kDiscard, kDiscardPort}};
    services->util = util;
    for (const auto &[kind, port] : kServices) {
        auto *service = new host_service{services, kind, port, nullptr, {}};
        const int32_t status = open_service(service);
        if (status == 0) {
            services->all.push_back(service);
            continue;
        }
        const char *why = status == ERR_NO_STACK    ? "the settings have no stack for it"
                          : status == ERR_BAD_VALUE ? "the protocol that the settings name for it can't"
                                                    : nullptr;
        fprintf(stderr, "zarn: no %s: ", service_text(*service).c_str());
        if (why != nullptr) {
            fprintf(stderr, "%s\n", why);
        } else {
            fprintf(stderr, "the endpoint can't be made (status 0x%08" PRIx32 ")\n",
                    static_cast<uint32_t>(status));
        }
        delete service;
    }
}

void serve_clients(host_services *services) {
    if (services->children_ready) {
        services->children_ready = false;
        for (host_service *service : services->all) {
            if (service->kind == service_kind::kDatagramEcho) continue;
            while (zarn_endpoint_t *child = services->util->ep_dequeue_endpoint(service->endpoint))
                accept(service, child);
        }
    }
    while (!services->done.empty()) {
        host_connection *connection = services->done.back();
        services->done.pop_back();
        finish(services, connection);
    }
}

void stop_services(host_services *services) {
    services->children_ready = true;  // or about to be: with the others they are deleted here
    serve_clients(services);
    while (!services->connections.empty())
        finish(services, services->connections.back());
    for (host_service *service : services->all) {
        const bool datagrams = service->kind == service_kind::kDatagramEcho;
        ep_remove_hook(services->util, service->endpoint, datagrams ? SAMPLE_EVENT_DATA : EP_EVENT_READY,
                       &service->hook);
        delete_endpoint(services->util, service->endpoint);
        delete service;
    }
    services->all.clear();
}
