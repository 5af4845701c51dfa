// SPDX-License-Identifier: MIT
#include "host/connections.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "host/endpoints.h"
#include "platform/hosted/hosted_kernel.h"
#include "platform/kern.h"

namespace {

constexpr int32_t kThreadPriority = 10;

enum : uint32_t { kRequestNothing, kRequestDrain, kRequestLeave };

// The exchange pairs with the one in accept_connections: whoever finds 1 here has a unit on its way, and what
// was changed before is seen by the look behind that unit.
void wake(endpoint_client *client) {
    if (__atomic_exchange_n(&client->woken, 1, __ATOMIC_ACQ_REL) == 0) kern_sem_release(client->wake_sem);
}

void on_event(zarn_endpoint_t *, uint32_t, uintptr_t client, uintptr_t) {
    wake(reinterpret_cast<endpoint_client *>(client));
}

// Puts the connection on the stack of those that have ended, the first time that it is called.
void note_end(accepted_connection *connection, uint32_t value) {
    if (__atomic_exchange_n(&connection->end, value, __ATOMIC_RELAXED) != 0) return;
    endpoint_client *client = connection->client;
    accepted_connection *head = __atomic_load_n(&client->ended, __ATOMIC_RELAXED);
    do {
        connection->next_ended = head;
        // Pairs with the exchange in end_connections.
    } while (!__atomic_compare_exchange_n(&client->ended, &head, connection, true, __ATOMIC_RELEASE,
                                          __ATOMIC_RELAXED));
    wake(client);
}

void on_end(zarn_endpoint_t *, uint32_t value, uintptr_t connection, uintptr_t) {
    note_end(reinterpret_cast<accepted_connection *>(connection), value);
}

uint32_t read_end(zarn_util_module_t *util, zarn_endpoint_t *ep) {
    util->zarn_lock_tallylock(&ep->lock);
    uint32_t value = ep->event2_value;
    util->zarn_unlock_tallylock(&ep->lock);
    return value;
}

void accept(endpoint_client *client, zarn_endpoint_t *child) {
    zarn_util_module_t *util = client->util;
    if (read_end(util, child) == SAMPLE_FAILED) {
        client->totals.failed++;
        delete_endpoint(util, child);
        return;
    }
    auto *connection = new accepted_connection{};
    connection->hook = {nullptr, on_end, reinterpret_cast<uintptr_t>(connection), 0, 0};
    connection->client = client;
    connection->endpoint = child;
    connection->number = client->totals.accepted.size();
    connection->place = client->open.size();
    client->totals.accepted.push_back({});
    client->open.push_back(connection);
    ep_add_hook(util, child, SAMPLE_EVENT_ENDED, &connection->hook);
    // An end that was raised before has met no hook.
    if (uint32_t value = read_end(util, child); value != 0) note_end(connection, value);
}

void finish(endpoint_client *client, accepted_connection *connection, bool open) {
    zarn_util_module_t *util = client->util;
    connection_totals::connection *entry = &client->totals.accepted[connection->number];
    endpoint_operations(connection->endpoint)->get_connection(connection->endpoint, &entry->facts);
    entry->open = open;
    client->open[connection->place] = client->open.back();
    client->open[connection->place]->place = connection->place;
    client->open.pop_back();
    // Taking the hook off also waits for the call that has brought us here.
    ep_remove_hook(util, connection->endpoint, SAMPLE_EVENT_ENDED, &connection->hook);
    delete_endpoint(util, connection->endpoint);
    delete connection;
}

void end_connections(endpoint_client *client) {
    accepted_connection *ended = __atomic_exchange_n(&client->ended, nullptr, __ATOMIC_ACQUIRE);
    while (ended != nullptr) {
        accepted_connection *next = ended->next_ended;
        finish(client, ended, false);
        ended = next;
    }
}

void look_at_endpoints(endpoint_client *client) {
    zarn_util_module_t *util = client->util;
    if (client->listener != nullptr) {
        while (zarn_endpoint_t *child = util->ep_dequeue_endpoint(client->listener))
            accept(client, child);
        end_connections(client);
    }
    if (client->receiver != nullptr) {
        zarn_data_t *data;
        while (endpoint_operations(client->receiver)->take_datagram(client->receiver, nullptr, &data) == 0) {
            client->totals.datagrams++;
            client->totals.datagram_bytes += data->length;
            util->delete_zarn_data(data);
        }
    }
}

// No more frames come: what hasn't ended yet never will.
void end_the_rest(endpoint_client *client) {
    while (!client->open.empty())
        finish(client, client->open.back(), true);
    zarn_endpoint_t *listener = client->listener;
    if (listener == nullptr) return;
    zarn_util_module_t *util = client->util;
    util->zarn_lock_tallylock(&listener->lock);
    client->totals.half_open = static_cast<uint64_t>(listener->backlog - listener->room);
    util->zarn_unlock_tallylock(&listener->lock);
    util->ep_set_backlog(listener, 0);
    util->ep_set_backlog(listener, static_cast<uint32_t>(client->backlog));
}

int32_t accept_connections(void *argument) {
    endpoint_client *client = static_cast<endpoint_client *>(argument);
    uint32_t request = kRequestNothing;
    while (request != kRequestLeave) {
        kern_sem_acquire(client->wake_sem);
        __atomic_exchange_n(&client->woken, 0, __ATOMIC_ACQ_REL);
        // Read before the look: what had been raised before the request is seen by it.
        request = __atomic_exchange_n(&client->request, kRequestNothing, __ATOMIC_ACQUIRE);
        look_at_endpoints(client);
        if (request == kRequestNothing) continue;
        end_the_rest(client);
        kern_sem_release(client->done_sem);
    }
    return 0;
}

void make_request(endpoint_client *client, uint32_t request) {
    __atomic_store_n(&client->request, request, __ATOMIC_RELEASE);
    wake(client);
    kern_sem_acquire(client->done_sem);
}

// Makes an endpoint and takes what arrives for it. Without a stack in zarn.conf `*out` stays null, and all is
// well.
bool open_endpoint(endpoint_client *client, int32_t key1, int32_t key2, const char *name, uint32_t event,
                   ep_hook *hook, zarn_endpoint_t **out) {
    zarn_util_module_t *util = client->util;
    zarn_endpoint_t *ep;
    int32_t status = util->ep_new_endpoint(&ep, SAMPLE_FAMILY, key1, key2);
    if (status == ERR_NO_STACK || status == ERR_NO_FAMILY) return true;
    if (status == 0) {
        const sample_endpoint_operations *can = endpoint_operations(ep);
        bool fit = can != nullptr &&
                   (key1 == kStreams ? can->get_connection != nullptr : can->take_datagram != nullptr);
        status = fit ? can->open(ep) : ERR_BAD_VALUE;
        if (status == 0) status = ep_add_hook(util, ep, event, hook);
        if (status != 0) delete_endpoint(util, ep);
    }
    if (status != 0) {
        fprintf(stderr,
                "zarn: can't make the %s endpoint that the settings tell of (status 0x%08" PRIx32 ")\n", name,
                static_cast<uint32_t>(status));
        return false;
    }
    *out = ep;
    return true;
}

bool start_thread(endpoint_client *client) {
    client->wake_sem = kern_sem_create(0, "endpoint events");
    client->done_sem = kern_sem_create(0, "endpoints done");
    if (client->wake_sem >= 0 && client->done_sem >= 0) {
        int32_t thread = kern_thread_spawn(accept_connections, "accepting", kThreadPriority, client);
        if (thread >= 0 && kern_thread_resume(thread) == 0) return true;
    }
    fprintf(stderr, "zarn: no thread or no semaphore for the endpoints\n");
    return false;
}

void delete_all(endpoint_client *client) {
    if (client->receiver != nullptr) {
        ep_remove_hook(client->util, client->receiver, SAMPLE_EVENT_DATA, &client->data_hook);
        delete_endpoint(client->util, client->receiver);
    }
    if (client->listener != nullptr) {
        ep_remove_hook(client->util, client->listener, EP_EVENT_READY, &client->ready_hook);
        delete_endpoint(client->util, client->listener);
    }
    for (int32_t sem : {client->wake_sem, client->done_sem})
        if (sem >= 0) kern_sem_delete(sem);
}

}  // namespace

