// SPDX-License-Identifier: MIT
//
// Makes segments. A segment is a buffer of clones of the bytes that wait, behind a header in a block of its
// own: what was received by one connection and is sent by another is never copied. A segment that can't be
// made counts as sent: it is lost as others are on the wire, and sent again as they are.

#include "tcp_connection.h"

#include "sample_host.h"

enum { kMostOptions = 40, kChecksum = 16 };  // bytes; place in the header

#define CHALLENGE_GAP (100 * MILLISECOND)

typedef struct header {
    sample_destination to;
    uint16_t to_port, own_port;
    uint32_t sequence, acknowledged;
    uint8_t flags;
    uint16_t window;
    uint8_t options[kMostOptions];
    uint32_t option_bytes;
} header;

// Puts the header before `data` and sends it. Takes the buffer over, which may be null: nothing is sent then.
static void send_segment(zarn_data_t *data, const header *out) {
    if (data == NULL) {
        gCounts.undelivered++;
        return;
    }
    uint32_t length = kShortestHeader + out->option_bytes;
    uint8_t *bytes = prepend_header(data, length);
    if (bytes == NULL) {
        lose_packet(data);
        return;
    }
    write16(bytes, out->own_port);
    write16(bytes + 2, out->to_port);
    write32(bytes + 4, out->sequence);
    write32(bytes + 8, out->acknowledged);
    bytes[12] = (uint8_t)(length / 4 << 4);
    bytes[kFlags] = out->flags;
    write16(bytes + 14, out->window);
    write32(bytes + kChecksum, 0);
    copy_bytes(bytes + kShortestHeader, out->options, out->option_bytes);
    const uint8_t *to = out->to.address;
    // Of the two zeros only this one is what the complement of a sum with anything in it can be.
    uint32_t checksum = transport_checksum(data, data->length, gDevice->address, to, kTcpProtocol);
    write_checksum(bytes + kChecksum, checksum != 0xffff ? checksum : 0);
    count_departure(data);
    gBelow->host->send(data, &out->to);
}

// How far the peer might send: as much as there is room for, in bytes and in frames. Frames are shared out
// among the connections, several times over, because few are busy at once.
static uint32_t end_of_room(const tcp_connection *c) {
    uint32_t bytes = kReceiveBytes - least(c->received.bytes, kReceiveBytes);
    uint32_t share = gDevice->room(gDevice) * 4 / gConnections + kSmallestShare;
    uint32_t segments = least(room_for(c) + c->early.pieces, share);
    if (segments < kReceiveBytes / c->segment_size) bytes = least(bytes, segments * c->segment_size);
    return c->next_expected + bytes;
}

// The window that the segment which is being made tells the peer. It grows by whole segments only, lest the
// peer send in slivers [RFC 9293, 3.8.6.2.2]. The field is rounded down; what was allowed before stays so.
static uint16_t offer_window(tcp_connection *c) {
    uint32_t end = end_of_room(c);
    if (end - c->next_expected < kReceiveBytes - least(c->received.bytes, kReceiveBytes)) gCramped = 1;
    if (after(c->next_expected, c->window_end)) c->window_end = c->next_expected;
    if (!after(c->window_end + c->segment_size, end)) c->window_end = end;
    return (uint16_t)least((c->window_end - c->next_expected) >> c->own_shift, kWindowField);
}

static header start_header(tcp_connection *c, uint8_t flags, uint32_t sequence) {
    header out = {.to = {.protocol = kTcpProtocol},
                  .to_port = c->facts.client_port,
                  .own_port = c->facts.server_port,
                  .sequence = sequence,
                  .acknowledged = c->next_expected,
                  .flags = flags,
                  .window = offer_window(c)};
    copy_bytes(out.to.address, c->facts.client, 4);
    c->owes_ack = 0;
    return out;
}

static void send_empty(tcp_connection *c, uint8_t flags, uint32_t sequence) {
    header out = start_header(c, flags, sequence);
    send_segment(gUtil->new_zarn_data(), &out);
}

// The window of a SYN is never scaled.
void send_syn_ack(tcp_connection *c) {
    header out = start_header(c, kSyn | kAck, c->unacknowledged);
    out.window = (uint16_t)least(c->window_end - c->next_expected, kWindowField);
    uint32_t segment_size = gDevice->mtu - 40;
    const uint8_t all[] = {2, 4, (uint8_t)(segment_size >> 8), (uint8_t)segment_size, 1, 3, 3, kOwnShift},
                  selective[] = {1, 1, kSackPermitted, 2};
    out.option_bytes = c->own_shift != 0 ? 8 : 4;
    copy_bytes(out.options, all, out.option_bytes);
    if (c->selective) {
        copy_bytes(out.options + out.option_bytes, selective, 4);
        out.option_bytes += 4;
    }
    send_segment(gUtil->new_zarn_data(), &out);
}

// Stands behind all that was sent, even while some of it is sent again: before that the peer would find it
// old.
void send_ack(tcp_connection *c) {
    header out = start_header(c, kAck, c->highest_sent);
    if (c->selective) out.option_bytes = write_arrivals(c, out.options);
    send_segment(gUtil->new_zarn_data(), &out);
}

// Two ends that find each other's acknowledgements odd would go on for ever [RFC 5961, 7].
void send_challenge(tcp_connection *c) {
    if (gNow - c->challenged_at < CHALLENGE_GAP) return;
    c->challenged_at = gNow;
    send_ack(c);
}

// A number that is acknowledged already: whoever gets this says what is expected instead, and what window is
// open.
void send_probe(tcp_connection *c) {
    send_empty(c, kAck, c->unacknowledged - 1);
}

