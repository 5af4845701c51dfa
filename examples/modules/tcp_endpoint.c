// SPDX-License-Identifier: MIT
//
// A connection as its client sees it: bytes out, bytes in, its end, and the events that tell of them.

#include "tcp_connection.h"

static tcp_connection *connection_of(const zarn_endpoint_t *ep) {
    const proto_node *node = attached() ? find_node(ep, &gTcp) : NULL;
    return node != NULL ? (tcp_connection *)node->data : NULL;
}

int32_t take_bytes(zarn_endpoint_t *ep, zarn_data_t **out) {
    tcp_connection *c = connection_of(ep);
    if (c == NULL) return ERR_BAD_VALUE;
    *out = take_first_piece(&c->received);
    if (*out == NULL) return c->peer_finished || c->state == kClosed ? SAMPLE_NO_MORE : ERR_WOULD_BLOCK;
    ask_to_attend(c);  // the window may be worth an update
    return 0;
}

int32_t send_bytes(zarn_endpoint_t *ep, zarn_data_t *data) {
    tcp_connection *c = connection_of(ep);
    if (c == NULL) return ERR_BAD_VALUE;
    if (c->ending || c->state == kClosed) return SAMPLE_NO_MORE;
    if (c->outgoing.bytes >= kSendBytes || c->outgoing.pieces >= kSendPieces) {
        c->refused = 1;
        return ERR_WOULD_BLOCK;
    }
    uint32_t length = data->length;
    if (length == 0) {
        gUtil->delete_zarn_data(data);
        return 0;
    }
    if (!append_piece(&c->outgoing, c->queue_end, data)) return ERR_NO_MEMORY;
    c->queue_end += length;
    ask_to_attend(c);
    return 0;
}

int32_t end_sending(zarn_endpoint_t *ep) {
    tcp_connection *c = connection_of(ep);
    if (c == NULL) return ERR_BAD_VALUE;
    if (c->ending || c->state == kClosed) return 0;
    c->ending = 1;
    ask_to_attend(c);
    return 0;
}

// The bytes are handed out a piece at a time: as long as the client takes, there is a next time. A child that
// nobody was told of before its end is made ready last of all, since it may go at any moment from then on.
void tell_client(tcp_connection *c) {
    zarn_endpoint_t *ep = c->endpoint;
    if (ep == NULL) return;
    if (c->tell_ready) gUtil->ep_ready_endpoint(ep);
    c->tell_ready = 0;
    while (c->tell_data) {
        uint32_t pieces = c->received.pieces;
        c->tell_data = 0;
        gUtil->ep_notify_endpoint(ep, SAMPLE_EVENT_DATA, c->received.bytes);
        c->tell_data = c->received.pieces != 0 && c->received.pieces < pieces;
    }
    if (!c->tell_end) return;
    c->tell_end = 0;
    gUtil->ep_notify_endpoint(ep, SAMPLE_EVENT_ENDED, c->ended);
    if (c->ended == SAMPLE_FAILED) gUtil->ep_ready_endpoint(ep);
}
