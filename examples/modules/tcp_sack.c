// SPDX-License-Identifier: MIT
//
// Selective acknowledgements (RFC 2018, RFC 2883): the peer is told what has come behind a hole, and what it
// tells decides what is sent again.
//
// There is a record of each segment that is under way, and sendings are numbered, first and repeated ones
// alike. A segment is lost when another has arrived that was sent `reordering` numbers later, which finds
// repetitions that are lost, too. Numbers stand in for the times of RFC 8985, because the kernel's timers are
// coarser than a round trip on a local network. Where segments overtake each other `reordering` grows: when
// one arrives that was overtaken by as many, and when the peer has got one twice that was sent again in vain.
// What was sent more than once says nothing of others, since nobody knows which of its sendings has arrived.
//
// A peer may throw away what it has told of [RFC 2018, 8]. So bytes stay in the queue until they are
// acknowledged, and a time-out forgets what was told. What can't be true is passed over.

#include "tcp_connection.h"

enum { kSack = 5, kBlock = 8, kMostReordering = 64 };

_Static_assert((kSendings & (kSendings - 1)) == 0, "places in the ring are counted on and on");

typedef struct block {
    uint32_t start, end;
} block;

// Receiving

// The bytes without a gap among those behind a hole that `sequence` belongs to. False: it is none of them.
static int find_run(const tcp_connection *c, uint32_t sequence, block *run) {
    const tcp_piece *piece = c->early.head;
    *run = (block){sequence, sequence};
    for (; piece != NULL && !after(piece->sequence, sequence); piece = piece->next) {
        if (piece == c->early.head || piece->sequence != run->end) run->start = piece->sequence;
        run->end = end_of(piece);
    }
    if (!after(run->end, sequence)) return 0;
    for (; piece != NULL && piece->sequence == run->end; piece = piece->next)
        run->end = end_of(piece);
    return 1;
}

void note_arrival(tcp_connection *c, uint32_t start, uint32_t end) {
    block run;
    if (!c->selective || !after(end, start)) return;
    if (after(c->next_expected, start)) {
        c->doubled = start;
        c->doubled_end = after(end, c->next_expected) ? c->next_expected : end;
    } else if (find_run(c, start, &run) && !after(end, run.end)) {
        c->doubled = start;
        c->doubled_end = end;
    }
    if (!after(start, c->next_expected)) return;
    for (int i = kRecent - 1; i > 0; i--)
        c->recent[i] = c->recent[i - 1];
    c->recent[0] = start;
}

uint32_t write_arrivals(tcp_connection *c, uint8_t *option) {
    block told[1 + kRecent];
    uint32_t first = 0, runs = 0;
    if (c->doubled != c->doubled_end) told[first++] = (block){c->doubled, c->doubled_end};
    c->doubled = c->doubled_end;
    for (uint32_t i = 0, j; c->early.head != NULL && i < kRecent; i++) {
        block *run = &told[first + runs];
        if (!find_run(c, c->recent[i], run)) continue;
        for (j = first; told[j].start != run->start;)
            j++;
        if (j == first + runs) c->recent[runs++] = run->start;
    }
    uint32_t count = least(first + runs, kToldBlocks), length = 2 + kBlock * count;
    if (count == 0) return 0;
    option[0] = option[1] = 1;
    option[2] = kSack;
    option[3] = (uint8_t)length;
    for (uint32_t i = 0; i < count; i++) {
        write32(option + 4 + kBlock * i, told[i].start);
        write32(option + 8 + kBlock * i, told[i].end);
    }
    return 2 + length;
}

// Sending

static tcp_sending *sending_at(tcp_connection *c, uint32_t index) {
    return &c->sent[(c->first_sending + index) % kSendings];
}

static void set_fate(tcp_connection *c, tcp_sending *sending, uint8_t fate) {
    c->bytes_in[sending->fate] -= sending->end - sending->start;
    sending->fate = fate;
    c->bytes_in[fate] += sending->end - sending->start;
}

static tcp_sending *first_in(tcp_connection *c, uint8_t fate) {
    for (uint32_t i = 0; c->bytes_in[fate] != 0; i++)
        if (sending_at(c, i)->fate == fate) return sending_at(c, i);
    return NULL;
}

void note_sending(tcp_connection *c, uint32_t start, uint32_t end) {
    *sending_at(c, c->sendings++) = (tcp_sending){start, end, ++c->numbers, kUnderWay, kFirst};
    c->bytes_in[kUnderWay] += end - start;
}

