// SPDX-License-Identifier: MIT
//
// The debugger command "zarn_data", letter by letter.

#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

using dump_test = module_test;

template <typename... Args>
static std::string print(const char *format, Args... args) {
    char line[200];
    return {line, static_cast<size_t>(snprintf(line, sizeof line, format, args...))};
}

// The lists are followed for 256 nodes, then they are said to loop.
TEST_F(dump_test, PrintsBothListsAndThePoolsAndGivesUpOnLoops) {
    int element = 0;
    std::string line = "\n-------------------------\n",
                func = print("%p", reinterpret_cast<void *>(note_free_ext));
    for (int nodes : {5, 255, 256, 300}) {
        zarn_data_t *data = new_zarn_data();
        for (int i = 0; i < nodes; ++i) {
            append_zarn_data(data, &element, 1, nullptr);
            int *ext_arg = &element + (i + 1) / 2;  // but for the first, two elements share a descriptor
            add_free_element(data, &element + i, ext_arg, kNoteFreeExt, i == 0);
            if (nodes > 5) add_free_element(data, &element, &element - 1 - i, kNoteFreeExt, 0);
        }
        std::string expected =
            print("dumping zarn_data at %p: length=%d\n", (void *)data, nodes) + "datalist:" + line;
        for (int i = 0; i < std::min(nodes, 256); ++i)
            expected += print("data_node[%d]: base=%p len=1\n", i, (void *)&element);
        if (nodes > 255) expected += "WARNING: >= 256 mem_nodes, probable looping list.\n";
        expected += "freelist:" + line;
        auto held = descriptors_of(data);
        for (size_t i = 0; i < std::min<size_t>(held.size(), 256); ++i) {
            expected += print("free_descriptor[%zu]: addr=%p func=%s ref_count=1 ext_arg=%p flags=%d\n", i,
                              (void *)held[i], func.c_str(), held[i]->ext_arg, i + 1 == held.size());
            for (int slot = 3; slot >= held[i]->first_used; --slot)
                expected += print("\tfree_element[%d]: %p\n", slot, held[i]->free_element[slot]);
        }
        if (held.size() > 255) expected += "WARNING: > 256 mem_nodes, probable looping list.\n";
        expected += "nodepools:" + line;
        int i = 0;
        for (auto *pool = data->nodepools; pool != nullptr; pool = pool->next)
            expected += print("mnp[%d]: addr=%p n=%d\n", i++, (void *)pool, pool->n);
        std::string command = "zarn_data", address = print("%p", (void *)data);
        char *argv[] = {command.data(), address.data(), nullptr};
        EXPECT_EQ(zarn_data_dump(2, argv), 0);
        EXPECT_EQ(test_kernel::take_debug_output(), expected);
        for (int32_t argc : {1, 3}) {
            EXPECT_EQ(zarn_data_dump(argc, argv), 1);
            EXPECT_EQ(test_kernel::take_debug_output(), "usage: zarn_data <address>\n");
        }
        delete_zarn_data(data);
    }
    char command[] = "zarn_data", *argv[] = {command, command};
    EXPECT_EQ(zarn_data_dump(2, argv), 0) << "what is no address";
    EXPECT_EQ(test_kernel::take_debug_output(), "");
}
