// SPDX-License-Identifier: MIT
//
// Ranges: shared, copied, removed, made contiguous. And what every refused allocation leaves behind.

#include <zarn/status.h>

#include <cstring>
#include <sstream>

#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

class slicing_test : public module_test {
 protected:
    static int32_t perform(const std::string &operation, zarn_data_t *data, zarn_data_t *src, char *memory,
                           uint32_t offset, uint32_t length) {
        if (operation == "append") return append_zarn_data(data, memory, 2, note_other_free);
        if (operation == "prepend") return prepend_zarn_data(data, memory, 2, note_other_free);
        if (operation == "insert") return insert_zarn_data(data, offset, memory, length, note_other_free);
        if (operation == "own") return add_free_element(data, memory, nullptr, note_other_free, 0);
        if (operation == "clone") return clone_zarn_data(data, src, offset, length);
        if (operation == "copy") return copy_zarn_data(data, src, offset, length);
        if (operation == "trim") return trim_zarn_data(data, offset, length);
        if (operation == "coalesce") return coalesce_zarn_data(data, offset, length);
        if (operation == "shared") clone_zarn_data(src, data, 0, 1);
        if (operation != "map") return disassociate_zarn_data(data, offset, length);
        void *out = data;
        int32_t status = map_to_zarn_data(data, offset, &out, length);
        if (status == 0) {
            EXPECT_EQ(std::string(static_cast<char *>(out), length),
                      std::string("abcdefghi").substr(offset, length));
        } else {
            EXPECT_EQ(out, data);
        }
        return status;
    }

    // Performs one operation on "abc|def|ghi|" with one descriptor, flags 9010 and `left` nodes at hand. A clone or copy
    // is of "12||34|" with two descriptors and flags 5001. Tells the status, and the pieces, the descriptors and the flags or that they are the same.
    std::string outcome(const std::string &row, int32_t left, int32_t refused = 0, bool later_too = false) {
        std::string operation;
        uint32_t offset = 0, length = 0;
        std::istringstream(row) >> operation >> offset >> length;
        zarn_data_t *data = text.buffer({"abc", "def", "ghi"}, note_free),
                    *src = text.buffer({"12"}, note_free);
        append_zarn_data(src, text("34"), 2, note_other_free);
        insert_zarn_data(src, 2, nullptr, 0, nullptr);
        data->flags = DATA_CHECKSUM_CACHED | DATA_NEEDS_LOCK | 0x10;
        src->flags = DATA_NEEDS_LOCK | 0x4001;
        while (data->nodepools->n > left)
            take_node(data);
        test_kernel::clear_log();
        if (refused != 0)
            (later_too ? test_kernel::fail_from : test_kernel::fail_call)(refused, test_kernel::kHeap);
        int32_t status = perform(operation, data, src, text("++"), offset, length);
        test_kernel::fail_nothing();
        std::ostringstream told;
        told << (status == 0               ? "ok "
                 : status == ERR_NO_MEMORY ? "mem "
                                           : "bad ")
             << pieces_of(data) << ' ' << descriptors_of(data).size() << ' ' << std::hex << data->flags;
        if (!test_kernel::log_lines().empty()) {
            auto *node = data->datalist;
            while (!test_kernel::on_heap(node->base))
                node = node->next;
            EXPECT_EQ(test_kernel::log_lines()[0],
                      "coalesce_zarn_data() leaked " + std::to_string(node->len) + " bytes!\n");
            zarn_free(node->base);
            told << " leaked";
        }
        for (auto *buffer : {src, data}) {
            EXPECT_EQ(zarn_data_fault(buffer), nullptr);
            delete_zarn_data(buffer);
        }
        std::string all = told.str(), unchanged = "abc|def|ghi| 1 9010";
        if (size_t at = all.find(unchanged); at != std::string::npos)
            all.replace(at, unchanged.size(), "same");
        return all;
    }

    scratch text;
};

