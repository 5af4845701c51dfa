// SPDX-License-Identifier: MIT
//
// Creation, deletion, nodes, descriptors and the linking of memory.

#include <algorithm>
#include <cstring>

#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

using freed_list = std::vector<std::pair<void *, void *>>;

class buffer_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        gFreed.clear();
    }
    int32_t out(const mempool_t *pool, int32_t count) { return count - free_blocks(pool); }
    int32_t medium_out() { return out(gMP.medium_pool, kMediumBlocks); }
    int32_t small_out() { return out(gMP.small_pool, kSmallBlocks); }

    scratch text;
    char memory[16] = "0123456789abcde";
};

TEST_F(buffer_test, ANewBufferIsEmptyAndCostsOneBlock) {
    void *block = zarn_falloc(sizeof(zarn_data_t));
    memset(block, 0xff, sizeof(zarn_data_t));  // the block that comes next: nothing may be taken over from it
    zarn_free(block);
    zarn_data_t *data = new_zarn_data();
    ASSERT_EQ(data, block);
    EXPECT_EQ(data->next, nullptr);
    EXPECT_EQ(data->user_word_1 | data->user_word_2, 0u);
    EXPECT_EQ(data->length, 0u);
    EXPECT_EQ(data->reserved_word, 0xffffffffu) << "this word is the clients', the module never writes it";
    EXPECT_EQ(data->flags | data->checksum, 0);
    EXPECT_EQ(data->datalist, nullptr);
    EXPECT_EQ(data->freelist, nullptr);
    EXPECT_EQ(data->nodepools, &data->first_pool);
    EXPECT_EQ(data->first_pool.n, FIRST_POOL_NODES);
    EXPECT_EQ(zarn_data_fault(data), nullptr);
    EXPECT_EQ(medium_out(), 1);
    delete_zarn_data(data);
}

TEST_F(buffer_test, NodesGoFromTheLastOfEachPoolToTheFirst) {
    zarn_data_t *data = new_zarn_data();
    std::string expected;
    for (int32_t i = 1; i <= 18; ++i) {
        const mem_node_pool *before = data->nodepools;
        ASSERT_EQ(append_zarn_data(data, memory + i % 10, 1, nullptr), 0);
        expected += memory[i % 10];
        ASSERT_EQ(zarn_data_fault(data), nullptr);

        bool new_pool = i == 8 || i == 18;
        EXPECT_EQ(data->nodepools != before, new_pool) << i;
        if (new_pool) {
            EXPECT_EQ(data->nodepools->next, before);
        }
        EXPECT_EQ(data->nodepools->n, i <= 7 ? 7 - i : 17 - i + (i == 18 ? 10 : 0)) << i;
        const mem_node *last = data->datalist;
        while (last->next != nullptr)
            last = last->next;
        EXPECT_EQ(last, pool_nodes(data->nodepools) + data->nodepools->n) << i;
    }
    EXPECT_EQ(bytes_of(data), expected);
    EXPECT_EQ(data->first_pool.n, 0);
    EXPECT_EQ(medium_out(), 3);
    delete_zarn_data(data);
    EXPECT_EQ(medium_out(), 0);
}

TEST_F(buffer_test, LinkingAtEveryOffset) {
    struct {
        uint32_t offset;
        uint32_t length;
        int32_t status;
        const char *pieces;
        int32_t nodes;  // taken for the data
    } const cases[] = {
        {0, 2, 0, "01|abc|def|", 1},         // as prepend
        {6, 2, 0, "abc|def|01|", 1},         // as append
        {7, 2, -1, "abc|def|", 0},           // beyond the data
        {3, 2, 0, "abc|01|def|", 1},         // between nodes
        {1, 2, 0, "a|01|bc|def|", 2},        // inside the first node
        {5, 2, 0, "abc|de|01|f|", 2},        // inside the last
        {0, 0, 0, "abc|def|", 0},            // nothing at either end links and registers nothing,
        {6, 0, 0, "abc|def|", 0},            //
        {3, 0, 0, "abc||def|", 1},           // but inside it does
        {2, 0, 0, "ab||c|def|", 2},          //
        {1, 0xfffffffa, -1, "abc|def|", 0},  // the length would pass 32 bits
        {0, 0xfffffffa, -1, "abc|def|", 0},  //
        {6, 0xfffffffa, -1, "abc|def|", 0},  //
        {0xffffffff, 1, -1, "abc|def|", 0},  //
    };
    for (auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.offset << '+' << c.length);
        zarn_data_t *data = text.buffer({"abc", "def"});
        data->flags = DATA_CHECKSUM_CACHED | 0x1234;
        int32_t nodes = nodes_left(data);
        gFreed.clear();
        EXPECT_EQ(insert_zarn_data(data, c.offset, memory, c.length, note_free), c.status);
        EXPECT_EQ(zarn_data_fault(data), nullptr);
        EXPECT_EQ(pieces_of(data), c.pieces);
        bool linked = c.nodes != 0;
        EXPECT_EQ(nodes - nodes_left(data), c.nodes + linked) << "and one for the descriptor";
        EXPECT_EQ(data->flags, linked ? 0x1234 : DATA_CHECKSUM_CACHED | 0x1234);
        delete_zarn_data(data);
        EXPECT_EQ(gFreed.size(), linked ? 1u : 0u);
    }
}

