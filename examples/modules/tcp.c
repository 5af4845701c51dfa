// SPDX-License-Identifier: MIT
//
// TCP (RFC 9293): the checksum over pseudo header, header and payload, and the endpoints. What a segment does
// beyond that is decided by whether there is a device: a host has connections of its own, an observer follows
// those of others.

#include "tcp.h"

#include "sample_module.h"

typedef struct listener {
    struct listener *next;
    zarn_endpoint_t *endpoint;
    uint16_t port;  // 0: all that no other listener has
} listener;

zarn_tallylock_t gLock;
static listener *gListeners;

static sample_verdict check(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->part == SAMPLE_PART) return kUnverified;
    if (data->length < kShortestHeader || data->length < data->user_word_1) return kUnverified;
    const uint8_t *header = map_bytes(data, 0, kShortestHeader);
    if (header == NULL) return kUnverified;
    uint32_t length = (header[12] >> 4) * 4u;
    if (length < kShortestHeader || length > data->length) return kUnverified;
    return transport_sum_ok(data, data->length, network) ? kGood : kBad;
}

// Reads the header. False when it was not captured, is malformed, or belongs to a part of a packet.
static int read_segment(zarn_data_t *data, const sample_network_header *network, segment *out) {
    if (network == NULL || network->part == SAMPLE_PART) return 0;
    const uint8_t *header = map_bytes(data, 0, kShortestHeader);
    uint32_t length = header != NULL ? (header[12] >> 4) * 4u : 0;
    if (length < kShortestHeader || length > data->user_word_1) return 0;
    *out = (segment){.network = network,
                     .source_port = read16(header),
                     .destination_port = read16(header + 2),
                     .sequence = read32(header + 4),
                     .acknowledged = read32(header + 8),
                     .window = read16(header + 14),
                     .header = length,
                     .payload = data->user_word_1 - length,
                     .flags = header[kFlags]};
    if (length > kShortestHeader) out->options = map_bytes(data, kShortestHeader, length - kShortestHeader);
    return 1;
}

const uint8_t *find_option(const segment *in, uint8_t kind) {
    const uint8_t *option = in->options;
    uint32_t left = option != NULL ? in->header - kShortestHeader : 0;
    while (left != 0 && option[0] != 0) {
        uint32_t step = option[0] == 1 ? 1 : left > 1 ? option[1] : 0;
        if (step > left || (step < 2 && option[0] != 1)) break;
        if (option[0] == kind) return option;
        option += step;
        left -= step;
    }
    return NULL;
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    segment in;
    sample_verdict verdict = check(data, network);
    count_packet(data, network, verdict);
    // For an observer the header is good enough of what was captured in part.
    int readable = verdict != kBad && read_segment(data, network, &in);
    if (readable && attached() && verdict == kGood) {
        receive_segment(&in, data);
        return;
    }
    if (readable && !attached()) observe_segment(&in);
    gUtil->delete_zarn_data(data);
}

// Endpoints

zarn_endpoint_t *find_listener(uint16_t port) {
    zarn_endpoint_t *found = NULL;
    for (const listener *each = gListeners; each != NULL; each = each->next)
        if (each->port == port || (each->port == 0 && found == NULL)) found = each->endpoint;
    return found;
}

static int32_t open_endpoint(zarn_endpoint_t *ep) {
    if (find_node(ep, &gTcp) == NULL) return ERR_BAD_VALUE;
    listener *created = gUtil->zarn_malloc(sizeof(listener));
    if (created == NULL) return ERR_NO_MEMORY;
    created->endpoint = ep;
    created->port = (uint16_t)ep->copied_word_1;
    int32_t status = 0;
    gUtil->zarn_lock_tallylock(&gLock);
    listener **link = &gListeners;
    while (*link != NULL && (*link)->port != created->port)
        link = &(*link)->next;
    if (*link == NULL) {
        *link = created;
        created = NULL;
    } else if ((*link)->endpoint != ep) {
        status = ERR_DUPLICATE;
    }
    gUtil->zarn_unlock_tallylock(&gLock);
    gUtil->zarn_free(created);
    return status;
}

static int32_t uninit_tcp(proto_node *node) {
    gUtil->zarn_lock_tallylock(&gLock);
    listener **link = &gListeners;
    while (*link != NULL && (*link)->endpoint != node->endpoint)
        link = &(*link)->next;
    listener *gone = *link;
    if (gone != NULL) *link = gone->next;
    gUtil->zarn_unlock_tallylock(&gLock);
    gUtil->zarn_free(gone);
    if (node->data == 0) return 0;
    (attached() ? release_endpoint : forget_observed)(node);
    return 0;
}

static int32_t get_connection(zarn_endpoint_t *ep, sample_connection *out) {
    proto_node *node = find_node(ep, &gTcp);
    if (node == NULL || node->data == 0) return ERR_BAD_VALUE;
    (attached() ? describe_connection : describe_observed)(node, out);
    return 0;
}

static int32_t start_or_stop_tcp(int32_t op) {
    if (op == MODULE_STOP) gUtil->zarn_delete_tallylock(&gLock);
    int32_t status = start_or_stop(op);
    if (op != MODULE_START || status != 0) return status;
    status = gUtil->zarn_create_tallylock(&gLock, "tcp endpoints");
    if (status >= 0) return 0;
    start_or_stop(MODULE_STOP);
    return status;
}

static const sample_endpoint_operations kEndpoints = {.open = open_endpoint,
                                                      .get_connection = get_connection,
                                                      .take_bytes = take_bytes,
                                                      .send_bytes = send_bytes,
                                                      .end_sending = end_sending};
const sample_protocol_module gTcp = {
    {{"network/tcp", SAMPLE_PROTOCOL_FLAGS, start_or_stop_tcp}, init_protocol, uninit_tcp},
    receive,
    upper_at,
    take_counts,
    forget_uppers,
    &kEndpoints,
    &kHost};
const void *const modules[] = {&gTcp, NULL};
