// SPDX-License-Identifier: MIT
//
// TCP as an observer: the connections of others are followed without taking part in them. A SYN spawns a
// child of the listener, the child is ready when the three steps of the handshake have been seen, and it ends
// with a reset or with both sides' FIN.
//
// Two threads meet here: the one that receives, and the one that accepts, asks and deletes. `gLock` guards
// the connections and the way to them. `forget_observed` takes it, perhaps with the listener's lock held, so
// nothing is called under it that takes the lock of an endpoint. The receiver may use a child's endpoint
// without the lock, because the accepting side deletes it only when its end has been raised, which is the
// last that the receiver does with it, or when no packets are received.

#include "tcp.h"

enum { kBuckets = 1024, kWidestWindow = 1 << 30 };
enum { kClient, kServer, kSides };

typedef enum connection_state {
    kUnused,       // nothing has been seen
    kSynSeen,      // by the client
    kSynAckSeen,   // by the server
    kEstablished,  // the client has acknowledged it
} connection_state;

typedef struct connection {
    struct connection *next;  // in its bucket
    zarn_endpoint_t *endpoint;
    connection_state state;  // as long as it is in a bucket
    sample_connection facts;
    uint32_t first_sequence;     // of the client's SYN
    uint32_t next_byte[kSides];  // sequence number behind all that was counted
    uint8_t finished[kSides];
} connection;

static connection *gBuckets[kBuckets];

static int same_end(const uint8_t *address, uint16_t port, const uint8_t *other, uint16_t other_port) {
    return read32(address) == read32(other) && port == other_port;
}

// The same for both directions.
static connection **bucket_of(const uint8_t *a, uint16_t a_port, const uint8_t *b, uint16_t b_port) {
    uint32_t mixed = (read32(a) ^ read32(b)) + (uint32_t)(a_port ^ b_port) * 0x9e3779b1u;
    return &gBuckets[(mixed ^ mixed >> 16) % kBuckets];
}

// The connection of a segment, with the side that has sent it. Under the lock.
static connection *find_connection(const segment *in, int *side) {
    const uint8_t *from = in->network->source, *to = in->network->destination;
    connection *found = *bucket_of(from, in->source_port, to, in->destination_port);
    for (; found != NULL; found = found->next) {
        const sample_connection *facts = &found->facts;
        for (*side = kClient; *side < kSides; ++*side) {
            int client = *side == kClient;
            if (same_end(client ? from : to, client ? in->source_port : in->destination_port, facts->client,
                         facts->client_port) &&
                same_end(client ? to : from, client ? in->destination_port : in->source_port, facts->server,
                         facts->server_port))
                return found;
        }
    }
    return NULL;
}

// Takes a connection out of its bucket, if it is in one. Under the lock.
static void unlink_connection(connection *gone) {
    const sample_connection *facts = &gone->facts;
    connection **link = bucket_of(facts->client, facts->client_port, facts->server, facts->server_port);
    while (*link != NULL && *link != gone)
        link = &(*link)->next;
    if (*link != NULL) *link = gone->next;
}

// Tells the accepting side that a connection has ended, which has been unlinked, and was in `state`. With
// that the endpoint may go at any moment. A child that isn't ready yet is made so, last of all: only then can
// anybody dequeue and delete it.
static void end_connection(zarn_endpoint_t *endpoint, connection_state state) {
    int failed = state != kEstablished;
    gUtil->ep_notify_endpoint(endpoint, SAMPLE_EVENT_ENDED, failed ? SAMPLE_FAILED : SAMPLE_CLOSED);
    if (failed) gUtil->ep_ready_endpoint(endpoint);
}

