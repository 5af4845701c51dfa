// SPDX-License-Identifier: MIT
//
// The debugger command "zarn_data", letter by letter.

#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

template <typename... Args>
std::string print(const char *format, Args... args) {
    char line[200];
    snprintf(line, sizeof line, format, args...);
    return line;
}

std::string dump(const zarn_data_t *data) {
    std::string address = print("%p", static_cast<const void *>(data));
    char command[] = "zarn_data";
    char *argv[] = {command, address.data(), nullptr};
    EXPECT_EQ(zarn_data_dump(2, argv), 0);
    return test_kernel::take_debug_output();
}

class dump_test : public module_test {
 protected:
    scratch text;
};

TEST_F(dump_test, PrintsBothListsAndThePoolsNewestFirst) {
    zarn_data_t *data = text.buffer({"abc", "de", "f", "g", "h"}, note_free);
    int arg = 0;
    ASSERT_EQ(add_free_element(data, &arg, &arg, kNoteFreeExt, FREE_INTERRUPT_SAFE), 0);
    zarn_data_t *clone = new_zarn_data();
    ASSERT_EQ(clone_zarn_data(clone, data, 0, 1), 0);

    auto held = descriptors_of(data);
    ASSERT_EQ(held.size(), 3u);
    void *func = reinterpret_cast<void *>(note_free), *func_ext = reinterpret_cast<void *>(note_free_ext);
    std::string expected = print("dumping zarn_data at %p: length=8\n", (void *)data);
    expected += "datalist:\n-------------------------\n";
    const uint32_t lengths[] = {3, 2, 1, 1, 1};
    const mem_node *node = data->datalist;
    for (int i = 0; i < 5; ++i, node = node->next)
        expected += print("data_node[%d]: base=%p len=%u\n", i, node->base, lengths[i]);
    expected += "freelist:\n-------------------------\n";
    expected += print("free_descriptor[0]: addr=%p func=%p ref_count=2 ext_arg=%p flags=1\n", (void *)held[0],
                      func_ext, (void *)&arg);
    expected += print("\tfree_element[3]: %p\n", (void *)&arg);
    expected += print("free_descriptor[1]: addr=%p func=%p ref_count=2 ext_arg=%p flags=0\n", (void *)held[1],
                      func, (void *)nullptr);
    expected += print("\tfree_element[3]: %p\n", held[1]->free_element[3]);
    expected += print("free_descriptor[2]: addr=%p func=%p ref_count=2 ext_arg=%p flags=0\n", (void *)held[2],
                      func, (void *)nullptr);
    for (int slot = 3; slot >= 0; --slot)
        expected += print("\tfree_element[%d]: %p\n", slot, held[2]->free_element[slot]);
    expected += "nodepools:\n-------------------------\n";
    expected += print("mnp[0]: addr=%p n=9\n", (void *)data->nodepools);
    expected += print("mnp[1]: addr=%p n=0\n", (void *)&data->first_pool);
    EXPECT_EQ(dump(data), expected);
    delete_zarn_data(data);
    delete_zarn_data(clone);
}

TEST_F(dump_test, StopsAt256NodesOfEitherListAndSaysSo) {
    int element = 0;
    for (int nodes : {255, 256, 300}) {
        zarn_data_t *data = new_zarn_data();
        for (int i = 0; i < nodes; ++i) {
            ASSERT_EQ(append_zarn_data(data, &element, 1, nullptr), 0);
            ASSERT_EQ(add_free_element(data, &element, &element + i, kNoteFreeExt, 0), 0);  // no two merge
        }
        std::string output = dump(data);
        auto has = [&](const std::string &part) { return output.find(part) != std::string::npos; };
        int last = std::min(nodes, 256) - 1;
        for (const char *line : {"data_node[", "free_descriptor["}) {
            EXPECT_TRUE(has(line + std::to_string(last) + "]")) << nodes << line;
            EXPECT_FALSE(has(line + std::to_string(last + 1) + "]")) << nodes << line;
        }
        EXPECT_EQ(has("WARNING: >= 256 mem_nodes, probable looping list.\nfreelist:"), nodes > 255);
        EXPECT_EQ(has("WARNING: > 256 mem_nodes, probable looping list.\nnodepools:"), nodes > 255);
        delete_zarn_data(data);
    }
}

TEST_F(dump_test, WithoutAnAddressThereIsNothingToPrint) {
    char command[] = "zarn_data", zero[] = "0x0", other[] = "1";
    char *argv[] = {command, zero, other, nullptr};
    EXPECT_EQ(zarn_data_dump(2, argv), 0);
    EXPECT_EQ(test_kernel::take_debug_output(), "");
    for (int32_t argc : {1, 3}) {
        EXPECT_EQ(zarn_data_dump(argc, argv), 1);
        EXPECT_EQ(test_kernel::take_debug_output(), "usage: zarn_data <address>\n");
    }
}

}  // namespace
