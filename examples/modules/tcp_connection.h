// SPDX-License-Identifier: MIT
//
// A connection of the host, and what the files that work on it offer each other.
//
// - Everything happens on the stack's thread, and there are no locks. What arrives is dealt with at once, up
//   to the queues; clients are told, and segments go out, when the whole batch is in: `schedule` notes who
//   has something to do, `attend` does it. So there is one acknowledgement for a batch, it rides on the
//   answer if there is one, and small pieces are gathered for as long as a batch takes. That stands in for
//   Nagle's algorithm, which would let a service that answers in small pieces wait for the peer's delayed
//   acknowledgements.
// - Events take the locks of endpoints, so they are raised in `attend` only. An endpoint can't go
//   meanwhile: whoever deletes one does it on this thread, too, and not from a hook.
// - Sequence numbers wrap: they are compared by `after` alone.
//
// The states of RFC 9293 and what they are here:
//
//     SYN-RECEIVED           kSynReceived
//     ESTABLISHED            kOpen
//     CLOSE-WAIT             kOpen, peer_finished
//     FIN-WAIT-1, -2         kOpen, ending; -2 when all is acknowledged
//     CLOSING, LAST-ACK      kOpen, ending, peer_finished; CLOSING with `finished_first`
//     TIME-WAIT              kTimeWait
//     CLOSED                 kClosed; the record stays as long as the endpoint
//
// There is no SYN-SENT: this host only answers.

#ifndef SAMPLE_TCP_CONNECTION_H
#define SAMPLE_TCP_CONNECTION_H

#include "tcp.h"

#pragma GCC visibility push(hidden)

#define NEVER INT64_MAX
#define MILLISECOND INT64_C(1000)
#define SECOND INT64_C(1000000)

enum {
    kReceiveBytes = 256 * 1024,  // that wait for the client, at most
    kReceivePieces = 512,        // each keeps a frame, however small it is
    kSmallestShare = 4,          // segments that a peer may send whoever else is there, if there are frames
    kAmpleRoom = 64,             // frames; with fewer free ones everybody suffers
    kSendBytes = 256 * 1024,     // at which `send_bytes` refuses
    kSendPieces = 512,
    kOwnShift = 3,          // RFC 7323: windows we tell are in units of 8 bytes, so that 256 KiB fit
    kWindowField = 65535,   // what fits in the header
    kInitialSegments = 10,  // RFC 6928
    kSackPermitted = 4,     // the option
    kToldBlocks = 4,        // as many as an option may have
    kRecent = 5,            // one of them may give way to another
    kSendings = 256         // segments under way to a peer that tells selectively; a power of two
};

// A buffer with bytes of a stream. On each queue pieces stand in the order of their bytes and don't overlap.
typedef struct tcp_piece {
    struct tcp_piece *next;
    uint32_t sequence;  // of its first byte
    zarn_data_t *data;  // not empty
} tcp_piece;

typedef struct tcp_queue {
    tcp_piece *head;
    tcp_piece *tail;  // meaningful only while `head` is not null
    uint32_t pieces;
    uint32_t bytes;
} tcp_queue;

// A segment that was sent and isn't acknowledged. What is lost hasn't been sent again yet.
typedef enum tcp_fate { kUnderWay, kArrived, kLost, kFates } tcp_fate;

// Why it was sent: for the first time, because it was lost, or because nothing was heard.
typedef enum tcp_cause { kFirst, kRepetition, kProbe } tcp_cause;

typedef struct tcp_sending {
    uint32_t start, end;  // sequence numbers, with that of a FIN
    uint32_t number;      // of the latest sending
    uint8_t fate, cause;  // of that
} tcp_sending;

typedef enum tcp_state { kSynReceived, kOpen, kTimeWait, kClosed } tcp_state;