TEST_F(slicing_test, EveryKindOfRange) {
    const char *const cases[][2] = {
        {"insert 0 2", "ok ++|abc|def|ghi| 2 1010"},
        {"insert 9 2", "ok abc|def|ghi|++| 2 1010"},
        {"insert 3 2", "ok abc|++|def|ghi| 2 1010"},
        {"insert 1 2", "ok a|++|bc|def|ghi| 2 1010"},
        {"insert 0 0", "ok same"},
        {"insert 9 0", "ok same"},  // nothing is registered
        {"insert 3 0", "ok abc||def|ghi| 2 1010"},
        {"insert 10 2", "bad same"},
        {"insert 4294967295 1", "bad same"},
        {"insert 1 4294967287", "bad same"},
        {"insert 0 4294967287", "bad same"},
        {"insert 9 4294967287", "bad same"},
        {"clone 0 2", "ok abc|def|ghi|12| 3 5011"},
        {"copy 0 2", "ok abc|def|ghi|12| 2 5011"},
        {"clone 1 2", "ok abc|def|ghi|2||3| 3 5011"},
        {"copy 1 2", "ok abc|def|ghi|23| 2 5011"},
        {"copy 0 4", "ok abc|def|ghi|1234| 2 5011"},
        {"clone 2 0", "ok abc|def|ghi|| 3 5011"},
        {"copy 2 0", "ok abc|def|ghi|| 2 5011"},
        {"clone 3 0", "ok abc|def|ghi| 3 5011"},
        {"copy 4 0", "ok abc|def|ghi|| 2 5011"},
        {"trim 0 0", "bad same"},
        {"trim 0 1", "ok bc|def|ghi| 1 1010"},
        {"trim 0 3", "ok def|ghi| 1 1010"},
        {"trim 0 9", "ok  1 1010"},
        {"trim 1 1", "ok a|c|def|ghi| 1 1010"},
        {"trim 1 2", "ok a|def|ghi| 1 1010"},
        {"trim 1 7", "ok a|i| 1 1010"},
        {"trim 3 3", "ok abc|ghi| 1 1010"},
        {"coalesce 0 0", "mem same"},
        {"coalesce 0 9", "ok abcdefghi| 2 8010"},
        {"coalesce 0 4", "ok abcd|ef|ghi| 2 1010"},
        {"coalesce 2 5", "ok ab|cdefg|hi| 2 1010"},
        {"coalesce 3 6", "ok abc|defghi| 2 1010"},
        {"map 0 0", "bad same"},
        {"map 0 3", "ok same"},
        {"map 6 3", "ok same"},
        {"map 2 2", "ok ab|cd|ef|ghi| 2 1010"},
        {"map 0 9", "ok abcdefghi| 2 8010"},
        {"disassociate 9 9", "ok same"},
        {"shared 1 4", "ok a|bcde|f|ghi| 2 1010"},
        {"shared 9 1", "bad same"},
    };
    for (auto &[row, expected] : cases)
        EXPECT_EQ(outcome(row, 7), expected) << row;
    for (std::string operation : {"clone", "copy", "trim", "coalesce", "map"}) {
        for (auto range :
             {" 10 0", " 9 1", " 0 10", " 4294967295 2", " 2 4294967295", " 2147483648 2147483648"})
            EXPECT_EQ(outcome(operation + range, 7), "bad same") << operation << range;
    }
}

TEST_F(slicing_test, ABufferEndsAtFourGibibytes) {
    zarn_data_t *full = new_zarn_data(), *src = text.buffer({"a"});
    ASSERT_EQ(append_zarn_data(full, text("never read"), UINT32_MAX, nullptr), 0);
    for (auto add : {clone_zarn_data, copy_zarn_data})
        EXPECT_EQ(add(full, src, 0, 1), -1);
    delete_zarn_data(full);
    delete_zarn_data(src);
}

TEST_F(slicing_test, FlagsThatComeAlong) {
    const uint16_t cases[][4] = {
        // of the source and the destination; what a clone and a copy make of the latter
        {0xffff, 0, 0x5fff, 0x4fff},      {0x3000, 0, 0x1000, 0},           {0x3000, 0x2000, 0x3000, 0x2000},
        {0x1000, 0x2001, 0x1001, 0x2001}, {0x4800, 0xa001, 0x6801, 0x6801},
    };
    for (auto &[from, to, cloned, copied] : cases) {
        zarn_data_t *src = text.buffer({"abc"}), *clone = text.buffer({"X"}), *copy = text.buffer({"X"});
        src->flags = from;
        clone->flags = copy->flags = to;
        clone_zarn_data(clone, src, 0, 3);
        copy_zarn_data(copy, src, 0, 3);
        EXPECT_EQ(clone->flags, cloned) << std::hex << from << ' ' << to;
        EXPECT_EQ(copy->flags, copied) << std::hex << from << ' ' << to;
        for (auto *data : {src, clone, copy})
            delete_zarn_data(data);
    }
}

