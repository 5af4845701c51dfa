// SPDX-License-Identifier: MIT
//
// UDP (RFC 768): a checksum that may be absent, over as many bytes as the header says. The payload of what is
// not wrong goes to the endpoint that was opened, whatever its port: what is received here are the datagrams
// of others.

#include "sample_module.h"

enum { kHeader = 8, kQueueBytes = 1 << 20 };

// The endpoint that was opened; changed only while no packets are received.
static zarn_endpoint_t *gReceiver;
static zarn_fifo_t *gQueue;  // its queue

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

// Takes the datagram over. On the queue its two words tell who has sent it.
static void deliver(zarn_data_t *data, const sample_network_header *network) {
    const uint8_t *header = map_bytes(data, 0, kHeader);
    uint32_t length = header != NULL ? read16(header + 4) : 0;
    if (gReceiver == NULL || length < kHeader || length > data->length) {
        gUtil->delete_zarn_data(data);
        return;
    }
    data->user_word_1 = network != NULL ? read32(network->source) : 0;
    data->user_word_2 = read16(header);
    if (length < data->length) gUtil->trim_zarn_data(data, length, data->length - length);
    gUtil->trim_zarn_data(data, 0, kHeader);
    if (gUtil->enqueue_zarn_fifo_data(gQueue, data) == 0) {
        gUtil->ep_notify_endpoint(gReceiver, SAMPLE_EVENT_DATA, length - kHeader);
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

static int32_t init_udp(proto_node *node) {
    zarn_fifo_t *queue = gUtil->zarn_malloc(sizeof(zarn_fifo_t));
    if (queue == NULL) return ERR_NO_MEMORY;
    if (gUtil->create_zarn_fifo(queue, "udp datagrams", kQueueBytes) != 0) {
        gUtil->zarn_free(queue);
        return ERR_NO_MEMORY;
    }
    node->data = (uintptr_t)queue;
    return 0;
}

static int32_t uninit_udp(proto_node *node) {
    if (gReceiver == node->endpoint) gReceiver = NULL;
    gUtil->delete_zarn_fifo((zarn_fifo_t *)node->data);
    gUtil->zarn_free((void *)node->data);
    return 0;
}

static int32_t open_endpoint(zarn_endpoint_t *ep) {
    proto_node *node = find_node(ep, &gUdp);
    if (node == NULL) return ERR_BAD_VALUE;
    if (gReceiver != NULL && gReceiver != ep) return ERR_DUPLICATE;
    gQueue = (zarn_fifo_t *)node->data;
    gReceiver = ep;
    return 0;
}

static int32_t take_datagram(zarn_endpoint_t *ep, sample_peer *from, zarn_data_t **out) {
    proto_node *node = find_node(ep, &gUdp);
    if (node == NULL) return ERR_BAD_VALUE;
    int32_t status = gUtil->dequeue_zarn_fifo_data((zarn_fifo_t *)node->data, out, 0, 0);
    if (status < 0) return status;
    if (from != NULL) {
        write32(from->address, (*out)->user_word_1);
        from->port = (uint16_t)(*out)->user_word_2;
    }
    return 0;
}

static const sample_endpoint_operations kEndpoints = {.open = open_endpoint, .take_datagram = take_datagram};
static const sample_protocol_module gUdp = {
    {{"network/udp", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_udp, uninit_udp},
    receive,
    upper_at,
    take_counts,
    forget_uppers,
    &kEndpoints,
    NULL};
const void *const modules[] = {&gUdp, NULL};
