// SPDX-License-Identifier: MIT
#include "host/protocol_stack.h"

#include <zarn/zarn_notify.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/kern.h"

namespace {

constexpr char kDirectory[] = "network/";
constexpr char kLowest[] = "network/ethernet";

constexpr const char *kNames[kProtocols] = {"ethernet", "arp", "ipv4", "ipv6", "icmp", "tcp", "udp"};

template <typename Table>
bool acquire(const char *path, Table *table) {
    void *found = nullptr;
    int32_t status = kern_module_acquire(path, &found);
    if (status != 0) {
        fprintf(stderr, "zarn: can't load the module %s (status 0x%08x)\n", path,
                static_cast<unsigned>(status));
        return false;
    }
    *table = static_cast<Table>(found);
    return true;
}

bool release(const char *path) {
    int32_t status = kern_module_release(path);
    if (status == 0) return true;
    fprintf(stderr, "zarn: can't release the module %s (status 0x%08x)\n", path,
            static_cast<unsigned>(status));
    return false;
}

using module_list = std::vector<const sample_protocol_module *>;

// The protocol and all that packets have gone to from it, each once. One may stand above itself.
module_list list_protocols(const sample_protocol_module *lowest) {
    module_list list = {lowest};
    for (size_t done = 0; done < list.size(); done++) {
        for (int32_t i = 0; const sample_protocol_module *upper = list[done]->upper_at(i); i++)
            if (std::find(list.begin(), list.end(), upper) == list.end()) list.push_back(upper);
    }
    return list;
}

void add_counts(protocol_counts *all, const char *path, const sample_counts &counts) {
    std::string_view name = path;
    if (name.rfind(kDirectory, 0) == 0) name.remove_prefix(strlen(kDirectory));
    all->unloadable += counts.unloadable;
    auto known = std::find(std::begin(kNames), std::end(kNames), name);
    if (known != std::end(kNames)) {
        all->known[static_cast<size_t>(known - std::begin(kNames))] = counts;
    } else {
        all->others.push_back({std::string(name), counts});
    }
}

// A record of counts is nothing but counts.
void add_sample_counts(sample_counts *sum, const sample_counts &counts) {
    constexpr size_t kWords = sizeof(sample_counts) / sizeof(uint64_t);
    uint64_t words[kWords], more[kWords];
    memcpy(words, sum, sizeof(words));
    memcpy(more, &counts, sizeof(more));
    for (size_t i = 0; i < kWords; i++)
        words[i] += more[i];
    memcpy(sum, words, sizeof(words));
}

}  // namespace

const char *protocol_name(int index) {
    return kNames[index];
}

bool load_protocol_stack(protocol_stack *stack) {
    *stack = {};
    if (acquire(ZARN_UTIL_MODULE_NAME, &stack->util) && acquire(ZARN_NOTIFY_MODULE_NAME, &stack->notify) &&
        acquire(kLowest, &stack->ethernet))
        return true;
    unload_protocol_stack(stack);
    return false;
}

bool unload_protocol_stack(protocol_stack *stack) {
    bool released = stack->ethernet == nullptr || release(kLowest);
    if (stack->notify != nullptr) released = release(ZARN_NOTIFY_MODULE_NAME) && released;
    if (stack->util != nullptr) released = release(ZARN_UTIL_MODULE_NAME) && released;
    *stack = {};
    return released;
}

protocol_counts take_protocol_counts(const protocol_stack *stack) {
    protocol_counts all;
    for (const sample_protocol_module *module : list_protocols(stack->ethernet)) {
        sample_counts counts;
        module->take_counts(&counts);
        add_counts(&all, module->protocol.head.name, counts);
    }
    return all;
}

protocol_counts flush_protocols(const protocol_stack *stack) {
    protocol_counts all;
    module_list list = list_protocols(stack->ethernet);
    // The lowest, which comes first, is flushed last: with that the others may go.
    for (const sample_protocol_module *module : list) {
        sample_counts counts;
        if (module != stack->ethernet) module->flush();
        module->take_counts(&counts);
        add_counts(&all, module->protocol.head.name, counts);
    }
    stack->ethernet->flush();
    return all;
}

void add_protocol_counts(protocol_counts *sum, const protocol_counts &counts) {
    for (size_t i = 0; i < kProtocols; i++)
        add_sample_counts(&sum->known[i], counts.known[i]);
    for (const named_counts &more : counts.others) {
        auto other = std::find_if(sum->others.begin(), sum->others.end(),
                                  [&](const named_counts &known) { return known.name == more.name; });
        if (other == sum->others.end()) {
            sum->others.push_back(more);
        } else {
            add_sample_counts(&other->counts, more.counts);
        }
    }
    sum->unloadable += counts.unloadable;
}

bool attach_protocols(protocol_stack *stack, const sample_device *device) {
    struct candidate {
        const sample_protocol_module *module, *below;
    };
    std::vector<candidate> candidates = {{stack->ethernet, nullptr}};
    for (size_t done = 0; done < candidates.size(); done++) {
        const auto [module, below] = candidates[done];
        if (module->host == nullptr) continue;
        if (module->host->attach(device, below) < 0) {
            fprintf(stderr, "zarn: can't attach the module %s to the device\n", module->protocol.head.name);
            detach_protocols(stack);
            return false;
        }
        stack->attached.push_back(module);
        for (int32_t i = 0; const sample_protocol_module *upper = module->upper_at(i); i++) {
            if (std::none_of(candidates.begin(), candidates.end(),
                             [&](const candidate &other) { return other.module == upper; }))
                candidates.push_back({upper, module});
        }
    }
    return true;
}

void detach_protocols(protocol_stack *stack) {
    while (!stack->attached.empty()) {
        stack->attached.back()->host->detach();
        stack->attached.pop_back();
    }
}

void attend_protocols(const protocol_stack *stack) {
    for (const sample_protocol_module *module : stack->attached)
        if (module->host->attend != nullptr) module->host->attend();
}
