// SPDX-License-Identifier: MIT
//
// What an arriving segment does to its connection, in the order of RFC 9293, 3.10.7.4, with the answers to
// blind attacks of RFC 5961: whoever hasn't guessed the exact number is asked to say it again.

#include "tcp_connection.h"

// Whether any of the segment lies in the window. One that starts exactly where the next byte is expected
// always counts, and an empty one at the end of the window too: what it acknowledges is wanted, even when its
// bytes can't be kept.
static int acceptable(const tcp_connection *c, const segment *in) {
    uint32_t window = c->window_end - c->next_expected;
    uint32_t length = in->payload + ((in->flags & kFin) != 0);
    if (in->sequence == c->next_expected) return 1;
    if (length == 0) return in->sequence - c->next_expected <= window;
    return in->sequence - c->next_expected < window || in->sequence + length - 1 - c->next_expected < window;
}

// What isn't acceptable, or is too late. Old bytes are acknowledged at once, since the acknowledgement is
// what was lost; an empty segment may itself be the answer to one of ours.
static void answer_unacceptable(tcp_connection *c, const segment *in) {
    if ((in->flags & kReset) != 0) return;
    if (in->payload != 0 || (in->flags & kFin) != 0) {
        if (!after(in->sequence + in->payload, c->next_expected))
            note_arrival(c, in->sequence, in->sequence + in->payload);
        send_ack(c);
    } else {
        send_challenge(c);
    }
}

static void take_window(tcp_connection *c, const segment *in) {
    int newer = after(in->sequence, c->window_sequence) ||
                (in->sequence == c->window_sequence && !after(c->window_acknowledged, in->acknowledged));
    if (!newer) return;
    c->window = in->window << c->window_shift;
    if (c->window > c->widest_window) c->widest_window = c->window;
    c->window_sequence = in->sequence;
    c->window_acknowledged = in->acknowledged;
}

// The acknowledgement of our SYN. False: the segment was none.
static int finish_handshake(tcp_connection *c, const segment *in) {
    if (in->acknowledged != c->highest_sent) {
        refuse_segment(in);
        return 0;
    }
    c->state = kOpen;
    c->unacknowledged = in->acknowledged;
    c->window_sequence = in->sequence;
    c->window_acknowledged = in->acknowledged;
    c->window = c->widest_window = in->window << c->window_shift;
    begin_sending(c);
    c->tell_ready = 1;
    return 1;
}

// False: the segment acknowledges what it can't know of.
static int take_acknowledgement(tcp_connection *c, const segment *in) {
    uint32_t oldest = c->unacknowledged - c->widest_window;
    if (after(in->acknowledged, c->highest_sent) || after(oldest, in->acknowledged)) {
        send_challenge(c);
        return 0;
    }
    uint32_t window = c->window, bytes = in->acknowledged - c->unacknowledged;
    int outstanding = !all_acknowledged(c);
    if (!after(c->unacknowledged, in->acknowledged)) take_window(c, in);
    if (after(in->acknowledged, c->unacknowledged)) {
        c->unacknowledged = in->acknowledged;
        if (after(c->unacknowledged, c->next_sent)) c->next_sent = c->unacknowledged;
        if (c->cursor != NULL && after(c->unacknowledged, c->cursor->sequence)) c->cursor = NULL;
        drop_before(&c->outgoing, c->unacknowledged);
        count_acknowledged(c, bytes);
    } else if (!c->selective && bytes == 0 && outstanding && window == c->window && in->payload == 0 &&
               (in->flags & kFin) == 0) {
        count_duplicate(c);
    }
    if (c->selective) take_arrivals(c, in);
    // A peer that answers is there, even if it takes nothing.
    if (c->window == 0 || all_acknowledged(c)) c->retries = 0;
    if (c->refused && c->outgoing.bytes <= kSendBytes / 2 && c->outgoing.pieces <= kSendPieces / 2) {
        c->refused = 0;
        c->tell_data = 1;
    }
    return 1;
}

// Takes the buffer over, which starts with the payload. Of that, what lies in the window is kept.
static void take_payload(tcp_connection *c, const segment *in, zarn_data_t *data) {
    uint32_t first = in->sequence, end = first + in->payload;
    if ((in->flags & kFin) != 0 && !c->fin_seen && !after(end, c->window_end)) {
        c->fin = end;
        c->fin_seen = 1;
    }
    if (in->payload != 0 || (in->flags & kFin) != 0) c->owes_ack = 1;
    uint32_t limit = c->fin_seen && !after(c->fin, c->window_end) ? c->fin : c->window_end;
    if (after(c->next_expected, first)) first = c->next_expected;
    if (after(end, limit)) end = limit;
    note_arrival(c, in->sequence, end);
    if (!after(end, first) || c->peer_finished) {
        gUtil->delete_zarn_data(data);
    } else {
        if (end != in->sequence + in->payload)
            gUtil->trim_zarn_data(data, end - in->sequence, in->sequence + in->payload - end);
        if (first != in->sequence) gUtil->trim_zarn_data(data, 0, first - in->sequence);
        keep_payload(c, first, data);
    }
    if (c->fin_seen && !c->peer_finished && c->next_expected == c->fin) {
        c->next_expected++;
        c->peer_finished = 1;
        c->tell_data = 1;
        clear_queue(&c->early);
    }
    // The peer learns of a hole from acknowledgements that come one for each segment behind it.
    if ((c->early.head != NULL && in->payload != 0) || c->doubled != c->doubled_end) send_ack(c);
}

// The segment of a connection that has ended. Only the peer's FIN says that it hasn't heard so.
static void take_late_segment(tcp_connection *c, const segment *in) {
    if ((in->flags & kReset) != 0) return;  // RFC 1337: a reset doesn't shorten the wait
    if ((in->flags & kFin) != 0) c->heard_at = gNow;
    if (in->payload != 0 || (in->flags & (kFin | kSyn)) != 0) send_ack(c);
}

static void take_reset(tcp_connection *c, const segment *in) {
    if (in->sequence == c->next_expected) {
        end_connection(c, c->state == kSynReceived ? SAMPLE_FAILED : SAMPLE_CLOSED);
    } else {
        send_challenge(c);
    }
}

// Takes the segment on behind the checks of its number. Takes the buffer over.
static void advance_connection(tcp_connection *c, const segment *in, zarn_data_t *data) {
    c->heard_at = gNow;
    int known = c->state == kSynReceived ? finish_handshake(c, in) : take_acknowledgement(c, in);
    if (!known) {
        gUtil->delete_zarn_data(data);
        return;
    }
    take_payload(c, in, data);
    if (c->peer_finished && fin_acknowledged(c)) {
        if (c->finished_first) {
            start_time_wait(c);
        } else {
            end_connection(c, SAMPLE_CLOSED);
        }
    }
    schedule(c);
}

void take_segment(tcp_connection *c, const segment *in, zarn_data_t *data) {
    int again = c->state == kSynReceived && in->sequence == c->first_received &&
                (in->flags & (kSyn | kAck | kReset)) == kSyn;
    if (c->state == kTimeWait) {
        take_late_segment(c, in);
    } else if (again) {
        send_syn_ack(c);
    } else if (!acceptable(c, in)) {
        answer_unacceptable(c, in);
    } else if ((in->flags & kReset) != 0) {
        take_reset(c, in);
    } else if ((in->flags & kSyn) != 0) {
        send_challenge(c);
    } else if ((in->flags & kAck) != 0) {
        gUtil->trim_zarn_data(data, 0, in->header);
        advance_connection(c, in, data);
        return;
    }
    gUtil->delete_zarn_data(data);
}