void send_reset(tcp_connection *c) {
    send_empty(c, kReset | kAck, c->highest_sent);
}

void refuse_segment(const segment *in) {
    if ((in->flags & kReset) != 0) return;
    header out = {.to = {.protocol = kTcpProtocol},
                  .to_port = in->source_port,
                  .own_port = in->destination_port,
                  .flags = kReset};
    copy_bytes(out.to.address, in->network->source, 4);
    if ((in->flags & kAck) != 0) {
        out.sequence = in->acknowledged;
    } else {
        out.flags |= kAck;
        out.acknowledged = in->sequence + in->payload + ((in->flags & kSyn) != 0) + ((in->flags & kFin) != 0);
    }
    send_segment(gUtil->new_zarn_data(), &out);
}

// Bytes that wait, as a buffer of its own. Null without memory.
static zarn_data_t *clone_outgoing(tcp_connection *c, uint32_t sequence, uint32_t length) {
    zarn_data_t *data = gUtil->new_zarn_data();
    if (data == NULL) return NULL;
    tcp_piece *piece =
        c->cursor != NULL && !after(c->cursor->sequence, sequence) ? c->cursor : c->outgoing.head;
    while (length != 0) {
        while (!after(end_of(piece), sequence))
            piece = piece->next;
        c->cursor = piece;
        uint32_t step = least(length, end_of(piece) - sequence);
        if (gUtil->clone_zarn_data(data, piece->data, sequence - piece->sequence, step) != 0) {
            gUtil->delete_zarn_data(data);
            return NULL;
        }
        sequence += step;
        length -= step;
    }
    return data;
}

// Sends `length` bytes that wait from `sequence` on, and the FIN behind them if that is wanted. The first
// sending of a segment is timed, unless another one is. What is sent again can't be, because nobody knows
// which of the two an acknowledgement is for [RFC 6298, 3].
static void send_range(tcp_connection *c, uint32_t sequence, uint32_t length, uint8_t fin) {
    uint32_t end = sequence + length + fin;
    uint8_t last = length != 0 && sequence + length == c->queue_end;
    header out = start_header(c, (uint8_t)(kAck | (fin ? kFin : 0) | (last ? kPush : 0)), sequence);
    send_segment(clone_outgoing(c, sequence, length), &out);

    c->sent_at = gNow;
    int first = all_acknowledged(c);
    if (first) c->retries = c->shift = 0;
    if (!after(end, c->highest_sent)) {
        c->timing = 0;
        return;
    }
    if (!c->timing && sequence == c->highest_sent) {
        c->timing = 1;
        c->timed_at = gNow;
        c->timed_end = end;
    }
    c->facts.server_bytes += end - fin - c->highest_sent;
    if (c->selective) note_sending(c, sequence, end);
    c->highest_sent = end;
    if (first || may_probe(c)) start_waiting(c);
    if (fin && !c->peer_finished) c->finished_first = 1;
}

void resend_first(tcp_connection *c) {
    uint32_t queued = c->queue_end - c->unacknowledged, sent = c->highest_sent - c->unacknowledged;
    uint32_t length = least(c->segment_size, least(queued, sent));
    uint32_t end = c->unacknowledged + length;
    uint8_t fin = end == c->queue_end && c->highest_sent == end + 1;
    resend_range(c, c->unacknowledged, end + fin);
}

void resend_range(tcp_connection *c, uint32_t start, uint32_t end) {
    uint8_t fin = (uint8_t)after(end, c->queue_end);
    send_range(c, start, end - start - fin, fin);
    if (after(end, c->next_sent)) c->next_sent = end;
    if (start == c->unacknowledged) c->resend_at = gNow + c->timeout;
}

void send_sliver(tcp_connection *c) {
    uint32_t left = c->queue_end - c->next_sent;
    uint32_t length = least(least(left, c->segment_size), c->window);
    uint8_t fin = c->ending && length == left && length < c->window;
    send_range(c, c->next_sent, length, fin);
    c->next_sent += length + fin;
}

// Sends as much as the peer's window and the network let through. A segment that is neither full nor the last
// is held back, unless it fills half of the widest window that the peer has ever had [RFC 9293, 3.8.6.2.1].
static void send_segments(tcp_connection *c) {
    while (c->bytes_in[kUnderWay] + c->segment_size <= c->congestion_window && resend_lost(c))
        continue;
    uint32_t limit = sendable_end(c);
    uint32_t all = c->queue_end + c->ending;
    while (after(limit, c->next_sent) && after(all, c->next_sent)) {
        uint32_t open = limit - c->next_sent, left = c->queue_end - c->next_sent;
        uint32_t length = least(least(left, c->segment_size), open);
        if (length < left && length < c->segment_size && length < c->widest_window / 2) return;
        uint8_t fin = c->ending && length == left && length < open;
        if (length + fin == 0) return;
        send_range(c, c->next_sent, length, fin);
        c->next_sent += length + fin;
    }
}

void send_what_may_go(tcp_connection *c) {
    if (c->state == kOpen) {
        send_segments(c);
        // With nothing under way no acknowledgement will bring us back here: the window is looked at instead.
        if (c->resend_at == NEVER && c->next_sent != c->queue_end + c->ending)
            c->resend_at = gNow + probe_pause(c);
    }
    if (c->state == kOpen && !c->peer_finished) {
        // The client has made room: worth telling when it is two segments.
        if (!after(c->window_end + 2 * c->segment_size, end_of_room(c))) c->owes_ack = 1;
    }
    if (c->owes_ack) send_ack(c);
}
