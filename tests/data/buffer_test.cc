// SPDX-License-Identifier: MIT
//
// Creation, nodes and descriptors.

#include <cstring>

#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

class buffer_test : public module_test {
 protected:
    int32_t medium_out() { return kMediumBlocks - free_blocks(gMP.medium_pool); }

    char memory[16] = "0123456789abcde";
};

TEST_F(buffer_test, NodesGoFromTheLastOfEachPoolToTheFirst) {
    void *block = zarn_falloc(sizeof(zarn_data_t));
    memset(block, 0xff, sizeof(zarn_data_t));  // the block that comes next: nothing may be taken over from it
    zarn_free(block);
    zarn_data_t *data = new_zarn_data();
    ASSERT_EQ(data, block);
    EXPECT_EQ(data->next, nullptr);
    EXPECT_EQ(data->user_word_1 | data->user_word_2 | data->flags | data->checksum, 0u);
    EXPECT_EQ(data->reserved_word, 0xffffffffu) << "this word is the clients', the module never writes it";
    EXPECT_EQ(data->freelist, nullptr);
    for (int32_t i = 0; i <= 18; ++i) {
        EXPECT_EQ(zarn_data_fault(data), nullptr);
        EXPECT_EQ(data->nodepools->n, i <= 7 ? 7 - i : i <= 17 ? 17 - i : 9);
        EXPECT_EQ(medium_out(), 1 + (i > 7) + (i > 17));
        EXPECT_EQ(count_zarn_data_iovecs(data), static_cast<uint32_t>(i));
        zarn_iovec table[20] = {};
        uint32_t filled = std::min(i, 15);
        EXPECT_EQ(get_zarn_data_iovecs(data, table, 15), filled);
        const mem_node *last = nullptr, *node = data->datalist;
        for (uint32_t at = 0; node != nullptr; last = node, node = node->next, ++at) {
            EXPECT_EQ(table[at].base, at < filled ? memory + at % 10 : nullptr);
            EXPECT_EQ(table[at].length, at < filled);
        }
        EXPECT_EQ(last, i == 0 ? nullptr : pool_nodes(data->nodepools) + data->nodepools->n);
        ASSERT_EQ(append_zarn_data(data, memory + i % 10, 1, nullptr), 0);
    }
    delete_zarn_data(data);
}

TEST_F(buffer_test, FourElementsShareADescriptorWhileItIsUnsharedAndOfOneKind) {
    zarn_data_t *data = new_zarn_data();
    int arg = 0, other = 0, i = 0;
    auto add = [&](void *ext_arg, zarn_free_func func, uint16_t flags) {
        ASSERT_EQ(add_free_element(data, memory + i++, ext_arg, func, flags), 0);
    };
    for (int n = 0; n < 5; ++n)
        add(nullptr, note_free, n == 0 ? 0x0010 : 0);
    add(&arg, kNoteFreeExt, FREE_INTERRUPT_SAFE);
    add(&other, kNoteFreeExt, 0);
    add(nullptr, note_other_free, 0);
    add(&arg, kNoteFreeExt, 0);
    add(nullptr, note_free, 0);
    auto held = descriptors_of(data);
    ASSERT_EQ(held.size(), 5u);
    held[3]->ref_count = 2;  // as if another buffer held it
    add(nullptr, note_free, 0);
    held[3]->ref_count = 1;

    struct {
        zarn_free_func func;
        void *ext_arg;
        uint16_t flags;
        std::string elements;
    } const expected[] = {
        {note_free, nullptr, 0, "a"},
        {note_other_free, nullptr, 0, "7"},
        {kNoteFreeExt, &other, 0, "6"},
        {kNoteFreeExt, &arg, FREE_INTERRUPT_SAFE, "58"},  // the flags of the first element stay
        {note_free, nullptr, 0, "49"},
        {note_free, nullptr, 0x0010, "0123"}};
    held = descriptors_of(data);
    ASSERT_EQ(held.size(), std::size(expected));
    std::vector<std::pair<void *, void *>> freed;
    for (size_t n = 0; n < held.size(); ++n) {
        auto &[func, ext_arg, flags, elements] = expected[n];
        EXPECT_EQ(held[n]->func, func) << n;
        EXPECT_EQ(held[n]->flags, flags) << n;
        EXPECT_EQ(held[n]->first_used, 4 - elements.size()) << n;
        for (char element : elements)
            freed.emplace_back(ext_arg, strchr(memory, element));
    }
    EXPECT_EQ(zarn_data_fault(data), nullptr) << "elements are no data";
    gFreed.clear();
    delete_zarn_data(data);
    EXPECT_EQ(gFreed, freed);
}

}  // namespace
