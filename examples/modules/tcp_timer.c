// SPDX-License-Identifier: MIT
//
// What happens when nothing has happened: segments are sent again, closed windows looked at, and connections
// whose peer has vanished given up.
//
// One timer serves all connections. It stands for the earliest moment at which one of them may have something
// to do; acknowledgements mostly put that off, and then the moment passes, all are looked at, and the next
// one is found. So a segment costs no timer operation, and no connection a deletion that waits for the timer
// thread. The hook runs on that thread and does nothing but call for attention.

#include "tcp_connection.h"

#define TWICE_SEGMENT_LIFE (4 * SECOND)  // one network, no routers: nothing is older than its queues
#define FIN_WAIT (60 * SECOND)
#define IDLE (120 * SECOND)
#define PROBE_GAP (10 * SECOND)
#define PATIENCE (20 * SECOND)

enum {
    kSynAcks = 4,  // sent again before a half-open connection makes room: 31 seconds
    kResends = 8,  // with the shortest time-out this is 102 seconds [RFC 1122, 4.2.3.5]
    kProbes = 6,   // without an answer
    kWidestShift = 7
};

static zarn_timer_t *gTimer;
static int64_t gEarliest;  // no connection has anything to do before; NEVER: none has
static int64_t gArmedFor;  // NEVER: the timer is idle, or for a moment that has passed

static void ask_for_attention(zarn_timer_t *timer, void *device) {
    (void)timer;
    const sample_device *asked = device;
    asked->request_attention(asked);
}

int start_timer(void) {
    gTimer = gUtil->create_zarn_timer(ask_for_attention, (void *)(uintptr_t)gDevice);
    gEarliest = gArmedFor = NEVER;
    return gTimer != NULL;
}

void stop_timer(void) {
    gUtil->delete_zarn_timer(gTimer);
    gTimer = NULL;
}

// When a connection is looked at that hears nothing.
static int64_t silence_ends(const tcp_connection *c) {
    switch (c->state) {
        case kTimeWait:
            return c->heard_at + TWICE_SEGMENT_LIFE;
        case kOpen:
            if (c->resend_at != NEVER) return NEVER;
            if (fin_acknowledged(c)) return c->heard_at + FIN_WAIT;
            return c->heard_at + IDLE + c->retries * PROBE_GAP;
        default:
            return NEVER;
    }
}

static int64_t deadline_of(const tcp_connection *c) {
    int64_t silence = silence_ends(c);
    return c->resend_at < silence ? c->resend_at : silence;
}

void watch_deadline(tcp_connection *c) {
    int64_t deadline = deadline_of(c);
    if (deadline < gEarliest) gEarliest = deadline;
}

static void give_up(tcp_connection *c) {
    send_reset(c);
    end_connection(c, c->state == kSynReceived ? SAMPLE_FAILED : SAMPLE_CLOSED);
}

// A peer may take nothing for as long as it likes [RFC 1122, 4.2.2.17], but not when others want for the
// frames that are kept for it [RFC 6429].
static int is_too_dear(const tcp_connection *c) {
    return probe_pause(c) > PATIENCE && gDevice->room(gDevice) < kAmpleRoom;
}

static void resend(tcp_connection *c) {
    if (probe_early(c)) return;
    c->retries++;
    if (c->retries > (c->state == kSynReceived ? kSynAcks : kResends) || is_too_dear(c)) {
        give_up(c);
    } else if (c->state == kSynReceived) {
        c->timeout *= 2;
        c->resend_at = gNow + c->timeout;
        send_syn_ack(c);
    } else if (!all_acknowledged(c)) {
        back_off(c);
    } else {
        if (c->shift < kWidestShift) c->shift++;
        c->resend_at = gNow + probe_pause(c);
        (c->window == 0 ? send_probe : send_sliver)(c);
    }
}

static void meet_deadline(tcp_connection *c) {
    if (gNow >= c->resend_at) {
        resend(c);
    } else if (gNow >= silence_ends(c)) {
        if (c->state == kTimeWait) {
            end_connection(c, SAMPLE_CLOSED);
        } else if (fin_acknowledged(c) || c->retries >= kProbes) {
            give_up(c);
        } else {
            c->retries++;
            send_probe(c);
        }
    }
}

void run_deadlines(void) {
    if (gNow < gEarliest) return;
    gEarliest = gArmedFor = NEVER;
    visit_connections(meet_deadline);
    visit_connections(watch_deadline);
}

void arm_timer(void) {
    if (gEarliest == gArmedFor) return;
    gArmedFor = gEarliest;
    gUtil->zarn_set_timer(gTimer, gEarliest > gNow ? gEarliest - gNow : 0, 1);
}