bool start_endpoints(endpoint_client *client, zarn_util_module_t *util, int32_t backlog) {
    *client = {};
    client->util = util;
    client->backlog = backlog;
    client->wake_sem = client->done_sem = -1;
    client->threads_before = hosted_count_objects().threads;
    client->ready_hook = client->data_hook = {nullptr, on_event, reinterpret_cast<uintptr_t>(client), 0, 0};
    bool started = open_endpoint(client, kStreams, kTcpProtocol, "TCP", EP_EVENT_READY, &client->ready_hook,
                                 &client->listener) &&
                   open_endpoint(client, kDatagrams, kUdpProtocol, "UDP", SAMPLE_EVENT_DATA,
                                 &client->data_hook, &client->receiver) &&
                   start_thread(client);
    if (!started) {
        delete_all(client);
        return false;
    }
    if (client->listener != nullptr) util->ep_set_backlog(client->listener, static_cast<uint32_t>(backlog));
    return true;
}

connection_totals drain_endpoints(endpoint_client *client) {
    make_request(client, kRequestDrain);
    return std::exchange(client->totals, {});
}

void stop_endpoints(endpoint_client *client) {
    make_request(client, kRequestLeave);
    hosted_wait_for_threads(client->threads_before, KERN_TIMEOUT_FOREVER);
    delete_all(client);
}