typedef struct tcp_connection {
    struct tcp_connection *next;  // in its bucket; every connection but a closed one is in one
    struct tcp_connection *next_work,
        **work_link;            // among those that `attend` looks at; null: not one of them
    zarn_endpoint_t *endpoint;  // null: deleted
    tcp_state state;
    sample_connection facts;  // the two ends, constant, and what was sent

    // Sending. RFC 9293 has the names in brackets.
    uint32_t unacknowledged;  // first byte that the peer hasn't acknowledged [SND.UNA]
    uint32_t next_sent;       // what goes next; goes back when time has run out [SND.NXT]
    uint32_t highest_sent;    // behind all that was ever sent
    uint32_t queue_end;       // behind all bytes that are to be sent; our FIN's number
    tcp_queue outgoing;       // from `unacknowledged` to `queue_end`
    tcp_piece *cursor;        // piece that was sent from last, null: look from the head on
    uint32_t window;          // that the peer has told [SND.WND]
    uint32_t widest_window;   // of those
    uint32_t window_sequence, window_acknowledged;  // of the segment that told it [SND.WL1, SND.WL2]
    uint32_t window_shift;                          // of the peer's windows
    uint32_t segment_size;                          // most bytes in one segment, either way
    uint8_t ending;                                 // a FIN stands at `queue_end`
    uint8_t finished_first;                         // it was sent before the peer's had come

    // How much may be under way. RFC 5681, RFC 6582, RFC 6675
    uint32_t congestion_window, threshold;
    uint32_t recover;     // while recovering: what has to be acknowledged for the end of it
    uint32_t duplicates;  // acknowledgements of the same byte in a row
    uint8_t recovering;
    uint32_t former_window, former_threshold;  // before the loss; 0: that can't be undone

    // What is under way, and what the peer has told of it: see tcp_sack.c
    uint8_t selective;                 // it can tell, and may be told; else none of this is used
    uint8_t probes;                    // since something new was told
    tcp_sending sent[kSendings];       // a ring, in the order of bytes
    uint32_t first_sending, sendings;  // of which these are in use
    uint32_t bytes_in[kFates];
    uint32_t numbers, newest;  // the last number; the last that is known to have arrived
    uint32_t reordering;       // by so many sendings a segment is overtaken only when it is lost
    uint32_t repeated;         // sendings since the loss that aren't known to have been in vain

    // How long. RFC 6298; microseconds
    int64_t smoothed, variation;  // of the round trip; 0: none was measured
    int64_t timeout;
    int64_t patience;  // the same without its shortest value
    int64_t timed_at;  // when the segment that ends before `timed_end` was sent
    uint32_t timed_end;
    uint8_t timing;
    uint8_t shift;      // the pauses between looks at a closed window double with each
    uint32_t retries;   // in a row without an answer
    int64_t resend_at;  // NEVER: nothing under way, and no window to be probed
    int64_t heard_at, sent_at;
    int64_t challenged_at;

    // Receiving
    uint32_t first_received;        // the peer's SYN [IRS]
    uint32_t next_expected;         // [RCV.NXT]
    uint32_t window_end;            // what the peer has been allowed; never moves back [RCV.NXT + RCV.WND]
    uint32_t own_shift;             // kOwnShift, or 0 for a peer that can't
    tcp_queue received;             // in order; the client hasn't taken them
    tcp_queue early;                // behind a hole
    uint32_t fin;                   // the number of the peer's FIN
    uint8_t fin_seen;               // `fin` is valid
    uint8_t peer_finished;          // and all before it has come
    uint32_t doubled, doubled_end;  // bytes that have come twice, to be told; none when they are the same
    uint32_t recent[kRecent];       // a byte of each run behind a hole, the latest first

    // What `attend` has to do
    uint8_t owes_ack;
    uint8_t tell_ready, tell_data, tell_end;
    uint32_t ended;   // the value of SAMPLE_EVENT_ENDED; 0: not yet
    uint8_t refused;  // the client waits for room to send
} tcp_connection;

static inline int after(uint32_t a, uint32_t b) {
    return (int32_t)(a - b) > 0;
}

static inline uint32_t least(uint32_t a, uint32_t b) {
    return a < b ? a : b;
}

static inline uint32_t end_of(const tcp_piece *piece) {
    return piece->sequence + piece->data->length;
}

// Whether all that was sent has been acknowledged.
static inline int all_acknowledged(const tcp_connection *c) {
    return c->unacknowledged == c->highest_sent;
}

