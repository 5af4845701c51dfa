// SPDX-License-Identifier: MIT
//
// The check of a buffer is itself checked: one field of a sound buffer is spoiled at a time.

#include "tests/support/zarn_data_fault.h"

#include "data/zarn_data.h"
#include "tests/support/fixture.h"

namespace {

using zarn_data_fault_test = module_test;

// A buffer with two pools of nodes, ten pieces and one descriptor that owns two elements.
struct parts {
    zarn_data_t *data;
    mem_node_pool *pool;
    mem_node *node;
    free_descriptor *descriptor;
};

struct spoiling {
    const char *fault;
    void (*spoil)(parts &);
};

const spoiling kSpoilings[] = {
    {"the length is not the sum of the pieces", [](parts &p) { p.data->length++; }},
    {"the count of a pool is out of range", [](parts &p) { p.pool->n = NODE_POOL_NODES + 1; }},
    {"the count of a pool is out of range", [](parts &p) { p.data->first_pool.n = -1; }},
    {"a node is none that this buffer has taken", [](parts &p) { p.pool->n++; }},
    {"a node is none that this buffer has taken", [](parts &p) { p.node->next = &pool_nodes(p.pool)[0]; }},
    {"a node is none that this buffer has taken",
     [](parts &p) { p.data->freelist = reinterpret_cast<mem_node *>(p.data); }},
    {"the chain of pools ends before first_pool", [](parts &p) { p.pool->next = nullptr; }},
    {"the chain of pools loops", [](parts &p) { p.pool->next = p.pool; }},
    {"first_pool has a successor", [](parts &p) { p.data->first_pool.next = p.pool; }},
    {"a node is linked twice", [](parts &p) { p.node->next = p.node; }},
    {"a node is linked twice", [](parts &p) { p.data->freelist = p.data->datalist; }},
    {"a piece of data has no address", [](parts &p) { p.node->base = nullptr; }},
    {"a node of the free list has no descriptor", [](parts &p) { p.data->freelist->base = nullptr; }},
    {"the reference count of a descriptor is below 1", [](parts &p) { p.descriptor->ref_count = 0; }},
    {"first_used of a descriptor is out of range", [](parts &p) { p.descriptor->first_used = 4; }},
    {"a descriptor has no free function", [](parts &p) { p.descriptor->func = nullptr; }},
};

TEST_F(zarn_data_fault_test, EachSpoiledFieldOfABufferIsFound) {
    static char memory[1000];
    constexpr zarn_free_func keep = [](void *) {};
    zarn_data_t *data = new_zarn_data();
    EXPECT_EQ(zarn_data_fault(data), nullptr);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(append_zarn_data(data, memory + 100 * i, 100, i < 2 ? keep : nullptr), 0);
    parts p{data, data->nodepools, data->datalist, static_cast<free_descriptor *>(data->freelist->base)};
    ASSERT_NE(p.pool, &data->first_pool);
    EXPECT_EQ(zarn_data_fault(data), nullptr);

    for (const spoiling &s : kSpoilings) {
        zarn_data_t data_before = *data;
        mem_node_pool pool_before = *p.pool;
        free_descriptor descriptor_before = *p.descriptor;
        s.spoil(p);
        EXPECT_STREQ(zarn_data_fault(data), s.fault) << "spoiling " << &s - kSpoilings;
        *data = data_before;
        *p.pool = pool_before;
        *p.descriptor = descriptor_before;
        ASSERT_EQ(zarn_data_fault(data), nullptr);
    }
    delete_zarn_data(data);
}

}  // namespace
