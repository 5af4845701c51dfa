// SPDX-License-Identifier: MIT
//
// A TAP device: an Ethernet whose other end is a network interface of this machine.
//
// - A frame is read right into a slot, which is what the buffer refers to; frames leave by one gathering
//   write from wherever their pieces lie.
// - All but request_attention is for one thread, the stack's. Slots come back on any thread.

#ifndef ZARN_HOST_TAP_DEVICE_H
#define ZARN_HOST_TAP_DEVICE_H

#include <cstdint>
#include <string>

#include "examples/modules/sample_protocol.h"
#include "host/frame_slots.h"
#include "host/protocol_stack.h"

// 8 MiB: what dozens of connections have on their way at a time, each with a window of 64 KiB, or the parts
// of 90 datagrams of the greatest length.
constexpr int32_t kDeviceSlots = 4096;

// Slots that no protocol keeps, so that frames can still be read when all others are kept. One would do:
// frames are dealt with one after the other, each holds one slot meanwhile, and what is sent because of it
// holds no more. The others are for a module of somebody's own that keeps a few without asking.
constexpr int32_t kReservedSlots = 64;

struct device_counts {
    uint64_t received, received_bytes;  // frames that were read, those that were dropped too
    uint64_t sent, sent_bytes;
    uint64_t without_room;  // of the received, dropped because no slot was free or no memory
    uint64_t unfit;         // likewise, because of their length
    uint64_t not_sent;      // the device had no room, or its link was down
};

struct tap_device {
    sample_device device = {};  // what the protocols see
    std::string name;
    int fd = -1;
    int attention_fd = -1;   // an eventfd
    uint32_t attention = 0;  // atomic: 1 from the request to the look
    frame_slots slots = {};
    const protocol_stack *stack = nullptr;   // that the slots are for
    struct pcap_dumper *recorder = nullptr;  // null: nothing is recorded
    std::string recorder_path;
    bool record_failed = false;
    device_counts counts = {};
};

// The host that it makes up on the network.
struct tap_settings {
    std::string name;
    uint8_t address[4] = {};
    uint32_t prefix = 0;      // 0: no address was given
    std::string record_path;  // empty: nothing is recorded
};

// Opens the device, and the record. False, with what to do about it on stderr and nothing left.
bool open_tap_device(tap_device *tap, const tap_settings &settings);

// Makes the slots. False, with a line on stderr, without memory.
bool create_tap_slots(tap_device *tap, const protocol_stack *stack);

// Returns how many slots are still out.
int32_t delete_tap_slots(tap_device *tap);

// Closes all but the slots.
void close_tap_device(tap_device *tap);

// Waits until a frame, a signal or a request for attention is there. False, with a line on stderr, when the
// device is gone.
bool wait_for_tap(tap_device *tap);

enum class tap_read { kFrame, kDropped, kNothing };

// Reads a frame. With kFrame the buffer is the caller's.
tap_read read_tap_frame(tap_device *tap, zarn_data_t **out);

// An address of the network that the machine's side can have.
std::string tap_peer_address(const tap_settings &settings);

// The four bytes of an IPv4 address as people write them.
std::string address_text(const uint8_t *address);

#endif
