// SPDX-License-Identifier: MIT
//
// The debugger command "zarn_data". It runs with the machine stopped, so it takes no lock and trusts
// nothing more than it has to: both lists of a buffer may loop.

#include "data/zarn_data.h"
#include "platform/kern.h"
#include "platform/libc.h"

static constexpr int32_t kMaxNodes = 256;

static void dump_data_nodes(const zarn_data_t *data) {
    kern_debug_print("datalist:\n-------------------------\n");
    int32_t i = 0;
    for (const mem_node *node = data->datalist; node != nullptr && i < kMaxNodes; node = node->next, ++i)
        kern_debug_print("data_node[%ld]: base=%p len=%ld\n", (long)i, node->base, (long)node->len);
    if (i == kMaxNodes) kern_debug_print("WARNING: >= 256 mem_nodes, probable looping list.\n");
}

static void dump_descriptors(const zarn_data_t *data) {
    kern_debug_print("freelist:\n-------------------------\n");
    int32_t i = 0;
    for (const mem_node *node = data->freelist; node != nullptr && i < kMaxNodes; node = node->next, ++i) {
        const free_descriptor *descriptor = (const free_descriptor *)node->base;
        kern_debug_print("free_descriptor[%ld]: addr=%p func=%p ref_count=%ld ext_arg=%p flags=%hu\n",
                         (long)i, (const void *)descriptor, (void *)descriptor->func,
                         (long)descriptor->ref_count, descriptor->ext_arg, descriptor->flags);
        for (int32_t slot = FREE_ELEMENTS - 1; slot >= descriptor->first_used; --slot)
            kern_debug_print("\tfree_element[%ld]: %p\n", (long)slot, descriptor->free_element[slot]);
    }
    if (i == kMaxNodes) kern_debug_print("WARNING: > 256 mem_nodes, probable looping list.\n");
}

static void dump_pools(const zarn_data_t *data) {
    kern_debug_print("nodepools:\n-------------------------\n");
    int32_t i = 0;
    for (const mem_node_pool *pool = data->nodepools; pool != nullptr; pool = pool->next, ++i)
        kern_debug_print("mnp[%ld]: addr=%p n=%ld\n", (long)i, (const void *)pool, (long)pool->n);
}

int32_t zarn_data_dump(int32_t argc, char **argv) {
    if (argc != 2) {
        kern_debug_print("usage: %s <address>\n", argv[0]);
        return 1;
    }
    const zarn_data_t *data = (const zarn_data_t *)strtoul(argv[1], nullptr, 0);
    if (data == nullptr) return 0;

    kern_debug_print("dumping zarn_data at %p: length=%ld\n", (const void *)data, (long)data->length);
    dump_data_nodes(data);
    dump_descriptors(data);
    dump_pools(data);
    return 0;
}