// A SYN of a connection that isn't known.
static void begin_connection(const segment *in, zarn_endpoint_t *listener) {
    connection *created = gUtil->zarn_malloc(sizeof(connection));
    zarn_endpoint_t *child = created != NULL ? gUtil->ep_spawn_endpoint(listener) : NULL;
    if (child == NULL) {
        gUtil->zarn_free(created);
        gCounts.refused++;
        notify(SAMPLE_NOTIFY_BACKLOG_FULL, in->destination_port, in->network->source,
               in->network->destination);
        return;
    }
    find_node(child, &gTcp)->data = (uintptr_t)created;
    sample_connection *facts = &created->facts;
    for (int i = 0; i < 4; i++) {
        facts->client[i] = in->network->source[i];
        facts->server[i] = in->network->destination[i];
    }
    facts->client_port = in->source_port;
    facts->server_port = in->destination_port;
    created->endpoint = child;
    created->state = kSynSeen;
    created->first_sequence = in->sequence;
    created->next_byte[kClient] = in->sequence + 1;
    facts->client_bytes = in->payload;
    created->next_byte[kClient] += in->payload;

    connection **bucket = bucket_of(facts->client, facts->client_port, facts->server, facts->server_port);
    gUtil->zarn_lock_tallylock(&gLock);
    created->next = *bucket;
    *bucket = created;
    gUtil->zarn_unlock_tallylock(&gLock);
}

// Counts what is new in a segment. Sequence numbers wrap, so they are compared by their distance. A FIN
// counts all that was sent before it, and takes a number itself, which the sender's later segments stand
// behind.
static void count_payload(connection *known, const segment *in, int side) {
    if (known->finished[side] || (in->payload == 0 && (in->flags & kFin) == 0)) return;
    uint32_t end = in->sequence + ((in->flags & kSyn) != 0) + in->payload;
    uint32_t fresh = end - known->next_byte[side];
    if ((int32_t)fresh <= 0 || fresh > kWidestWindow) return;
    known->next_byte[side] = end;
    *(side == kClient ? &known->facts.client_bytes : &known->facts.server_bytes) += fresh;
}

// Takes a known connection on by a segment. Returns whether it ends with it. Under the lock.
static int advance_connection(connection *known, const segment *in, int side) {
    if ((in->flags & kReset) != 0) return 1;
    if (side == kServer && known->state == kSynSeen) {
        if ((in->flags & (kSyn | kAck)) != (kSyn | kAck) ||
            (int32_t)(in->acknowledged - known->first_sequence) <= 0)
            return 0;
        known->state = kSynAckSeen;
        known->next_byte[kServer] = in->sequence + 1;
    }
    if (side == kClient && known->state == kSynAckSeen && (in->flags & kAck) != 0 &&
        (int32_t)(in->acknowledged - known->next_byte[kServer]) >= 0)
        known->state = kEstablished;
    count_payload(known, in, side);
    if ((in->flags & kFin) != 0) known->finished[side] = 1;
    return known->state == kEstablished && known->finished[kClient] && known->finished[kServer];
}

void observe_segment(const segment *in) {
    zarn_endpoint_t *ended = NULL, *ready = NULL, *listener = NULL;
    connection_state state = kUnused;
    int side, first = (in->flags & (kSyn | kAck | kReset)) == kSyn;
    gUtil->zarn_lock_tallylock(&gLock);
    connection *known = find_connection(in, &side);
    int again = first && known != NULL && side == kClient && in->sequence == known->first_sequence;
    if (first && !again) listener = find_listener(in->destination_port);
    if (known != NULL) {
        // A new SYN between the same two ends: nothing has been seen of the end of the connection before.
        connection_state before = known->state;
        int end = (first && !again) || advance_connection(known, in, side);
        state = known->state;
        if (before != kEstablished && state == kEstablished) ready = known->endpoint;
        if (end) {
            ended = known->endpoint;
            unlink_connection(known);
        }
    }
    gUtil->zarn_unlock_tallylock(&gLock);

    if (ready != NULL) gUtil->ep_ready_endpoint(ready);
    if (ended != NULL) end_connection(ended, state);
    if (listener != NULL) begin_connection(in, listener);
}

void forget_observed(proto_node *node) {
    connection *gone = (connection *)node->data;
    gUtil->zarn_lock_tallylock(&gLock);
    unlink_connection(gone);
    gUtil->zarn_unlock_tallylock(&gLock);
    gUtil->zarn_free(gone);
}

void describe_observed(const proto_node *node, sample_connection *out) {
    gUtil->zarn_lock_tallylock(&gLock);
    *out = ((connection *)node->data)->facts;
    gUtil->zarn_unlock_tallylock(&gLock);
}