TEST_F(slicing_test, ACorruptBufferHaltsTheSystem) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    zarn_data_t *data = text.buffer({"abc"});
    data->length = 9;
    EXPECT_DEATH(trim_zarn_data(data, 2, 7),
                 "trimming data .* of length 9 at offset 2 size 7 with no memnodes!\n");
    void *out = nullptr;
    EXPECT_EQ(map_to_zarn_data(data, 5, &out, 2), -1);
    data->datalist = nullptr;
    EXPECT_DEATH(trim_zarn_data(data, 0, 1), "with no memnodes!\n");
    delete_zarn_data(data);
}

// What the k-th refused allocation leaves behind, alone or with all later ones, for every k up to the success; each with
// so many nodes left.
TEST_F(slicing_test, EveryRefusedAllocationLeavesWhatIsPromised) {
    const struct {
        const char *row;
        std::vector<std::string> outcomes;
    } cases[] = {
        {"0 append", {"bad same", "mem abc|def|ghi|++| 1 1010", "ok abc|def|ghi|++| 2 1010"}},
        {"1 append",
         {"mem abc|def|ghi|++| 1 1010", "mem abc|def|ghi|++| 1 1010", "ok abc|def|ghi|++| 2 1010"}},
        {"0 prepend", {"bad same", "mem ++|abc|def|ghi| 1 1010", "ok ++|abc|def|ghi| 2 1010"}},
        {"0 insert 1 2", {"bad same", "mem a|++|bc|def|ghi| 1 1010", "ok a|++|bc|def|ghi| 2 1010"}},
        {"1 insert 1 2", {"bad same", "mem a|++|bc|def|ghi| 1 1010", "ok a|++|bc|def|ghi| 2 1010"}},
        {"0 own", {"mem same", "mem same", "ok abc|def|ghi| 2 9010"}},
        {"0 clone 1 2", {"mem abc|def|ghi| 1 5011", "ok abc|def|ghi|2||3| 3 5011"}},
        {"1 clone 1 2", {"mem abc|def|ghi| 2 5011", "ok abc|def|ghi|2||3| 3 5011"}},
        {"2 clone 1 2", {"mem abc|def|ghi| 3 5011", "ok abc|def|ghi|2||3| 3 5011"}},
        {"3 clone 1 2", {"mem abc|def|ghi|2| 3 5011", "ok abc|def|ghi|2||3| 3 5011"}},
        {"2 clone 0 2", {"mem abc|def|ghi| 3 5011", "ok abc|def|ghi|12| 3 5011"}},
        {"0 copy 1 2", {"mem same", "mem same", "mem same", "ok abc|def|ghi|23| 2 5011"}},
        {"1 copy 1 2", {"mem same", "mem same", "mem same", "ok abc|def|ghi|23| 2 5011"}},
        {"0 coalesce 0 9",
         {"mem same", "ok abcdefghi| 1 8010 leaked", "ok abcdefghi| 1 8010 leaked", "ok abcdefghi| 2 8010"}},
        {"0 coalesce 4 1",
         {"mem same", "mem abc|def|ghi| 1 1010", "ok abc|d|e|f|ghi| 1 1010 leaked",
          "ok abc|d|e|f|ghi| 2 1010"}},
        {"1 coalesce 4 1",
         {"mem same", "mem abc|d|f|ghi| 1 1010", "ok abc|d|e|f|ghi| 1 1010 leaked",
          "ok abc|d|e|f|ghi| 2 1010"}},
        {"0 trim 4 1", {"bad abc|def|ghi| 1 1010", "ok abc|d|f|ghi| 1 1010"}},
        {"0 map 2 2",
         {"bad same", "bad ab|ef|ghi| 1 1010", "ok ab|cd|ef|ghi| 1 1010 leaked", "ok ab|cd|ef|ghi| 2 1010"}},
    };
    dry_pools dry;  // each allocation is a call of the heap, and counted
    for (auto &[row, outcomes] : cases) {
        for (size_t k = 0; k < 2 * outcomes.size(); ++k) {
            const std::string &expected = outcomes[k / 2];
            EXPECT_EQ(outcome(row + 2, *row - '0', static_cast<int32_t>(k / 2 + 1), k % 2), expected)
                << row << ", call " << k / 2 + 1 << " refused";
            EXPECT_EQ(test_kernel::refusals() == 0, &expected == &outcomes.back());
            EXPECT_EQ(test_kernel::heap_blocks(), 3) << "nothing but the records of the pools";
        }
    }
    test_kernel::fail_call(1, test_kernel::kHeap);
    EXPECT_EQ(new_zarn_data(), nullptr);
}

}  // namespace
