// SPDX-License-Identifier: MIT

#include "tests/support/zarn_data_fault.h"

#include <set>
#include <vector>

namespace {

// The nodes of one pool that have been handed out.
struct node_range {
    uintptr_t begin;
    uintptr_t end;
};

struct checker {
    explicit checker(const zarn_data_t *buffer) : data(buffer) {}

    const char *check_pools() {
        std::set<const mem_node_pool *> seen;
        for (const mem_node_pool *pool = data->nodepools;; pool = pool->next) {
            if (pool == nullptr) return "the chain of pools ends before first_pool";
            if (!seen.insert(pool).second) return "the chain of pools loops";
            bool last = pool == &data->first_pool;
            int32_t nodes = last ? FIRST_POOL_NODES : NODE_POOL_NODES;
            if (pool->n < 0 || pool->n > nodes) return "the count of a pool is out of range";
            uintptr_t first = reinterpret_cast<uintptr_t>(pool + 1);
            ranges.push_back({first + static_cast<uintptr_t>(pool->n) * sizeof(mem_node),
                              first + static_cast<uintptr_t>(nodes) * sizeof(mem_node)});
            if (last) return pool->next == nullptr ? nullptr : "first_pool has a successor";
        }
    }

    const char *check_node(const mem_node *node) {
        uintptr_t address = reinterpret_cast<uintptr_t>(node);
        for (const node_range &range : ranges) {
            if (address < range.begin || address >= range.end) continue;
            if ((address - range.begin) % sizeof(mem_node) != 0) break;
            return used.insert(node).second ? nullptr : "a node is linked twice";
        }
        return "a node is none that this buffer has taken";
    }

    const char *check_data() {
        uint64_t sum = 0;
        for (const mem_node *node = data->datalist; node != nullptr; node = node->next) {
            if (const char *fault = check_node(node)) return fault;
            if (node->base == nullptr && node->len != 0) return "a piece of data has no address";
            sum += node->len;
        }
        return sum == data->length ? nullptr : "the length is not the sum of the pieces";
    }

    const char *check_free_list() {
        for (const mem_node *node = data->freelist; node != nullptr; node = node->next) {
            if (const char *fault = check_node(node)) return fault;
            const free_descriptor *descriptor = static_cast<const free_descriptor *>(node->base);
            if (descriptor == nullptr) return "a node of the free list has no descriptor";
            if (__atomic_load_n(&descriptor->ref_count, __ATOMIC_RELAXED) < 1)
                return "the reference count of a descriptor is below 1";
            if (descriptor->first_used >= FREE_ELEMENTS) return "first_used of a descriptor is out of range";
            if (descriptor->func == nullptr) return "a descriptor has no free function";
        }
        return nullptr;
    }

    const zarn_data_t *data;
    std::vector<node_range> ranges;
    std::set<const mem_node *> used;
};

}  // namespace

const char *zarn_data_fault(const zarn_data_t *data) {
    checker check(data);
    const char *fault = check.check_pools();
    if (fault == nullptr) fault = check.check_data();
    if (fault == nullptr) fault = check.check_free_list();
    return fault;
}
