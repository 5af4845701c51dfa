// SPDX-License-Identifier: MIT
//
// The bytes of a connection that wait: to be acknowledged, to be taken, or for a hole before them to be
// filled. They stay in the memory that they came in. A queue has a buffer for each piece, because the memory
// of a buffer comes back when the buffer goes, and not when bytes are trimmed off it.

#include "tcp_connection.h"

static void link_piece(tcp_queue *queue, tcp_piece **link, tcp_piece *piece) {
    piece->next = *link;
    if (*link == NULL) queue->tail = piece;
    *link = piece;
    queue->pieces++;
    queue->bytes += piece->data->length;
}

static tcp_piece *unlink_first(tcp_queue *queue) {
    tcp_piece *piece = queue->head;
    queue->head = piece->next;
    queue->pieces--;
    queue->bytes -= piece->data->length;
    return piece;
}

// Where the next piece goes.
static tcp_piece **queue_link(tcp_queue *queue) {
    return queue->head != NULL ? &queue->tail->next : &queue->head;
}

static tcp_piece *new_piece(uint32_t sequence, zarn_data_t *data) {
    tcp_piece *piece = gUtil->zarn_falloc(sizeof(tcp_piece));
    if (piece != NULL) *piece = (tcp_piece){NULL, sequence, data};
    return piece;
}

int append_piece(tcp_queue *queue, uint32_t sequence, zarn_data_t *data) {
    tcp_piece *piece = new_piece(sequence, data);
    if (piece != NULL) link_piece(queue, queue_link(queue), piece);
    return piece != NULL;
}

zarn_data_t *take_first_piece(tcp_queue *queue) {
    if (queue->head == NULL) return NULL;
    tcp_piece *piece = unlink_first(queue);
    zarn_data_t *data = piece->data;
    gUtil->zarn_free(piece);
    return data;
}

void clear_queue(tcp_queue *queue) {
    while (queue->head != NULL)
        gUtil->delete_zarn_data(take_first_piece(queue));
}

void drop_before(tcp_queue *queue, uint32_t sequence) {
    while (queue->head != NULL && !after(end_of(queue->head), sequence))
        gUtil->delete_zarn_data(take_first_piece(queue));
    tcp_piece *first = queue->head;
    if (first == NULL || !after(sequence, first->sequence)) return;
    uint32_t gone = sequence - first->sequence;
    gUtil->trim_zarn_data(first->data, 0, gone);
    first->sequence = sequence;
    queue->bytes -= gone;
}

// Takes the buffer over, which may be null. Without memory it is lost.
static void insert_whole(tcp_queue *queue, tcp_piece **link, uint32_t sequence, zarn_data_t *data) {
    tcp_piece *piece = data != NULL ? new_piece(sequence, data) : NULL;
    if (piece != NULL) {
        link_piece(queue, link, piece);
    } else if (data != NULL) {
        gUtil->delete_zarn_data(data);
    }
}

// Puts bytes in their place, but for those that are there. Takes the buffer over.
static void insert_bytes(tcp_queue *queue, uint32_t sequence, zarn_data_t *data) {
    tcp_piece **link = &queue->head;
    for (;;) {
        while (*link != NULL && !after(end_of(*link), sequence))
            link = &(*link)->next;
        const tcp_piece *other = *link;
        if (other != NULL && !after(other->sequence, sequence)) {
            uint32_t covered = end_of(other) - sequence;
            if (covered >= data->length) {
                gUtil->delete_zarn_data(data);
                return;
            }
            gUtil->trim_zarn_data(data, 0, covered);
            sequence += covered;
            continue;
        }
        uint32_t gap = other != NULL ? other->sequence - sequence : data->length;
        if (gap >= data->length) {
            insert_whole(queue, link, sequence, data);
            return;
        }
        // It reaches over the next piece: the part before that is a piece of its own.
        zarn_data_t *part = gUtil->new_zarn_data();
        if (part != NULL && gUtil->clone_zarn_data(part, data, 0, gap) != 0) {
            gUtil->delete_zarn_data(part);
            part = NULL;
        }
        insert_whole(queue, link, sequence, part);
        gUtil->trim_zarn_data(data, 0, gap);
        sequence += gap;
    }
}

static void drop_early(tcp_connection *c) {
    clear_queue(&c->early);
}

// Moves the bytes that have become the next ones to those that the client may take.
static void drain_early(tcp_connection *c) {
    while (c->early.head != NULL && c->early.head->sequence == c->next_expected) {
        tcp_piece *piece = unlink_first(&c->early);
        link_piece(&c->received, queue_link(&c->received), piece);
        c->next_expected += piece->data->length;
        c->facts.client_bytes += piece->data->length;
        c->tell_data = 1;
    }
}

// Nobody may keep more than is left for the others, whatever windows were told: so peers that take nothing,
// and send a byte in each frame, can't have all frames between them.
uint32_t room_for(const tcp_connection *c) {
    uint32_t kept = c->received.pieces + c->early.pieces, all = kept + c->outgoing.pieces;
    uint32_t left = gDevice->room(gDevice);
    if (kept >= kReceivePieces || all >= left) return 0;
    return least(kReceivePieces - kept, left - all);
}

// Keeps bytes that lie in the window, none of which has been taken before. Bytes that there is no memory for
// are as good as lost on the way: the peer sends them again. Bytes behind a hole may be thrown away at any
// time, since even a peer that was told of them keeps them until they are acknowledged; so they give way to
// those that come in order, which is why full memory can't stop everybody.
void keep_payload(tcp_connection *c, uint32_t sequence, zarn_data_t *data) {
    int in_order = sequence == c->next_expected;
    if (in_order && gDevice->room(gDevice) == 0) visit_connections(drop_early);
    if (in_order && room_for(c) == 0) clear_queue(&c->early);
    if (room_for(c) == 0) {
        gUtil->delete_zarn_data(data);
        return;
    }
    insert_bytes(&c->early, sequence, data);
    drain_early(c);
}
