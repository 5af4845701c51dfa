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
    bool profile;  // what is done with a frame is measured by the profiler
    void *notify;  // kept, so that it doesn't come and go with every notification
    std::vector<const sample_protocol_module *> attached;  // to a device, lower ones first
};

// Loads the utility module, the lowest protocol and the module that notifications go to. On failure nothing
// stays loaded, and the line on stderr names the module.
bool load_protocol_stack(protocol_stack *stack);

// Releases what was loaded. False, with a line on stderr, when a module could not be released.
bool unload_protocol_stack(protocol_stack *stack);

// A bracket of the profiler around the scope that it stands in, if the stack is measured. Thread level.
class profile_bracket {
 public:
    profile_bracket(const protocol_stack *stack, const char *prefix, const char *suffix)
        : util_(stack->profile ? stack->util : nullptr), prefix_(prefix), suffix_(suffix) {
        if (util_ != nullptr) util_->_enter_prof_func(prefix_, suffix_, PROF_RECORD);
    }
    ~profile_bracket() {
        if (util_ != nullptr) util_->_exit_prof_func(prefix_, suffix_, PROF_RECORD);
    }
    profile_bracket(const profile_bracket &) = delete;

 private:
    const zarn_util_module_t *util_;
    const char *prefix_, *suffix_;
};

// Hands the frame to the lowest protocol, which owns it from here.
inline void receive_frame(const protocol_stack *stack, zarn_data_t *data) {
    profile_bracket bracket(stack, stack->ethernet->protocol.head.name, "receive");
    stack->ethernet->receive(data, nullptr);
}

// Has all protocols give back what they keep from packets, takes their counts, and starts these again at 0.
// The protocols above the lowest one may be unloaded with that. Not while frames are received.
protocol_counts flush_protocols(const protocol_stack *stack);

// Likewise, with nothing given back. At any time on the stack's thread.
protocol_counts take_protocol_counts(const protocol_stack *stack);

// Adds `counts` to `sum`.
void add_protocol_counts(protocol_counts *sum, const protocol_counts &counts);

// Makes all protocols that can be part of a host on the device, which stays as it is until they are detached.
// False, with a line on stderr and none attached, when one can't.
bool attach_protocols(protocol_stack *stack, const sample_device *device);

// With all endpoints deleted. The protocols look on again.
void detach_protocols(protocol_stack *stack);

// Has them deal with what is due.
void attend_protocols(const protocol_stack *stack);

#endif
