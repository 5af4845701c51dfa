// SPDX-License-Identifier: MIT
#include "host/stack_loader.h"

#include <zarn/zarn_util.h>

#include <cstdio>

#include "host/endpoints.h"
#include "host/exit_codes.h"
#include "host/kernel_log.h"
#include "platform/hosted/hosted_kernel.h"
#include "roster/family_cache.h"

namespace {

// What keeps the families loaded: the endpoints of "out" stacks, and a reference for each "dl" stack.
struct held_stacks {
    std::vector<zarn_endpoint_t *> endpoints;
    std::vector<int32_t> families;
};

// Returns the status of the lookup.
int32_t load_outbound(const zarn_util_module_t *util, const configured_stack &stack, held_stacks *held) {
    const auto family = static_cast<int32_t>(stack.family), key1 = static_cast<int32_t>(stack.key1);
    if (stack.type == kStackOut) {
        zarn_endpoint_t *endpoint;
        const int32_t status = util->ep_new_endpoint(&endpoint, family, key1, stack.key2);
        if (status == 0) held->endpoints.push_back(endpoint);
        return status;
    }
    void **tables;
    int32_t count;
    const int32_t status = util->get_outbound_protos(1, family, key1, stack.key2, &tables, &count);
    if (status == 0) held->families.push_back(family);
    return status;
}

// The roster hands out inbound modules of families that somebody holds. One that only receives is held by
// nobody here, so its module is loaded by name.
int32_t load_inbound(const zarn_util_module_t *util, const configured_stack &stack) {
    const auto family = static_cast<int32_t>(stack.family);
    void *table;
    if (util->get_inbound_proto(family, stack.key2, &table) == 0) return 0;
    const module_path path(stack.modules.front().c_str());
    const int32_t status = kern_module_acquire(path.text, &table);
    if (status == 0) kern_module_release(path.text);
    return status;
}

void release_stacks(const zarn_util_module_t *util, const held_stacks &held) {
    for (zarn_endpoint_t *endpoint : held.endpoints)
        delete_endpoint(util, endpoint);
    for (const int32_t family : held.families)
        util->release_family_ref(family);
}

}  // namespace

int load_stacks(const std::vector<configured_stack> &stacks) {
    show_kernel_log(false);
    void *table;
    if (kern_module_acquire(ZARN_UTIL_MODULE_NAME, &table) != 0) return kExitModule;  // the log tells why
    const auto *util = static_cast<const zarn_util_module_t *>(table);
    held_stacks held;
    bool good = true;
    for (const bool inbound : {false, true}) {
        for (const configured_stack &stack : stacks) {
            if ((stack.type == kStackIn) != inbound) continue;
            const int32_t status = inbound ? load_inbound(util, stack) : load_outbound(util, stack, &held);
            printf("load family %x, %s: ", stack.family, stack.name.c_str());
            printf(status == 0 ? "good\n" : "failed (%08x)\n", static_cast<unsigned>(status));
            good = good && status == 0;
        }
    }
    release_stacks(util, held);
    kern_module_release(ZARN_UTIL_MODULE_NAME);
    if (hosted_count_objects().modules != 0) {
        hosted_log_objects();
        return kExitFault;
    }
    return good ? kExitOk : kExitModule;
}
