// SPDX-License-Identifier: MIT
//
// ARP (RFC 826): counted; on a device also answered, and asked for the hardware addresses of the neighbours.
//
// A neighbour is learned when it asks for us, or answers us. What is known of it is used for a minute; then
// it is asked again, and used meanwhile. Who doesn't answer is forgotten, with the packets that wait for it.

#include "sample_module.h"

#include "sample_clock.h"
#include "sample_host.h"

enum { kRequest = 1, kReply = 2 };
enum { kOperation = 6, kSenderHardware = 8, kSender = 14, kTargetHardware = 18, kTarget = 24, kPacket = 28 };
enum {
    kNeighbours = 64,
    kMostWaiting = 48,  // packets for one neighbour: the longest datagram in parts of 1500 bytes
    kMostAsks = 3,
    kFresh = 60,         // seconds
    kQuietSeconds = 10,  // between two complaints about the same address in use twice
    kType = 0x806
};

typedef struct neighbour {
    uint8_t used;  // 0: the rest means nothing
    uint8_t known;
    uint8_t wanted;  // since it was heard of last
    uint8_t address[4];
    uint8_t hardware[6];                 // if it is known
    uint32_t asks;                       // since it was heard of last
    uint32_t since;                      // the second in which it was heard of, or asked, last
    uint32_t waiting_count;              // 0 if it is known
    zarn_data_t *waiting[kMostWaiting];  // oldest first; their first word is the EtherType
} neighbour;

