// SPDX-License-Identifier: MIT
//
// Ranges: shared, copied, removed, made contiguous. And what every refused allocation leaves behind.

#include <zarn/status.h>

#include <algorithm>

#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

constexpr uint16_t kCached = DATA_CHECKSUM_CACHED, kLocked = DATA_LOCKED, kNeedsLock = DATA_NEEDS_LOCK;

class slicing_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        gFreed.clear();
    }

    // Two pieces, each with a descriptor of its own.
    zarn_data_t *two_descriptors(const std::string &first, const std::string &second) {
        zarn_data_t *data = text.buffer({first}, note_free);
        append_zarn_data(data, text(second), static_cast<uint32_t>(second.size()), note_other_free);
        return data;
    }

    scratch text;
};

struct range {
    uint32_t offset, length;
};

std::ostream &operator<<(std::ostream &out, const range &r) {
    return out << r.offset << '+' << r.length;
}

const range kInvalid[] = {{8, 0}, {7, 1}, {0, 8}, {0xffffffff, 2}, {2, 0xffffffff}, {0x80000000, 0x80000000}};

TEST_F(slicing_test, CloneAndCopyOfEveryKindOfRange) {
    struct {
        range r;
        const char *cloned, *copied;
    } const cases[] = {
        {{0, 3}, "XY|abc|", "XY|abc|"},            // all of the first node
        {{1, 2}, "XY|bc|", "XY|bc|"},              //
        {{2, 2}, "XY|c||d|", "XY|cd|"},            // one byte more, and an empty node between
        {{3, 1}, "XY|d|", "XY|d|"},                // from a boundary, past the empty node
        {{4, 3}, "XY|efg|", "XY|efg|"},            //
        {{0, 7}, "XY|abc||defg|", "XY|abcdefg|"},  //
        {{3, 0}, "XY||", "XY||"},                  // no bytes, within the first node or at its end
        {{5, 0}, "XY|", "XY||"},                   // no bytes, in a later node
        {{7, 0}, "XY|", "XY||"},                   // no bytes, behind the last
    };
    auto build = [&] {
        zarn_data_t *src = two_descriptors("abc", "defg");
        insert_zarn_data(src, 3, nullptr, 0, nullptr);
        return src;
    };
    for (auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.r);
        zarn_data_t *src = build(), *clone = text.buffer({"XY"}), *copy = text.buffer({"XY"});
        auto held = descriptors_of(src);
        EXPECT_EQ(clone_zarn_data(clone, src, c.r.offset, c.r.length), 0);
        EXPECT_EQ(pieces_of(clone), c.cloned);
        auto shared = descriptors_of(clone);
        std::reverse(shared.begin(), shared.end());
        EXPECT_EQ(shared, held);
        for (auto *descriptor : held)
            EXPECT_EQ(descriptor->ref_count, 2);
        EXPECT_EQ(copy_zarn_data(copy, src, c.r.offset, c.r.length), 0);
        EXPECT_EQ(pieces_of(copy), c.copied);
        EXPECT_EQ(descriptors_of(copy).size(), 1u);
        EXPECT_EQ(pieces_of(src), "abc||defg|");
        delete_zarn_data(src);
        for (auto *data : {clone, copy}) {
            EXPECT_EQ(zarn_data_fault(data), nullptr);
            delete_zarn_data(data);
        }
    }
    zarn_data_t *src = build(), *dst = text.buffer({"XY"});
    src->flags = dst->flags = kCached | 1;
    src->flags |= 2;
    for (auto &r : kInvalid) {
        EXPECT_EQ(clone_zarn_data(dst, src, r.offset, r.length), -1) << r;
        EXPECT_EQ(copy_zarn_data(dst, src, r.offset, r.length), -1) << r;
    }
    EXPECT_EQ(pieces_of(dst), "XY|");
    EXPECT_EQ(dst->flags, kCached | 1);
    EXPECT_EQ(dst->freelist, nullptr);

    // Copies merge into an unshared descriptor with zarn_free; a buffer without nodes gives nothing but its flags.
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(copy_zarn_data(dst, src, 0, 7), 0);
    EXPECT_EQ(descriptors_of(dst).size(), 1u);
    zarn_data_t *empty = new_zarn_data();
    empty->flags = 4;
    EXPECT_EQ(clone_zarn_data(dst, empty, 0, 0), 0);
    EXPECT_EQ(pieces_of(dst), "XY|abcdefg|abcdefg|abcdefg|abcdefg|");
    EXPECT_EQ(dst->flags, 1 | 2 | 4);
    for (auto *data : {src, dst, empty})
        delete_zarn_data(data);
}

