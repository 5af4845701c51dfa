// SPDX-License-Identifier: MIT
//
// The protocols that frames run through: loads the sample modules and puts them on top of each other.

#ifndef ZARN_HOST_PROTOCOL_STACK_H
#define ZARN_HOST_PROTOCOL_STACK_H

#include <zarn/zarn_util.h>

#include <array>

#include "examples/modules/sample_protocol.h"

enum protocol_index { kEthernet, kArp, kIpv4, kIpv6, kIcmp, kTcp, kUdp, kProtocols };

using protocol_counts = std::array<sample_counts, kProtocols>;

// "ethernet", "arp", ...
const char *protocol_name(int index);

struct protocol_stack {
    zarn_util_module_t *util;
    const sample_protocol_module *modules[kProtocols];
};

// Loads the utility module and every protocol. On failure nothing stays loaded, and the line on stderr names
// the module.
bool load_protocol_stack(protocol_stack *stack);

// Releases what was loaded. False, with a line on stderr, when a module could not be released.
bool unload_protocol_stack(protocol_stack *stack);

// Hands the frame to the lowest protocol, which owns it from here.
inline void receive_frame(const protocol_stack *stack, zarn_data_t *data) {
    stack->modules[kEthernet]->receive(data, nullptr);
}

// Takes the counts of all protocols and starts them again at 0. Not while frames are received.
protocol_counts take_protocol_counts(const protocol_stack *stack);

#endif
