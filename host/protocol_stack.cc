// SPDX-License-Identifier: MIT
#include "host/protocol_stack.h"

#include <cstdio>
#include <string>

#include "platform/kern.h"

namespace {

struct stack_place {
    const char *name;
    int below;     // the protocol that hands packets up, -1 for the lowest
    uint32_t key;  // of these packets
};

constexpr stack_place kPlaces[kProtocols] = {
    {"ethernet", -1, 0}, {"arp", kEthernet, 0x0806}, {"ipv4", kEthernet, 0x0800}, {"ipv6", kEthernet, 0x86dd},
    {"icmp", kIpv4, 1},  {"tcp", kIpv4, 6},          {"udp", kIpv4, 17},
};

std::string module_path(int index) {
    return std::string("network/") + kPlaces[index].name;
}

template <typename Table>
bool acquire(const std::string &path, Table *table) {
    void *found = nullptr;
    int32_t status = kern_module_acquire(path.c_str(), &found);
    if (status != 0) {
        fprintf(stderr, "zarn: can't load the module %s (status 0x%08x)\n", path.c_str(),
                static_cast<unsigned>(status));
        return false;
    }
    *table = static_cast<Table>(found);
    return true;
}

bool release(const std::string &path) {
    int32_t status = kern_module_release(path.c_str());
    if (status == 0) return true;
    fprintf(stderr, "zarn: can't release the module %s (status 0x%08x)\n", path.c_str(),
            static_cast<unsigned>(status));
    return false;
}

}  // namespace

const char *protocol_name(int index) {
    return kPlaces[index].name;
}

bool load_protocol_stack(protocol_stack *stack) {
    *stack = {};
    if (!acquire(ZARN_UTIL_MODULE_NAME, &stack->util)) return false;
    for (int i = 0; i < kProtocols; i++) {
        const stack_place &place = kPlaces[i];
        bool ready = acquire(module_path(i), &stack->modules[i]);
        if (ready && place.below >= 0 &&
            stack->modules[place.below]->attach(place.key, stack->modules[i]) != 0) {
            fprintf(stderr, "zarn: %s has no place for %s\n", module_path(place.below).c_str(),
                    module_path(i).c_str());
            ready = false;
        }
        if (!ready) {
            unload_protocol_stack(stack);
            return false;
        }
    }
    return true;
}

bool unload_protocol_stack(protocol_stack *stack) {
    bool released = true;
    for (int i = kProtocols - 1; i >= 0; i--) {
        if (stack->modules[i] == nullptr) continue;
        if (kPlaces[i].below >= 0) stack->modules[kPlaces[i].below]->attach(kPlaces[i].key, nullptr);
        released = release(module_path(i)) && released;
    }
    if (stack->util != nullptr) released = release(ZARN_UTIL_MODULE_NAME) && released;
    *stack = {};
    return released;
}

protocol_counts take_protocol_counts(const protocol_stack *stack) {
    protocol_counts counts;
    for (int i = 0; i < kProtocols; i++)
        stack->modules[i]->take_counts(&counts[i]);
    return counts;
}
