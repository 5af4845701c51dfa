// SPDX-License-Identifier: MIT
//
// How much may be under way, and how long to wait for its acknowledgement: slow start and congestion
// avoidance (RFC 5681), recovery from what was lost (RFC 6675; RFC 6582 for peers that tell us nothing of
// what came behind a hole), and the time-out (RFC 6298).

#include "tcp_connection.h"

#define SHORTEST_TIMEOUT (200 * MILLISECOND)
#define LONGEST_TIMEOUT (60 * SECOND)
#define CLOCK_STEP (8 * MILLISECOND)  // timers come up to two ticks of 4096 microseconds late

enum {
    kDuplicates = 3,  // in a row tell that a segment is lost and not just late
    kNoProbes = 16    // any pause between so many is longer than a time-out
};

static uint32_t most(uint32_t a, uint32_t b) {
    return a > b ? a : b;
}

static void set_timeout(tcp_connection *c, int64_t timeout) {
    if (timeout < SHORTEST_TIMEOUT) timeout = SHORTEST_TIMEOUT;
    c->timeout = timeout < LONGEST_TIMEOUT ? timeout : LONGEST_TIMEOUT;
}

static void take_sample(tcp_connection *c, int64_t trip) {
    if (c->smoothed == 0) {
        c->smoothed = trip;
        c->variation = trip / 2;
    } else {
        int64_t error = c->smoothed - trip;
        c->variation += ((error < 0 ? -error : error) - c->variation) / 4;
        c->smoothed += (trip - c->smoothed) / 8;
    }
    if (c->smoothed == 0) c->smoothed = 1;
    int64_t spread = 4 * c->variation;
    c->patience = c->smoothed + (spread > CLOCK_STEP ? spread : CLOCK_STEP);
    set_timeout(c, c->patience);
}

static uint32_t under_way(const tcp_connection *c) {
    return c->highest_sent - c->unacknowledged;
}

// What remains after a loss. Segments that have arrived behind a hole let others follow, so that more than
// the window may be waiting for their acknowledgement.
static uint32_t half_under_way(const tcp_connection *c) {
    uint32_t bytes = under_way(c);
    if (c->selective) bytes = least(bytes, c->congestion_window);
    return most(bytes / 2, 2 * c->segment_size);
}

static uint32_t initial_window(const tcp_connection *c) {
    return least(kInitialSegments * c->segment_size, most(2 * c->segment_size, 14600));
}

// The handshake is done. If it took more than one SYN-ACK, the network is treated with care.
void begin_sending(tcp_connection *c) {
    c->threshold = UINT32_MAX;
    c->recover = c->unacknowledged - 1;
    c->reordering = kDuplicates;
    c->congestion_window = initial_window(c);
    if (c->retries != 0) {
        c->congestion_window = c->segment_size;
        c->timeout = c->patience = 3 * SECOND;
    } else {
        take_sample(c, gNow - c->timed_at);
    }
    c->timing = 0;
    c->retries = 0;
    c->resend_at = NEVER;
}

// The window is as wide as it was when all of this was sent, and wider for what has come through. It needn't
// outgrow what the peer takes.
static void widen(tcp_connection *c, uint32_t bytes) {
    uint32_t step = least(bytes, 2 * c->segment_size);  // RFC 3465: peers acknowledge in large steps
    if (c->congestion_window >= c->threshold)
        step = most(1, (uint32_t)((uint64_t)c->segment_size * step / c->congestion_window));
    if (c->congestion_window < 2 * c->widest_window) c->congestion_window += step;
}

