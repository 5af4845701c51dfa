// SPDX-License-Identifier: MIT
//
// UDP (RFC 768): a checksum that may be absent, over as many bytes as the header says. The payload of what is
// not wrong goes to the endpoint that was opened for its port, or for all ports. On a device endpoints send
// datagrams, too, and the sender of one that nobody wants is told so.

#include "sample_module.h"

#include "sample_host.h"

enum { kHeader = 8, kQueueBytes = 1 << 20, kLongestPayload = 65507, kProtocol = 17 };

// What a protocol node of an endpoint refers to.
typedef struct receiver {
    struct receiver *next;  // of those that were opened
    zarn_endpoint_t *endpoint;
    zarn_fifo_t queue;
} receiver;

static receiver *gReceivers;          // changed only while no packets are received
static const sample_device *gDevice;  // null: the datagrams are those of others
static const sample_protocol_module *gBelow;

static const sample_protocol_module gUdp;

static sample_verdict check(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->part == SAMPLE_PART) return kUnverified;
    const uint8_t *header = map_bytes(data, 0, kHeader);
    if (header == NULL) return kUnverified;
    if (read16(header + 6) == 0) return kAbsent;
    uint32_t length = read16(header + 4);
    if (length < kHeader || length > data->length || data->length < data->user_word_1) return kUnverified;
    return transport_sum_ok(data, length, network) ? kGood : kBad;
}

// Whom datagrams for the port are for; null: for nobody.
static receiver *find_receiver(uint16_t port) {
    receiver *found = NULL;
    for (receiver *other = gReceivers; other != NULL; other = other->next) {
        if (other->endpoint->copied_word_1 == port) return other;
        if (other->endpoint->copied_word_1 == 0) found = other;
    }
    return found;
}

// Takes the datagram over. On the queue its two words tell who has sent it.
static void deliver(zarn_data_t *data, const sample_network_header *network) {
    const uint8_t *header = map_bytes(data, 0, kHeader);
    uint32_t length = header != NULL ? read16(header + 4) : 0;
    if (length < kHeader || length > data->length) {
        gUtil->delete_zarn_data(data);
        return;
    }
    receiver *to = find_receiver(read16(header + 2));
    if (to == NULL) {
        if (network != NULL && network->below != NULL)
            network->below->host->refuse(data, network, SAMPLE_NO_PORT);
        gUtil->delete_zarn_data(data);
        return;
    }
    data->user_word_1 = network != NULL ? read32(network->source) : 0;
    data->user_word_2 = read16(header);
    if (length < data->length) gUtil->trim_zarn_data(data, length, data->length - length);
    gUtil->trim_zarn_data(data, 0, kHeader);
    int room = gDevice == NULL || gDevice->room(gDevice) != 0;
    if (room && gUtil->enqueue_zarn_fifo_data(&to->queue, data) == 0) {
        gUtil->ep_notify_endpoint(to->endpoint, SAMPLE_EVENT_DATA, length - kHeader);
    } else {
        gCounts.refused++;
        gUtil->delete_zarn_data(data);
    }
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    sample_verdict verdict = check(data, network);
    count_packet(data, network, verdict);
    if (verdict == kGood || verdict == kAbsent) {
        deliver(data, network);
    } else {
        gUtil->delete_zarn_data(data);
    }
}

// Endpoints

static int32_t init_udp(proto_node *node) {
    receiver *created = gUtil->zarn_malloc(sizeof(receiver));
    if (created == NULL) return ERR_NO_MEMORY;
    if (gUtil->create_zarn_fifo(&created->queue, "udp datagrams", kQueueBytes) != 0) {
        gUtil->zarn_free(created);
        return ERR_NO_MEMORY;
    }
    created->endpoint = node->endpoint;
    node->data = (uintptr_t)created;
    return 0;
}

static int32_t uninit_udp(proto_node *node) {
    receiver *gone = (receiver *)node->data;
    receiver **link = &gReceivers;
    while (*link != NULL && *link != gone)
        link = &(*link)->next;
    if (*link != NULL) *link = gone->next;
    gUtil->delete_zarn_fifo(&gone->queue);
    gUtil->zarn_free(gone);
    return 0;
}

static int32_t open_endpoint(zarn_endpoint_t *ep) {
    proto_node *node = find_node(ep, &gUdp);
    if (node == NULL) return ERR_BAD_VALUE;
    receiver *opened = (receiver *)node->data;
    for (receiver *other = gReceivers; other != NULL; other = other->next) {
        if (other == opened) return 0;
        if (other->endpoint->copied_word_1 == ep->copied_word_1) return ERR_DUPLICATE;
    }
    opened->next = gReceivers;
    gReceivers = opened;
    return 0;
}

static int32_t take_datagram(zarn_endpoint_t *ep, sample_peer *from, zarn_data_t **out) {
    proto_node *node = find_node(ep, &gUdp);
    if (node == NULL) return ERR_BAD_VALUE;
    int32_t status = gUtil->dequeue_zarn_fifo_data(&((receiver *)node->data)->queue, out, 0, 0);
    if (status < 0) return status;
    if (from != NULL) {
        write32(from->address, (*out)->user_word_1);
        from->port = (uint16_t)(*out)->user_word_2;
    }
    return 0;
}

static int32_t send_datagram(zarn_endpoint_t *ep, const sample_peer *to, zarn_data_t *data) {
    if (gDevice == NULL || data->length > kLongestPayload) return ERR_BAD_VALUE;
    uint8_t *header = prepend_header(data, kHeader);
    if (header == NULL) {
        lose_packet(data);
        return 0;
    }
    write16(header, ep->copied_word_1);
    write16(header + 2, to->port);
    write16(header + 4, data->length);
    write16(header + 6, 0);
    uint32_t checksum = transport_checksum(data, data->length, gDevice->address, to->address, kProtocol);
    write_checksum(header + 6, checksum != 0 ? checksum : 0xffff);  // 0 would say that there is none
    sample_destination destination = {.protocol = kProtocol};
    copy_bytes(destination.address, to->address, 4);
    count_departure(data);
    gBelow->host->send(data, &destination);
    return 0;
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    gDevice = device;
    gBelow = below;
    return 0;
}

static void detach(void) {
    gDevice = NULL;
}

static const sample_host_operations kHost = {.attach = attach, .detach = detach};
static const sample_endpoint_operations kEndpoints = {
    .open = open_endpoint, .take_datagram = take_datagram, .send_datagram = send_datagram};
static const sample_protocol_module gUdp = {
    {{"network/udp", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_udp, uninit_udp},
    receive,
    upper_at,
    take_counts,
    forget_uppers,
    &kEndpoints,
    &kHost};
const void *const modules[] = {&gUdp, NULL};
