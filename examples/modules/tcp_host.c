// SPDX-License-Identifier: MIT
//
// TCP as a host on a device: finds the connection that a segment belongs to, makes new ones for the
// listeners, refuses what belongs to nobody, and sees that everybody's work is done behind each batch.
//
// The numbers that connections start with are those of RFC 6528: a clock, and a keyed hash of the two ends.
// The key is the device's secret.

#include "tcp_connection.h"

#include "sample_host.h"

enum {
    kBuckets = 1024,
    kMostConnections = 4096,  // half-open and ended ones, too
    kMostTimeWaits = 256,
    kSmallestSegment = 64,
    kDefaultSegment = 536,
    kWidestShift = 14
};

#define THINNING_GAP (100 * MILLISECOND)  // a look at all connections

const sample_device *gDevice;
const sample_protocol_module *gBelow;
uint32_t gConnections;
int gCramped;
int64_t gNow;

static tcp_connection *gBuckets[kBuckets];
static uint32_t gTimeWaits;
static tcp_connection *gWork, **gWorkEnd = &gWork;
static int gAttending;

int attached(void) {
    return gDevice != NULL;
}

static uint64_t rotate(uint64_t word, int bits) {
    return word << bits | word >> (64 - bits);
}

static void mix(uint64_t v[4], int rounds) {
    while (rounds-- > 0) {
        v[0] += v[1], v[1] = rotate(v[1], 13) ^ v[0], v[0] = rotate(v[0], 32);
        v[2] += v[3], v[3] = rotate(v[3], 16) ^ v[2];
        v[0] += v[3], v[3] = rotate(v[3], 21) ^ v[0];
        v[2] += v[1], v[1] = rotate(v[1], 17) ^ v[2], v[2] = rotate(v[2], 32);
    }
}

// SipHash-2-4 of a peer and the two ports; the host's address is always the same.
static uint32_t hash_ends(const uint8_t *peer, uint16_t peer_port, uint16_t own_port) {
    uint64_t word = (uint64_t)read32(peer) << 32 | (uint64_t)peer_port << 16 | own_port;
    const uint64_t *key = gDevice->secret;
    uint64_t v[4] = {key[0] ^ 0x736f6d6570736575u, key[1] ^ 0x646f72616e646f6du, key[0] ^ 0x6c7967656e657261u,
                     key[1] ^ 0x7465646279746573u};
    v[3] ^= word;
    mix(v, 2);
    v[0] ^= word;
    v[3] ^= UINT64_C(8) << 56;
    mix(v, 2);
    v[0] ^= UINT64_C(8) << 56;
    v[2] ^= 0xff;
    mix(v, 4);
    v[0] ^= v[1] ^ v[2] ^ v[3];
    return (uint32_t)(v[0] ^ v[0] >> 32);
}

static tcp_connection **link_to(const uint8_t *peer, uint16_t peer_port, uint16_t own_port) {
    tcp_connection **link = &gBuckets[hash_ends(peer, peer_port, own_port) % kBuckets];
    for (; *link != NULL; link = &(*link)->next) {
        const sample_connection *facts = &(*link)->facts;
        if (same_address(facts->client, peer) && facts->client_port == peer_port &&
            facts->server_port == own_port)
            break;
    }
    return link;
}

void visit_connections(void (*visit)(tcp_connection *c)) {
    for (int i = 0; i < kBuckets; i++) {
        for (tcp_connection *c = gBuckets[i], *next; c != NULL; c = next) {
            next = c->next;
            visit(c);
        }
    }
}

void schedule(tcp_connection *c) {
    if (c->work_link != NULL) return;
    c->next_work = NULL;
    c->work_link = gWorkEnd;
    *gWorkEnd = c;
    gWorkEnd = &c->next_work;
}

static void unschedule(tcp_connection *c) {
    if (c->work_link == NULL) return;
    *c->work_link = c->next_work;
    if (c->next_work != NULL) {
        c->next_work->work_link = c->work_link;
    } else {
        gWorkEnd = c->work_link;
    }
    c->work_link = NULL;
}