// `bytes` more have been acknowledged, and `unacknowledged` tells so.
void count_acknowledged(tcp_connection *c, uint32_t bytes) {
    if (c->timing && !after(c->timed_end, c->unacknowledged)) {
        c->timing = 0;
        take_sample(c, gNow - c->timed_at);
    }
    c->retries = 0;
    if (!c->recovering) {
        c->duplicates = 0;
        // Left behind by more than half of all numbers, it would seem to lie ahead.
        if (after(c->unacknowledged, c->recover)) c->recover = c->unacknowledged - 1;
        widen(c, bytes);
    } else if (!after(c->recover, c->unacknowledged)) {
        c->duplicates = 0;
        c->recovering = 0;
        if (!c->selective)
            c->congestion_window = least(c->threshold, most(under_way(c), c->segment_size) + c->segment_size);
    } else if (!c->selective) {
        // Another hole, behind the one that was filled.
        c->congestion_window -= least(c->congestion_window, bytes);
        if (bytes >= c->segment_size) c->congestion_window += c->segment_size;
        c->congestion_window = most(c->congestion_window, c->segment_size);
        resend_first(c);
    }
    c->probes = 0;
    start_waiting(c);
}

void start_waiting(tcp_connection *c) {
    c->resend_at =
        all_acknowledged(c) ? NEVER : gNow + (may_probe(c) ? c->patience << c->probes : c->timeout);
}

int begin_recovery(tcp_connection *c, uint32_t end) {
    if (c->recovering || !after(end, c->recover)) return 0;
    c->former_window = c->congestion_window;
    c->former_threshold = c->threshold;
    c->repeated = 0;
    c->congestion_window = c->threshold = half_under_way(c);
    c->recover = c->highest_sent;
    c->recovering = 1;
    return 1;
}

void undo_recovery(tcp_connection *c) {
    c->congestion_window = most(c->congestion_window, c->former_window);
    c->threshold = most(c->threshold, c->former_threshold);
}

// With several segments under way their acknowledgement isn't delayed for long: the peer says something at
// least of every second one [RFC 9293, 3.8.6.3]. When it doesn't, one that is sent again makes it, and costs
// less than a time-out [RFC 8985, 7]. Pauses double, until a time-out is no longer.
int probe_early(tcp_connection *c) {
    if (!may_probe(c)) return 0;
    c->probes++;
    resend_doubtful(c);
    start_waiting(c);
    return 1;
}

// The peer has said the same again, so something has reached it, and not what it waits for. After a time-out
// the duplicates are those of what was sent in vain, until all of that is acknowledged.
void count_duplicate(tcp_connection *c) {
    c->duplicates++;
    if (c->recovering) {
        c->congestion_window += c->segment_size;
    } else if (c->duplicates == kDuplicates && after(c->unacknowledged, c->recover)) {
        c->threshold = half_under_way(c);
        c->recover = c->highest_sent;
        c->recovering = 1;
        c->congestion_window = c->threshold + kDuplicates * c->segment_size;
        resend_first(c);
    }
}

void back_off(tcp_connection *c) {
    if (c->retries == 1) c->threshold = half_under_way(c);
    c->congestion_window = c->segment_size;
    c->recover = c->highest_sent;
    c->recovering = 0;
    c->duplicates = 0;
    set_timeout(c, 2 * c->timeout);
    c->former_window = c->former_threshold = c->repeated = 0;
    c->probes = kNoProbes;
    if (c->selective) {
        forget_arrivals(c);
    } else {
        c->next_sent = c->unacknowledged;
        resend_first(c);
    }
}

int64_t probe_pause(const tcp_connection *c) {
    int64_t pause = c->timeout << c->shift;
    return pause < LONGEST_TIMEOUT ? pause : LONGEST_TIMEOUT;
}

// After a pause nobody knows how much the network takes. The first duplicates let new segments follow, so
// that there are enough to tell a loss where few segments are under way [RFC 3042].
uint32_t sendable_end(tcp_connection *c) {
    if (all_acknowledged(c) && gNow - c->sent_at > c->timeout)
        c->congestion_window = least(c->congestion_window, initial_window(c));
    uint32_t window = c->congestion_window;
    if (c->selective) {
        uint32_t sent = c->bytes_in[kUnderWay], places = kSendings - c->sendings;
        window =
            least(window - least(window, sent), places * c->segment_size) + c->next_sent - c->unacknowledged;
    }
    if (c->duplicates < kDuplicates) window += c->duplicates * c->segment_size;
    return c->unacknowledged + least(c->window, window);
}