static const uint8_t kEverybody[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
static const uint8_t kNobody[6];

static const sample_device *gDevice;  // null: ARP is only looked on at
static const sample_protocol_module *gBelow;
static neighbour gNeighbours[kNeighbours];
static uint32_t gLastLook;       // in seconds
static uint32_t gLastComplaint;  // likewise, 0 before the first

static void send_packet(uint16_t operation, const uint8_t *hardware, const uint8_t *target,
                        const uint8_t *destination) {
    zarn_data_t *data = gUtil->new_zarn_data();
    if (data == NULL) return;
    uint8_t *packet = prepend_header(data, kPacket);
    if (packet == NULL) {
        lose_packet(data);
        return;
    }
    static const uint8_t kEthernetAndIpv4[] = {0, 1, 8, 0, 6, 4};
    copy_bytes(packet, kEthernetAndIpv4, sizeof(kEthernetAndIpv4));
    write16(packet + kOperation, operation);
    copy_bytes(packet + kSenderHardware, gDevice->hardware, 6);
    copy_bytes(packet + kSender, gDevice->address, 4);
    copy_bytes(packet + kTargetHardware, hardware, 6);
    copy_bytes(packet + kTarget, target, 4);
    sample_destination to = {.protocol = kType};
    copy_bytes(to.address, destination, 4);
    count_departure(data);
    gBelow->host->send(data, &to);
}

static void announce(void) {
    send_packet(kRequest, kNobody, gDevice->address, kEverybody);
}

static void ask(neighbour *whom) {
    whom->asks++;
    whom->since = read_clock();
    send_packet(kRequest, kNobody, whom->address, kEverybody);
}

static void forget(neighbour *gone) {
    for (uint32_t i = 0; i < gone->waiting_count; i++)
        lose_packet(gone->waiting[i]);
    *gone = (neighbour){0};
}

static neighbour *find_neighbour(const uint8_t *address) {
    for (uint32_t i = 0; i < kNeighbours; i++) {
        neighbour *place = &gNeighbours[(address[3] + i) % kNeighbours];
        if (place->used && same_address(place->address, address)) return place;
    }
    return NULL;
}

// In a free place, or in that of the neighbour that nothing was heard of for longest.
static neighbour *add_neighbour(const uint8_t *address) {
    uint32_t now = read_clock();
    neighbour *place = &gNeighbours[address[3] % kNeighbours];
    for (uint32_t i = 0; i < kNeighbours && place->used; i++) {
        neighbour *other = &gNeighbours[(address[3] + i) % kNeighbours];
        if (!other->used || now - other->since > now - place->since) place = other;
    }
    forget(place);
    place->used = 1;
    place->since = now;
    copy_bytes(place->address, address, 4);
    return place;
}

// Sends what has waited for the address.
static void learn(neighbour *whom, const uint8_t *hardware) {
    whom->known = 1;
    whom->wanted = 0;
    whom->asks = 0;
    whom->since = read_clock();
    copy_bytes(whom->hardware, hardware, 6);
    uint32_t count = whom->waiting_count;
    whom->waiting_count = 0;
    for (uint32_t i = 0; i < count; i++) {
        sample_destination to = {.protocol = (uint16_t)whom->waiting[i]->user_word_1};
        copy_bytes(to.address, whom->address, 4);
        gBelow->host->send(whom->waiting[i], &to);
    }
}

static const uint8_t *resolve(zarn_data_t *data, const sample_destination *to) {
    neighbour *whom = find_neighbour(to->address);
    if (whom == NULL) {
        whom = add_neighbour(to->address);
        ask(whom);
    }
    whom->wanted = 1;
    if (whom->known) return whom->hardware;
    if (gDevice->room(gDevice) == 0) {  // it may refer to received frames
        lose_packet(data);
        return NULL;
    }
    if (whom->waiting_count == kMostWaiting) {
        lose_packet(whom->waiting[0]);
        whom->waiting_count--;
        for (uint32_t i = 0; i < whom->waiting_count; i++)
            whom->waiting[i] = whom->waiting[i + 1];
    }
    data->user_word_1 = to->protocol;
    whom->waiting[whom->waiting_count++] = data;
    return NULL;
}

// Somebody else says that the address is its own: whoever is on the network is told the truth.
static void complain(const uint8_t *hardware) {
    uint32_t now = read_clock();
    if (gLastComplaint != 0 && now - gLastComplaint < kQuietSeconds) return;
    gLastComplaint = now != 0 ? now : 1;
    kern_log("arp: %02x:%02x:%02x:%02x:%02x:%02x uses our address, too: one of us needs another\n",
             hardware[0], hardware[1], hardware[2], hardware[3], hardware[4], hardware[5]);
    announce();
}

// A packet that isn't malformed, from a host that can be.
static void take_packet(const uint8_t *packet) {
    const uint8_t *hardware = packet + kSenderHardware, *sender = packet + kSender;
    int asks_for_us =
        read16(packet + kOperation) == kRequest && same_address(packet + kTarget, gDevice->address);
    if (same_address(sender, gDevice->address)) {
        complain(hardware);
        return;
    }
    if (read32(sender) == 0) {  // it wants to know whether the address is free
        if (asks_for_us) send_packet(kReply, hardware, sender, kEverybody);
        return;
    }
    if (!is_on_network(gDevice, sender) || is_broadcast(gDevice, sender)) {
        gCounts.foreign++;
        return;
    }
    neighbour *whom = find_neighbour(sender);
    if (whom == NULL && asks_for_us) whom = add_neighbour(sender);
    if (whom != NULL) learn(whom, hardware);
    if (asks_for_us) send_packet(kReply, hardware, sender, sender);
}

static void receive(zarn_data_t *data, const sample_network_header *network) {
    (void)network;
    count_arrival(data);
    const uint8_t *packet = gDevice != NULL ? map_bytes(data, 0, kPacket) : NULL;
    if (packet != NULL) {
        uint16_t operation = read16(packet + kOperation);
        int sound = read32(packet) == 0x00010800 && read16(packet + 4) == 0x0604 &&
                    (operation == kRequest || operation == kReply);
        // No host has an address of many, and what we have sent ourselves tells nothing.
        int many = (packet[kSenderHardware] & 1) != 0, own = 1;
        for (int i = 0; i < 6; i++)
            own = own && packet[kSenderHardware + i] == gDevice->hardware[i];
        if (!sound || many || own) {
            gCounts.foreign++;
        } else {
            take_packet(packet);
        }
    }
    gUtil->delete_zarn_data(data);
}

static void attend(void) {
    uint32_t now = read_clock();
    if (now == gLastLook) return;
    gLastLook = now;
    for (neighbour *whom = gNeighbours; whom < gNeighbours + kNeighbours; whom++) {
        if (!whom->used || now - whom->since < (whom->asks == 0 ? kFresh : 1u)) continue;
        if (whom->asks == kMostAsks || !whom->wanted) {
            forget(whom);
        } else {
            ask(whom);
        }
    }
}

static int32_t attach(const sample_device *device, const sample_protocol_module *below) {
    int32_t status = start_clock(device);
    if (status != 0) return status;
    gDevice = device;
    gBelow = below;
    announce();
    return 0;
}

static void detach(void) {
    for (neighbour *whom = gNeighbours; whom < gNeighbours + kNeighbours; whom++)
        forget(whom);
    stop_clock();
    gDevice = NULL;
}

static const sample_host_operations kHost = {
    .attach = attach, .detach = detach, .attend = attend, .resolve = resolve};
static const sample_protocol_module gArp = {
    {{"network/arp", SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_protocol, uninit_protocol},
    receive,
    upper_at,
    take_counts,
    forget_uppers,
    NULL,
    &kHost};
const void *const modules[] = {&gArp, NULL};