static void free_if_forgotten(tcp_connection *c) {
    if (c->endpoint != NULL || c->state != kClosed) return;
    clear_queue(&c->received);
    unschedule(c);
    gUtil->zarn_free(c);
}

static void note_end(tcp_connection *c, uint32_t value) {
    c->resend_at = NEVER;
    if (c->ended != 0) return;
    c->ended = value;
    c->tell_end = 1;
    schedule(c);
}

// What has come before the end of the peer's side stays for the client to take.
void end_connection(tcp_connection *c, uint32_t value) {
    const sample_connection *facts = &c->facts;
    *link_to(facts->client, facts->client_port, facts->server_port) = c->next;
    if (c->state == kTimeWait) gTimeWaits--;
    gConnections--;
    c->state = kClosed;
    c->owes_ack = 0;
    clear_queue(&c->outgoing);
    clear_queue(&c->early);
    if (!c->peer_finished) clear_queue(&c->received);
    note_end(c, value);
    free_if_forgotten(c);
}

static tcp_connection *gLongest;

static void find_longest_wait(tcp_connection *c) {
    if (c->state == kTimeWait && (gLongest == NULL || c->heard_at < gLongest->heard_at)) gLongest = c;
}

// The state has to outlast its segments, but not at the price of all memory.
void start_time_wait(tcp_connection *c) {
    if (gTimeWaits == kMostTimeWaits) {
        gLongest = NULL;
        visit_connections(find_longest_wait);
        end_connection(gLongest, SAMPLE_CLOSED);
    }
    gTimeWaits++;
    c->state = kTimeWait;
    c->heard_at = gNow;
    note_end(c, SAMPLE_CLOSED);
}

static void read_options(const segment *in, tcp_connection *c) {
    const uint8_t *size = find_option(in, 2), *scale = find_option(in, 3);
    const uint8_t *permitted = find_option(in, kSackPermitted);
    uint32_t segment_size = size != NULL && size[1] == 4 ? read16(size + 2) : kDefaultSegment;
    if (scale != NULL && scale[1] == 3) {
        c->window_shift = least(scale[2], kWidestShift);
        c->own_shift = kOwnShift;
    }
    c->selective = permitted != NULL && permitted[1] == 2;
    if (segment_size < kSmallestSegment) segment_size = kSmallestSegment;
    c->segment_size = least(segment_size, gDevice->mtu - 40);
}

// Whose SYN was refused last, and when children were last sent away for it.
static const zarn_endpoint_t *gCrowded;
static int64_t gThinnedAt;

static void give_up_if_silent(tcp_connection *c) {
    if (c->state == kSynReceived && c->retries != 0 && c->endpoint->parent == gCrowded)
        end_connection(c, SAMPLE_FAILED);
}

// Has the half-open connections that have not answered our SYN within its first time-out make room for
// others, so that a flood of SYNs from nowhere does not close the door for longer. A SYN that was refused
// comes again.
static void thin_out(const zarn_endpoint_t *listener) {
    if (gNow - gThinnedAt < THINNING_GAP) return;
    gThinnedAt = gNow;
    gCrowded = listener;
    visit_connections(give_up_if_silent);
}

// A SYN for a listener. Without room it is dropped, and the peer tries again. `first` is a number that ours
// has to be behind: a former connection between the same ends has used those before it.
static void begin_connection(const segment *in, zarn_endpoint_t *listener, const uint32_t *first) {
    const uint8_t *peer = in->network->source;
    int room = gConnections < kMostConnections;
    tcp_connection *c = room ? gUtil->zarn_malloc(sizeof(tcp_connection)) : NULL;
    zarn_endpoint_t *child = c != NULL ? gUtil->ep_spawn_endpoint(listener) : NULL;
    if (child == NULL) {
        gUtil->zarn_free(c);
        gCounts.refused++;
        thin_out(listener);
        notify(SAMPLE_NOTIFY_BACKLOG_FULL, in->destination_port, peer, in->network->destination);
        return;
    }
    find_node(child, &gTcp)->data = (uintptr_t)c;
    c->endpoint = child;
    copy_bytes(c->facts.client, peer, 4);
    copy_bytes(c->facts.server, gDevice->address, 4);
    c->facts.client_port = in->source_port;
    c->facts.server_port = in->destination_port;

    uint32_t sequence = hash_ends(peer, in->source_port, in->destination_port) + (uint32_t)(gNow / 4);
    if (first != NULL && !after(sequence, *first)) sequence = *first + 1;
    c->unacknowledged = sequence;
    c->next_sent = c->highest_sent = c->queue_end = sequence + 1;
    c->window = c->widest_window = in->window;
    c->window_sequence = in->sequence;
    c->first_received = in->sequence;
    c->next_expected = c->window_end = in->sequence + 1;
    c->timeout = SECOND;
    c->timed_at = c->heard_at = c->sent_at = gNow;
    c->challenged_at = gNow - SECOND;
    c->resend_at = gNow + c->timeout;
    read_options(in, c);

    *link_to(peer, in->source_port, in->destination_port) = c;
    gConnections++;
    send_syn_ack(c);
    schedule(c);
}