int resend_lost(tcp_connection *c) {
    tcp_sending *lost = first_in(c, kLost);
    if (lost == NULL) return 0;
    set_fate(c, lost, kUnderWay);
    lost->number = ++c->numbers;
    lost->cause = kRepetition;
    c->repeated++;
    resend_range(c, lost->start, lost->end);
    return 1;
}

// The first loss since the last recovery is sent again at once, whatever else is under way.
static void lose(tcp_connection *c, tcp_sending *sending) {
    set_fate(c, sending, kLost);
    if (begin_recovery(c, sending->end)) resend_lost(c);
}

void resend_doubtful(tcp_connection *c) {
    tcp_sending *first = first_in(c, kUnderWay);
    if (first != NULL) lose(c, first);
    if (first == NULL || first->fate == kLost) resend_lost(c);
    if (first != NULL) first->cause = kProbe;
}

void forget_arrivals(tcp_connection *c) {
    for (uint32_t i = 0; i < c->sendings; i++)
        set_fate(c, sending_at(c, i), kLost);
    resend_lost(c);
}

static void tolerate(tcp_connection *c, uint32_t sendings) {
    c->reordering = least(sendings, kMostReordering);
}

// A segment has arrived. `newest` is the latest sending that is known to have; what the connection has there
// is from former acknowledgements, since what one of them tells of has no order.
static void learn(tcp_connection *c, const tcp_sending *sending, uint32_t *newest) {
    c->probes = 0;
    if (sending->cause != kFirst) return;
    if (after(sending->number, *newest)) *newest = sending->number;
    if (after(c->newest, sending->number + c->reordering - 1)) tolerate(c, c->newest - sending->number + 1);
}

static void drop_acknowledged(tcp_connection *c, uint32_t *newest) {
    while (c->sendings != 0) {
        tcp_sending *first = sending_at(c, 0);
        if (!after(c->unacknowledged, first->start)) return;
        uint32_t bytes = least(c->unacknowledged - first->start, first->end - first->start);
        c->bytes_in[first->fate] -= bytes;
        if (first->start + bytes != first->end) {
            first->start += bytes;
            return;
        }
        if (first->fate != kArrived) learn(c, first, newest);
        c->first_sending++;
        c->sendings--;
    }
}

static void take_block(tcp_connection *c, const block *told, uint32_t *newest) {
    if (!after(told->start, c->unacknowledged) || after(told->end, c->highest_sent)) return;
    for (uint32_t i = 0; i < c->sendings; i++) {
        tcp_sending *sending = sending_at(c, i);
        if (sending->fate == kArrived || after(told->start, sending->start)) continue;
        if (after(sending->end, told->end)) return;
        learn(c, sending, newest);
        set_fate(c, sending, kArrived);
    }
}

// The sending of a segment that the peer has got twice, if it was one of ours that has doubled it and not the
// network. Acknowledged ones stay in the ring until others take their places. RFC 2883, 4 tells how such a
// block is known.
static tcp_sending *find_doubled(tcp_connection *c, const segment *in, const block *told, uint32_t count) {
    int had = count != 0 && !after(told->end, in->acknowledged);
    int inside = count > 1 && !after(told[1].start, told->start) && !after(told->end, told[1].end);
    for (uint32_t i = 0; (had || inside) && i < kSendings; i++)
        if (c->sent[i].cause != kFirst && c->sent[i].start == told->start) return &c->sent[i];
    return NULL;
}

static uint32_t read_blocks(const segment *in, block *told) {
    const uint8_t *option = find_option(in, kSack);
    uint32_t count = 0, length = option != NULL ? option[1] : 0;
    for (uint32_t at = 2; at + kBlock <= length; at += kBlock)
        told[count++] = (block){read32(option + at), read32(option + at + 4)};
    return count;
}

void take_arrivals(tcp_connection *c, const segment *in) {
    block told[kToldBlocks];
    uint32_t newest = c->newest, count = read_blocks(in, told);
    drop_acknowledged(c, &newest);
    for (uint32_t i = 0; i < count; i++)
        take_block(c, &told[i], &newest);
    c->newest = newest;
    tcp_sending *vain = find_doubled(c, in, told, count);
    if (vain != NULL) {
        if (vain->cause == kRepetition) tolerate(c, c->reordering + 1);
        vain->cause = kFirst;
        if (c->repeated != 0 && --c->repeated == 0) undo_recovery(c);
    }
    for (uint32_t i = 0; c->bytes_in[kArrived] != 0 && i < c->sendings; i++) {
        tcp_sending *sending = sending_at(c, i);
        if (sending->fate == kUnderWay && after(newest, sending->number + c->reordering - 1))
            lose(c, sending);
    }
}