TEST_F(slicing_test, FlagsThatComeAlong) {
    struct {
        uint16_t src, dst, cloned, copied;
    } const cases[] = {
        {0xffff, 0, 0x5fff, 0x4fff},
        {kNeedsLock | kLocked, 0, kNeedsLock, 0},
        {kNeedsLock | kLocked, kLocked, kNeedsLock | kLocked, kLocked},
        {kNeedsLock, kLocked | 1, kNeedsLock | 1, kLocked | 1},
        {0x4800, kLocked | kCached | 1, kLocked | 0x4801, kLocked | 0x4801},
    };
    for (auto &c : cases) {
        zarn_data_t *src = text.buffer({"abc"}), *clone = text.buffer({"X"}), *copy = text.buffer({"X"});
        src->flags = c.src;
        clone->flags = copy->flags = c.dst;
        clone_zarn_data(clone, src, 0, 3);
        copy_zarn_data(copy, src, 0, 3);
        EXPECT_EQ(clone->flags, c.cloned) << std::hex << c.src << ' ' << c.dst;
        EXPECT_EQ(copy->flags, c.copied) << std::hex << c.src << ' ' << c.dst;
        for (auto *data : {src, clone, copy})
            delete_zarn_data(data);
    }
}

// The operations that change one buffer, on "abc|def|ghi|".
int32_t map_range(zarn_data_t *data, uint32_t offset, uint32_t length) {
    std::string expected = bytes_of(data);
    void *untouched = &expected, *out = untouched;
    int32_t status = map_to_zarn_data(data, offset, &out, length);
    if (status != 0) {
        EXPECT_EQ(out, untouched);
    } else {
        EXPECT_EQ(std::string(static_cast<char *>(out), length), expected.substr(offset, length));
        EXPECT_EQ(bytes_of(data), expected);
    }
    return status;
}

