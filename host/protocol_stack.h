// SPDX-License-Identifier: MIT
//
// The protocols that frames run through. The lowest of them is loaded here, as a driver would; who stands
// above it is told by the settings, and found by the protocols themselves.

#ifndef ZARN_HOST_PROTOCOL_STACK_H
#define ZARN_HOST_PROTOCOL_STACK_H

#include <zarn/zarn_util.h>

#include <array>
#include <string>
#include <vector>

#include "examples/modules/sample_protocol.h"

// The protocols that reports know by name.
enum protocol_index { kEthernet, kArp, kIpv4, kIpv6, kIcmp, kTcp, kUdp, kProtocols };

// "ethernet", "arp", ...
const char *protocol_name(int index);

struct named_counts {
    std::string name;
    sample_counts counts;
};

struct protocol_counts {
    std::array<sample_counts, kProtocols> known = {};
    std::vector<named_counts> others;  // that the settings have brought in beside them
    uint64_t unloadable = 0;           // lookups of a protocol that can't be loaded, in all protocols
};

struct protocol_stack {
    zarn_util_module_t *util;
    const sample_protocol_module *ethernet;
    void *notify;  // kept, so that it doesn't come and go with every notification
};

// Loads the utility module, the lowest protocol and the module that notifications go to. On failure nothing
// stays loaded, and the line on stderr names the module.
bool load_protocol_stack(protocol_stack *stack);

// Releases what was loaded. False, with a line on stderr, when a module could not be released.
bool unload_protocol_stack(protocol_stack *stack);

// Hands the frame to the lowest protocol, which owns it from here.
inline void receive_frame(const protocol_stack *stack, zarn_data_t *data) {
    stack->ethernet->receive(data, nullptr);
}

// Has all protocols give back what they keep from packets, takes their counts, and starts these again at 0.
// The protocols above the lowest one may be unloaded with that. Not while frames are received.
protocol_counts flush_protocols(const protocol_stack *stack);

#endif