TEST_F(buffer_test, FourElementsShareADescriptorWhileItIsUnsharedAndOfOneKind) {
    zarn_data_t *data = new_zarn_data();
    int arg = 0, other = 0;
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(add_free_element(data, memory + i, nullptr, note_free, i == 0 ? 0x0010 : 0), 0);
    ASSERT_EQ(add_free_element(data, memory + 5, &arg, kNoteFreeExt, FREE_INTERRUPT_SAFE), 0);
    ASSERT_EQ(add_free_element(data, memory + 6, &other, kNoteFreeExt, 0), 0);
    ASSERT_EQ(add_free_element(data, memory + 7, nullptr, note_other_free, 0), 0);
    ASSERT_EQ(add_free_element(data, memory + 8, &arg, kNoteFreeExt, 0), 0);
    ASSERT_EQ(add_free_element(data, memory + 9, nullptr, note_free, 0), 0);

    struct {
        zarn_free_func func;
        void *ext_arg;
        uint16_t flags, first_used;
    } const expected[] = {
        {note_other_free, nullptr, 0, 3},
        {kNoteFreeExt, &other, 0, 3},
        {kNoteFreeExt, &arg, FREE_INTERRUPT_SAFE, 2},  // the flags of the first element stay
        {note_free, nullptr, 0, 2},
        {note_free, nullptr, 0x0010, 0}};
    auto held = descriptors_of(data);
    ASSERT_EQ(held.size(), 5u);
    for (size_t i = 0; i < held.size(); ++i) {
        EXPECT_EQ(held[i]->func, expected[i].func) << i;
        EXPECT_EQ(held[i]->ext_arg, expected[i].ext_arg) << i;
        EXPECT_EQ(held[i]->flags, expected[i].flags) << i;
        EXPECT_EQ(held[i]->first_used, expected[i].first_used) << i;
        EXPECT_EQ(held[i]->ref_count, 1) << i;
    }
    EXPECT_EQ(zarn_data_fault(data), nullptr);
    EXPECT_EQ(small_out(), 5);

    held[3]->ref_count = 2;  // as if another buffer held it
    ASSERT_EQ(add_free_element(data, memory + 10, nullptr, note_free, 0), 0);
    EXPECT_EQ(held[3]->first_used, 2);
    EXPECT_EQ(descriptors_of(data).size(), 6u);
    held[3]->ref_count = 1;

    EXPECT_EQ(data->length, 0u) << "elements are no data";
    delete_zarn_data(data);
    EXPECT_EQ(gFreed, (freed_list{{nullptr, memory + 10},
                                  {nullptr, memory + 7},
                                  {&other, memory + 6},
                                  {&arg, memory + 5},
                                  {&arg, memory + 8},
                                  {nullptr, memory + 4},
                                  {nullptr, memory + 9},
                                  {nullptr, memory + 0},
                                  {nullptr, memory + 1},
                                  {nullptr, memory + 2},
                                  {nullptr, memory + 3}}));
}

TEST_F(buffer_test, TheLastOfTheHoldersFrees) {
    // Three holders of one descriptor, deleted in every order.
    int order[] = {0, 1, 2};
    do {
        zarn_data_t *holders[3] = {text.buffer({"abc"}, note_free), new_zarn_data(), new_zarn_data()};
        ASSERT_EQ(clone_zarn_data(holders[1], holders[0], 0, 3), 0);
        ASSERT_EQ(clone_zarn_data(holders[2], holders[1], 1, 2), 0);
        gFreed.clear();
        for (int i : order) {
            EXPECT_TRUE(gFreed.empty());
            EXPECT_EQ(bytes_of(holders[i]), i == 2 ? "bc" : "abc");
            delete_zarn_data(holders[i]);
        }
        EXPECT_EQ(gFreed.size(), 1u);
        EXPECT_EQ(small_out(), 0);
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST_F(buffer_test, IovecsFillNoMoreThanThereIs) {
    zarn_data_t *data = text.buffer({"abc", "de", "f"});
    EXPECT_EQ(count_zarn_data_iovecs(data), 3u);
    for (uint32_t count = 0; count <= 4; ++count) {
        zarn_iovec table[5];
        for (auto &entry : table)
            entry = {memory, 99};
        uint32_t filled = std::min(count, 3u);
        EXPECT_EQ(get_zarn_data_iovecs(data, table, count), filled);
        const mem_node *node = data->datalist;
        for (uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(table[i].base, i < filled ? node->base : memory);
            EXPECT_EQ(table[i].length, i < filled ? node->len : 99);
            if (i < filled) node = node->next;
        }
    }
    delete_zarn_data(data);
    data = new_zarn_data();
    EXPECT_EQ(count_zarn_data_iovecs(data), 0u);
    delete_zarn_data(data);
}

}  // namespace