// Whether it is worth to send something again before a time-out.
static inline int may_probe(const tcp_connection *c) {
    return c->selective && c->patience << c->probes < c->timeout &&
           c->highest_sent - c->unacknowledged > c->segment_size;
}

static inline int fin_acknowledged(const tcp_connection *c) {
    return c->ending && c->unacknowledged == c->queue_end + 1;
}

// tcp_host.c
extern const sample_device *gDevice;
extern const sample_protocol_module *gBelow;
extern uint32_t gConnections;  // that are not closed
extern int gCramped;           // somebody's window is narrow for want of frames
extern int64_t gNow;           // on the kernel's clock; read once for each entry of the module
void schedule(tcp_connection *c);
void ask_to_attend(tcp_connection *c);                   // the same, from outside of a batch
void end_connection(tcp_connection *c, uint32_t value);  // the record goes if nobody has an endpoint for it
void start_time_wait(tcp_connection *c);
void visit_connections(void (*visit)(tcp_connection *c));  // which may end the one it is shown

// tcp_endpoint.c
void tell_client(tcp_connection *c);

// tcp_input.c: takes the buffer over. The connection may be gone behind it.
void take_segment(tcp_connection *c, const segment *in, zarn_data_t *data);

// tcp_queue.c
int append_piece(tcp_queue *queue, uint32_t sequence,
                 zarn_data_t *data);              // 0: no memory, nothing has changed
zarn_data_t *take_first_piece(tcp_queue *queue);  // null when it is empty
void drop_before(tcp_queue *queue, uint32_t sequence);
void clear_queue(tcp_queue *queue);
uint32_t room_for(const tcp_connection *c);  // how many more frames it may keep
void keep_payload(tcp_connection *c, uint32_t sequence, zarn_data_t *data);  // takes the buffer over

// tcp_output.c
void send_syn_ack(tcp_connection *c);
void send_ack(tcp_connection *c);
void send_challenge(tcp_connection *c);  // an acknowledgement of something odd, not too many of them
void send_probe(tcp_connection *c);      // what a living peer answers
void send_reset(tcp_connection *c);
void refuse_segment(const segment *in);  // which is for no connection
void resend_first(tcp_connection *c);
void resend_range(tcp_connection *c, uint32_t start, uint32_t end);  // `end` is behind a FIN in it
void send_sliver(tcp_connection *c);  // what the window lets through, however little
void send_what_may_go(tcp_connection *c);

// tcp_congestion.c
void begin_sending(tcp_connection *c);
void count_acknowledged(tcp_connection *c, uint32_t bytes);
void count_duplicate(tcp_connection *c);
void start_waiting(tcp_connection *c);
int begin_recovery(tcp_connection *c, uint32_t end);  // of a lost segment; 0: that is no news
void undo_recovery(tcp_connection *c);                // nothing was lost
int probe_early(tcp_connection *c);                   // 0: it is not the time
void back_off(tcp_connection *c);                     // time has run out
int64_t probe_pause(const tcp_connection *c);         // between looks at a closed window
uint32_t sendable_end(tcp_connection *c);

// tcp_sack.c
void note_arrival(tcp_connection *c, uint32_t start, uint32_t end);  // before the bytes are looked at
uint32_t write_arrivals(tcp_connection *c, uint8_t *option);         // returns its bytes, which may be 0
void note_sending(tcp_connection *c, uint32_t start, uint32_t end);  // of new bytes; there has to be a place
void take_arrivals(tcp_connection *c, const segment *in);            // behind its acknowledgement
int resend_lost(tcp_connection *c);                                  // the first segment; 0: none is lost
void resend_doubtful(tcp_connection *c);                             // the first that nothing is known of
void forget_arrivals(tcp_connection *c);                             // all counts as lost

// tcp_timer.c
int start_timer(void);  // 0: no memory
void stop_timer(void);
void run_deadlines(void);
void watch_deadline(tcp_connection *c);  // after its times have changed
void arm_timer(void);

#pragma GCC visibility pop

#endif
