// SPDX-License-Identifier: MIT
//
// ICMP (RFC 792): its checksum covers the message and nothing else. On a device echo requests are answered,
// and the senders of what can't be delivered are told so.

#include "sample_module.h"

#include "sample_clock.h"
#include "sample_host.h"

enum { kHeader = 8, kEchoReply = 0, kUnreachable = 3, kEchoRequest = 8 };
enum {
    kProtocol = 1,
    kMostQuoted = 548,    // bytes: with both headers no more than every host takes in one piece
    kMostRefusals = 1000  // in a second: nobody can have us flood others with them
};

static uint32_t gRefusals;  // in the present second
static uint32_t gSecond;    // which it is

static sample_verdict check(zarn_data_t *data, const sample_network_header *network) {
    if (network == NULL || network->part == SAMPLE_PART) return kUnverified;
    if (data->length < kHeader || data->length < data->user_word_1) return kUnverified;
    return sum_packet(data, data->length) == 0 ? kGood : kBad;
}

static void send_message(zarn_data_t *data, const sample_network_header *network) {
    sample_destination to = {.protocol = kProtocol};
    copy_bytes(to.address, network->source, 4);
    count_departure(data);
    network->below->host->send(data, &to);
}

// The answer refers to the bytes of the request, but for the four that differ. The checksum changes by the
// one word beside it, however long the message is. As a field, both forms of zero are right, but for a
// message that is nothing but zeros: there only 0xffff is.
static void answer_echo(zarn_data_t *data, const sample_network_header *network) {
    static const uint8_t kRequestWord[2] = {kEchoRequest, 0}, kReplyWord[2] = {kEchoReply, 0};
    const uint8_t *request = map_bytes(data, 0, 4);
    if (request == NULL || request[0] != kEchoRequest || request[1] != 0) return;
    zarn_data_t *reply = gUtil->new_zarn_data();
    if (reply == NULL) return;
    uint8_t *header =
        gUtil->clone_zarn_data(reply, data, 4, data->length - 4) == 0 ? prepend_header(reply, 4) : NULL;
    if (header == NULL) {
        lose_packet(reply);
        return;
    }
    copy_bytes(header, kReplyWord, 2);
    uint32_t checksum = gUtil->incremental_checksum(read_checksum(request + 2), read_checksum(kRequestWord),
                                                    read_checksum(kReplyWord));
    write_checksum(header + 2, checksum != 0 ? checksum : 0xffff);
    send_message(reply, network);
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    sample_verdict verdict = check(data, network);
    count_packet(data, network, verdict);
    if (verdict == kGood && network->below != NULL) answer_echo(data, network);
    gUtil->delete_zarn_data(data);
}

// The message quotes the packet: its header, and the start of what follows.
static void refuse(zarn_data_t *data, const sample_network_header *network, sample_refusal why) {
    if (network->part == SAMPLE_PART || network->protocol == kProtocol) return;
    if (gSecond != read_clock()) gRefusals = 0;
    gSecond = read_clock();
    if (gRefusals++ >= kMostRefusals) return;

    zarn_data_t *message = gUtil->new_zarn_data();
    if (message == NULL) return;
    uint32_t most = kMostQuoted - network->header_length;
    uint8_t *header = NULL;
    if (gUtil->clone_zarn_data(message, data, 0, data->length < most ? data->length : most) == 0)
        header = prepend_header(message, kHeader + network->header_length);
    if (header == NULL) {
        lose_packet(message);
        return;
    }
    copy_bytes(header + kHeader, network->header, network->header_length);
    write32(header, kUnreachable << 24 | (uint32_t)why << 16);
    write32(header + 4, 0);
    write_checksum(header + 2, sum_packet(message, message->length));
    send_message(message, network);
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    (void)device;
    (void)below;
    return start_clock(NULL);
}

static const sample_host_operations kHost = {.attach = attach, .detach = stop_clock, .refuse = refuse};
static const sample_protocol_module gIcmp = {
    {{"network/icmp", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    forget_uppers,
    NULL,
    &kHost};
const void *const modules[] = {&gIcmp, NULL};