using one_buffer_operation = int32_t (*)(zarn_data_t *data, uint32_t offset, uint32_t length);
const struct {
    one_buffer_operation run;
    range r;
    int32_t status;
    const char *pieces;
    int32_t nodes;   // taken
    uint16_t flags;  // of kCached | kNeedsLock
} kChanges[] = {
    {trim_zarn_data, {0, 0}, -1, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {trim_zarn_data, {0, 1}, 0, "bc|def|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {0, 3}, 0, "def|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {0, 4}, 0, "ef|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {0, 9}, 0, "", 0, kNeedsLock},
    {trim_zarn_data, {1, 1}, 0, "a|c|def|ghi|", 1, kNeedsLock},
    {trim_zarn_data, {1, 2}, 0, "a|def|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {1, 7}, 0, "a|i|", 0, kNeedsLock},
    {trim_zarn_data, {3, 1}, 0, "abc|ef|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {3, 3}, 0, "abc|ghi|", 0, kNeedsLock},
    {trim_zarn_data, {4, 1}, 0, "abc|d|f|ghi|", 1, kNeedsLock},
    {trim_zarn_data, {8, 1}, 0, "abc|def|gh|", 0, kNeedsLock},
    {coalesce_zarn_data, {0, 0}, ERR_NO_MEMORY, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {coalesce_zarn_data, {9, 0}, ERR_NO_MEMORY, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {coalesce_zarn_data, {0, 9}, 0, "abcdefghi|", 1, kCached},
    {coalesce_zarn_data, {0, 4}, 0, "abcd|ef|ghi|", 2, kNeedsLock},
    {coalesce_zarn_data, {1, 1}, 0, "a|b|c|def|ghi|", 3, kNeedsLock},
    {coalesce_zarn_data, {2, 5}, 0, "ab|cdefg|hi|", 2, kNeedsLock},
    {coalesce_zarn_data, {3, 6}, 0, "abc|defghi|", 2, kNeedsLock},
    {map_range, {0, 0}, -1, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {map_range, {0, 3}, 0, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {map_range, {4, 2}, 0, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {map_range, {6, 3}, 0, "abc|def|ghi|", 0, kCached | kNeedsLock},
    {map_range, {2, 2}, 0, "ab|cd|ef|ghi|", 2, kNeedsLock},
    {map_range, {0, 9}, 0, "abcdefghi|", 1, kCached},
};

TEST_F(slicing_test, TrimCoalesceAndMapOfEveryKindOfRange) {
    for (auto &c : kChanges) {
        SCOPED_TRACE(testing::Message() << "case " << &c - kChanges << " with " << c.r);
        zarn_data_t *data = text.buffer({"abc", "def", "ghi"}, note_free);
        data->flags = kCached | kNeedsLock;
        int32_t nodes = nodes_left(data);
        EXPECT_EQ(c.run(data, c.r.offset, c.r.length), c.status);
        EXPECT_EQ(pieces_of(data), c.pieces);
        EXPECT_EQ(nodes - nodes_left(data), c.nodes);
        EXPECT_EQ(data->flags, c.flags);
        EXPECT_EQ(zarn_data_fault(data), nullptr);
        delete_zarn_data(data);
    }
    zarn_data_t *data = text.buffer({"abc", "defg"});
    data->flags = kCached;
    char untouched[] = "0123456789";
    for (auto &r : kInvalid) {
        for (auto run : {trim_zarn_data, coalesce_zarn_data, map_range})
            EXPECT_EQ(run(data, r.offset, r.length), -1) << r;
        EXPECT_EQ(copy_from_zarn_data(data, r.offset, untouched, r.length), 0u) << r;
    }
    EXPECT_EQ(copy_from_zarn_data(data, 0, untouched, 0), 0u);
    EXPECT_STREQ(untouched, "0123456789");
    EXPECT_EQ(pieces_of(data), "abc|defg|");
    EXPECT_EQ(data->flags, kCached);
    delete_zarn_data(data);

    data = new_zarn_data();
    data->flags = kCached | kNeedsLock;
    EXPECT_EQ(coalesce_zarn_data(data, 0, 0), 0) << "there is nothing to do in an empty buffer";
    EXPECT_EQ(data->flags, kCached | kNeedsLock);
    EXPECT_EQ(data->freelist, nullptr);
    delete_zarn_data(data);
}

TEST_F(slicing_test, ReadsWholeBuffersAndPartsOfThem) {
    zarn_data_t *data = text.buffer({"abc", "def", "ghi"});
    insert_zarn_data(data, 6, nullptr, 0, nullptr);
    for (uint32_t offset = 0; offset <= 9; ++offset) {
        for (uint32_t length = 1; offset + length <= 9; ++length) {
            std::string dest(12, '.');
            EXPECT_EQ(copy_from_zarn_data(data, offset, dest.data(), length), length);
            EXPECT_EQ(dest, std::string("abcdefghi").substr(offset, length) + std::string(12 - length, '.'));
        }
    }
    delete_zarn_data(data);
}

TEST_F(slicing_test, DisassociateMovesTheRangeOnlyWhileSomethingIsShared) {
    zarn_data_t *data = two_descriptors("abc", "def"), *clone = new_zarn_data();
    EXPECT_EQ(disassociate_zarn_data(data, 0, 6), 0);
    EXPECT_EQ(disassociate_zarn_data(data, 9, 9), 0) << "nothing is shared, so nothing is even looked at";
    EXPECT_EQ(pieces_of(data), "abc|def|");
    ASSERT_EQ(clone_zarn_data(clone, data, 0, 6), 0);
    EXPECT_EQ(disassociate_zarn_data(data, 6, 1), -1);
    EXPECT_EQ(disassociate_zarn_data(data, 1, 4), 0);
    EXPECT_EQ(pieces_of(data), "a|bcde|f|");
    void *out = nullptr;
    ASSERT_EQ(map_to_zarn_data(data, 1, &out, 4), 0);
    memcpy(out, "1234", 4);
    EXPECT_EQ(bytes_of(clone), "abcdef");
    delete_zarn_data(data);
    EXPECT_EQ(disassociate_zarn_data(clone, 0, 6), 0) << "the clone is the only holder now";
    EXPECT_EQ(pieces_of(clone), "abc|def|");
    delete_zarn_data(clone);
    EXPECT_EQ(gFreed.size(), 2u);
}

TEST_F(slicing_test, ACorruptBufferHaltsTheSystem) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    for (uint32_t nodes = 0; nodes <= 1; ++nodes) {
        zarn_data_t *data = nodes == 0 ? new_zarn_data() : text.buffer({"abc"});
        uint32_t length = data->length;
        data->length = 9;
        EXPECT_DEATH(trim_zarn_data(data, 2, 7),
                     "trimming data .* of length 9 at offset 2 size 7 with no memnodes!\n");
        void *out = nullptr;
        EXPECT_EQ(map_to_zarn_data(data, 5, &out, 2), -1);
        data->length = length;
        delete_zarn_data(data);
    }
}

// What the k-th refused allocation of an operation leaves behind, for every k up to the success. The operation runs
// on "abc|def|ghi|" with one descriptor, flags kCached | 0x10 and `left` nodes at hand. The source of a clone or a
// copy is "12|34|" with two descriptors and flags kNeedsLock | 0x4001.
struct outcome {
    int32_t status;
    const char *pieces;
    size_t held;
    int32_t flags;
    bool leaks = false;
};

const struct {
    const char *name;
    int32_t left;
    int32_t (*run)(zarn_data_t *data, zarn_data_t *src, char *memory);
    std::vector<outcome> outcomes;
} kFailures[] = {
    {"append",
     0,
     [](auto *data, auto *, auto *memory) { return append_zarn_data(data, memory, 2, note_other_free); },
     {{-1, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|++|", 1, 0x10},
      {0, "abc|def|ghi|++|", 2, 0x10}}},
    {"append",
     1,
     [](auto *data, auto *, auto *memory) { return append_zarn_data(data, memory, 2, note_other_free); },
     {{ERR_NO_MEMORY, "abc|def|ghi|++|", 1, 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|++|", 1, 0x10},
      {0, "abc|def|ghi|++|", 2, 0x10}}},
    {"prepend",
     0,
     [](auto *data, auto *, auto *memory) { return prepend_zarn_data(data, memory, 2, note_other_free); },
     {{-1, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "++|abc|def|ghi|", 1, 0x10},
      {0, "++|abc|def|ghi|", 2, 0x10}}},
    {"insert",
     0,
     [](auto *data, auto *, auto *memory) { return insert_zarn_data(data, 1, memory, 2, note_other_free); },
     {{-1, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "a|++|bc|def|ghi|", 1, 0x10},
      {0, "a|++|bc|def|ghi|", 2, 0x10}}},
    {"insert",
     1,
     [](auto *data, auto *, auto *memory) { return insert_zarn_data(data, 1, memory, 2, note_other_free); },
     {{-1, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "a|++|bc|def|ghi|", 1, 0x10},
      {0, "a|++|bc|def|ghi|", 2, 0x10}}},
    {"add element",
     0,
     [](auto *data, auto *, auto *memory) {
         return add_free_element(data, memory, nullptr, note_other_free, 0);
     },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {0, "abc|def|ghi|", 2, kCached | 0x10}}},
    {"clone pieces",
     0,
     [](auto *data, auto *src, auto *) { return clone_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, 0x5011}, {0, "abc|def|ghi|2|3|", 3, 0x5011}}},
    {"clone pieces",
     1,
     [](auto *data, auto *src, auto *) { return clone_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 2, 0x5011}, {0, "abc|def|ghi|2|3|", 3, 0x5011}}},
    {"clone pieces",
     2,
     [](auto *data, auto *src, auto *) { return clone_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 3, 0x5011}, {0, "abc|def|ghi|2|3|", 3, 0x5011}}},
    {"clone pieces",
     3,
     [](auto *data, auto *src, auto *) { return clone_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|2|", 3, 0x5011}, {0, "abc|def|ghi|2|3|", 3, 0x5011}}},
    {"clone a piece",
     2,
     [](auto *data, auto *src, auto *) { return clone_zarn_data(data, src, 0, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 3, 0x5011}, {0, "abc|def|ghi|12|", 3, 0x5011}}},
    {"copy",
     0,
     [](auto *data, auto *src, auto *) { return copy_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {0, "abc|def|ghi|23|", 2, 0x4011}}},
    {"copy",
     1,
     [](auto *data, auto *src, auto *) { return copy_zarn_data(data, src, 1, 2); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {0, "abc|def|ghi|23|", 2, 0x4011}}},
    {"coalesce all",
     0,
     [](auto *data, auto *, auto *) { return coalesce_zarn_data(data, 0, 9); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {0, "abcdefghi|", 1, kCached | 0x10, true},
      {0, "abcdefghi|", 1, kCached | 0x10, true},
      {0, "abcdefghi|", 2, kCached | 0x10}}},
    {"coalesce a part",
     0,
     [](auto *data, auto *, auto *) { return coalesce_zarn_data(data, 4, 1); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|def|ghi|", 1, 0x10},
      {0, "abc|d|e|f|ghi|", 1, 0x10, true},
      {0, "abc|d|e|f|ghi|", 2, 0x10}}},
    {"coalesce a part",
     1,
     [](auto *data, auto *, auto *) { return coalesce_zarn_data(data, 4, 1); },
     {{ERR_NO_MEMORY, "abc|def|ghi|", 1, kCached | 0x10},
      {ERR_NO_MEMORY, "abc|d|f|ghi|", 1, 0x10},
      {0, "abc|d|e|f|ghi|", 1, 0x10, true},
      {0, "abc|d|e|f|ghi|", 2, 0x10}}},
    {"trim",
     0,
     [](auto *data, auto *, auto *) { return trim_zarn_data(data, 4, 1); },
     {{-1, "abc|def|ghi|", 1, 0x10}, {0, "abc|d|f|ghi|", 1, 0x10}}},
    {"map",
     0,
     [](auto *data, auto *, auto *) { return map_range(data, 2, 2); },
     {{-1, "abc|def|ghi|", 1, kCached | 0x10},
      {-1, "ab|ef|ghi|", 1, 0x10},
      {0, "ab|cd|ef|ghi|", 1, 0x10, true},
      {0, "ab|cd|ef|ghi|", 2, 0x10}}},
};

TEST_F(slicing_test, EveryRefusedAllocationLeavesWhatIsPromised) {
    dry_pools dry;  // each allocation is a call of the heap, and counted
    for (auto &c : kFailures) {
        for (bool later_too : {false, true}) {
            for (size_t k = 0; k < c.outcomes.size(); ++k) {
                SCOPED_TRACE(testing::Message() << c.name << " with " << c.left << " nodes, call " << k + 1
                                                << (later_too ? " and all later" : "") << " refused");
                const outcome &expected = c.outcomes[k];
                zarn_data_t *data = text.buffer({"abc", "def", "ghi"}, note_free),
                            *src = two_descriptors("12", "34");
                data->flags = kCached | 0x10;
                src->flags = kNeedsLock | 0x4001;
                leave_nodes(data, c.left);
                test_kernel::clear_log();

                auto call = static_cast<int32_t>(k + 1);
                later_too ? test_kernel::fail_from(call, test_kernel::kHeap)
                          : test_kernel::fail_call(call, test_kernel::kHeap);
                EXPECT_EQ(c.run(data, src, text("++")), expected.status);
                test_kernel::fail_nothing();
                EXPECT_EQ(test_kernel::refusals() == 0, &expected == &c.outcomes.back());

                EXPECT_EQ(pieces_of(data), expected.pieces);
                EXPECT_EQ(descriptors_of(data).size(), expected.held);
                EXPECT_EQ(data->flags, expected.flags);
                for (auto *buffer : {data, src})
                    EXPECT_EQ(zarn_data_fault(buffer), nullptr);
                EXPECT_EQ(test_kernel::log_lines().size(), expected.leaks);
                if (expected.leaks) {
                    auto *node = data->datalist;
                    while (!test_kernel::on_heap(node->base))
                        node = node->next;
                    char line[60];
                    snprintf(line, sizeof line, "coalesce_zarn_data() leaked %u bytes!\n", node->len);
                    EXPECT_EQ(test_kernel::log_lines()[0], line);
                    zarn_free(node->base);
                }
                for (auto *buffer : {src, data})
                    delete_zarn_data(buffer);
                EXPECT_EQ(test_kernel::heap_blocks(), 3) << "nothing but the records of the pools";
            }
        }
    }
    test_kernel::fail_call(1, test_kernel::kHeap);
    EXPECT_EQ(new_zarn_data(), nullptr);
}

}  // namespace
