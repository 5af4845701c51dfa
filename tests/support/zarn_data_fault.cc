// SPDX-License-Identifier: MIT

#include "tests/support/zarn_data_fault.h"

#include <set>

namespace {

struct checker {
    const char *check_pools() {
        std::set<const mem_node_pool *> seen;
        for (const mem_node_pool *pool = data->nodepools;; pool = pool->next) {
            if (pool == nullptr) return "the chain of pools ends before first_pool";
            if (!seen.insert(pool).second) return "the chain of pools loops";
            bool last = pool == &data->first_pool;
            int32_t nodes = last ? FIRST_POOL_NODES : NODE_POOL_NODES;
            if (pool->n < 0 || pool->n > nodes) return "the count of a pool is out of range";
            for (int32_t i = pool->n; i < nodes; ++i)
                taken.insert(reinterpret_cast<const mem_node *>(pool + 1) + i);
            if (last) return pool->next == nullptr ? nullptr : "first_pool has a successor";
        }
    }

    const char *check_node(const mem_node *node) {
        if (taken.count(node) == 0) return "a node is none that this buffer has taken";
        return used.insert(node).second ? nullptr : "a node is linked twice";
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
    std::set<const mem_node *> taken, used;  // of the pools; of these, what the lists have shown so far
};

}  // namespace

const char *zarn_data_fault(const zarn_data_t *data) {
    checker check{data, {}, {}};
    const char *fault = check.check_pools();
    if (fault == nullptr) fault = check.check_data();
    if (fault == nullptr) fault = check.check_free_list();
    return fault;
}