// A segment for which there is no connection [RFC 9293, 3.10.7.1 and 3.10.7.2].
static void meet_stranger(const segment *in, const uint32_t *first) {
    gUtil->zarn_lock_tallylock(&gLock);
    zarn_endpoint_t *listener = find_listener(in->destination_port);
    gUtil->zarn_unlock_tallylock(&gLock);
    if (listener == NULL || (in->flags & (kAck | kReset)) != 0) {
        refuse_segment(in);
    } else if ((in->flags & kSyn) != 0) {
        begin_connection(in, listener, first);
    }
}

// The network layer hands up what another host has sent to this one, and nothing else.
void receive_segment(const segment *in, zarn_data_t *data) {
    gNow = gDevice->now(gDevice);
    tcp_connection *c = *link_to(in->network->source, in->source_port, in->destination_port);
    uint32_t used, *first = NULL;
    if (c != NULL && c->state == kTimeWait && (in->flags & (kSyn | kAck | kReset)) == kSyn &&
        after(in->sequence, c->next_expected)) {
        // A new connection between the same ends, with numbers that no old segment can have.
        used = c->highest_sent;
        first = &used;
        end_connection(c, SAMPLE_CLOSED);
        c = NULL;
    }
    if (c != NULL) {
        take_segment(c, in, data);
        return;
    }
    meet_stranger(in, first);
    gUtil->delete_zarn_data(data);
}

void release_endpoint(proto_node *node) {
    tcp_connection *c = (tcp_connection *)node->data;
    c->endpoint = NULL;
    if (c->state == kTimeWait) {
        clear_queue(&c->received);
        return;
    }
    if (c->state != kClosed) {
        gNow = gDevice->now(gDevice);
        send_reset(c);
        end_connection(c, SAMPLE_CLOSED);
    } else {
        free_if_forgotten(c);
    }
}

void describe_connection(const proto_node *node, sample_connection *out) {
    *out = ((const tcp_connection *)node->data)->facts;
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    if (below == NULL || below->host == NULL) return ERR_BAD_VALUE;
    gDevice = device;
    gBelow = below;
    if (!start_timer()) {
        gDevice = NULL;
        return ERR_NO_MEMORY;
    }
    gNow = device->now(device);
    return 0;
}

static void forget(tcp_connection *c) {
    end_connection(c, SAMPLE_CLOSED);
}

static void detach(void) {
    visit_connections(forget);
    stop_timer();
    gDevice = NULL;
}

void ask_to_attend(tcp_connection *c) {
    int nothing_to_do = gWork == NULL;
    schedule(c);
    if (nothing_to_do && !gAttending) gDevice->request_attention(gDevice);
}

static void attend(void) {
    gNow = gDevice->now(gDevice);
    gAttending = 1;
    run_deadlines();
    // Nobody else tells the peers that there are frames again.
    if (gCramped && gDevice->room(gDevice) >= kAmpleRoom) {
        gCramped = 0;
        visit_connections(schedule);
    }
    while (gWork != NULL) {
        tcp_connection *c = gWork;
        tell_client(c);
        unschedule(c);
        send_what_may_go(c);
        watch_deadline(c);
    }
    gAttending = 0;
    arm_timer();
}

const sample_host_operations kHost = {.attach = attach, .detach = detach, .attend = attend};
