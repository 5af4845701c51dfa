// SPDX-License-Identifier: MIT
//
// Pieces here lie at addresses that are only numbers: nobody looks at the memory.

#include "data/memory_lock.h"

#include <algorithm>
#include <vector>

#include "data/zarn_data.h"
#include "tests/support/background.h"
#include "tests/support/failures.h"
#include "tests/support/fixture.h"

namespace {

constexpr uintptr_t kOffset = 0x4000000;

class memory_lock_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        ASSERT_EQ(init_address_cache(), 0);
        test_kernel::set_physical_offset(kOffset);
    }
    void TearDown() override {
        uninit_address_cache();
        module_test::TearDown();
    }
};

struct piece {
    uintptr_t address;
    uint32_t length;
};
using pieces = std::vector<piece>;

zarn_data_t *make_buffer(const pieces &list, bool needs_lock = true) {
    zarn_data_t *data = new_zarn_data();
    for (const piece &each : list)
        append_zarn_data(data, reinterpret_cast<void *>(each.address), each.length, nullptr);
    if (needs_lock) data->flags |= DATA_NEEDS_LOCK;
    return data;
}

// A run for each page of each piece.
std::vector<memory_run> runs_of(const zarn_data_t *data) {
    std::vector<memory_run> runs;
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next) {
        uintptr_t first = reinterpret_cast<uintptr_t>(node->base), end = first + node->len;
        for (uintptr_t next; first != end; first = next) {
            next = std::min(end, (first | 0xfff) + 1);
            runs.push_back({first + kOffset, static_cast<uint32_t>(next - first)});
        }
    }
    return runs;
}

bool equal_runs(const memory_run &a, const memory_run &b) {
    return a.address == b.address && a.size == b.size;
}

// With 0, 1, ... entries: that many as the buffer has are enough, and fewer never are.
void expect_map(zarn_data_t *data, bool no_fault) {
    const std::vector<memory_run> runs = runs_of(data);
    for (size_t count = 0; count <= runs.size() + 1; count += 1 + count / 20) {
        std::vector<memory_run> table(count);
        const bool enough = count >= runs.size();
        EXPECT_EQ(get_data_memory_map(data, table.data(), static_cast<uint32_t>(count), no_fault),
                  count == 0 ? 0
                  : enough   ? static_cast<int32_t>(runs.size())
                             : -1);
        table.resize(runs.size());
        EXPECT_TRUE(!enough || std::equal(runs.begin(), runs.end(), table.begin(), equal_runs));
    }
}

void end_lock(lock_token *token) {
    unlock_zarn_data(token);
    zarn_free(token);
}

TEST_F(memory_lock_test, AMapHasEveryByteOnceWhoeverGivesTheRuns) {
    const pieces buffers[] = {{},
                              {{0x1000, 50}, {0x1032, 4000}},                      // adjacent, not joined
                              {{0x1800, 0x2000}, {0x7fff, 2}, {0x20000, 0x6000}},  // three runs, two, six
                              {{0x100800, 4096 * 300}}};  // more than the scratch has
    memory_run any;
    for (const pieces &list : buffers) {
        for (int32_t most_runs : {1, 2, INT32_MAX}) {
            SCOPED_TRACE(testing::Message() << &list - buffers << " with runs " << most_runs);
            test_kernel::set_most_runs(INT32_MAX);
            zarn_data_t *data = make_buffer(list);
            lock_token *token = lock_zarn_data(data);
            EXPECT_EQ(token == nullptr, list.empty());
            test_kernel::clear_journal();
            expect_map(data, true);
            if (list.size() > 1) {
                trim_zarn_data(data, 0, 30);
                trim_zarn_data(data, data->length - 1, 1);
                expect_map(data, false);
            }
            EXPECT_TRUE(test_kernel::journal("memory_map").empty()) << "the cache has it all";
            end_lock(token);
            test_kernel::set_most_runs(most_runs);
            expect_map(data, false);
            EXPECT_EQ(get_data_memory_map(data, &any, 1, true), list.empty() ? 0 : -1);
            // The cache may have the runs of a part only.
            token = lock_zarn_data(data);
            expect_map(data, false);
            end_lock(token);
            delete_zarn_data(data);
        }
    }
    EXPECT_TRUE(test_kernel::journal("memory_map").front().ends_with(" " + std::to_string(kScratchRuns)));
}

TEST_F(memory_lock_test, ALockWiresFirstAndAnUnlockWithoutTheBufferUndoesIt) {
    zarn_data_t *unmarked = make_buffer({{0x1000, 50}}, false), *empty = make_buffer({});
    EXPECT_EQ(lock_zarn_data(unmarked), nullptr);
    EXPECT_EQ(lock_zarn_data(empty), nullptr);
    EXPECT_EQ((unmarked->flags | empty->flags) & DATA_LOCKED, 0);
    delete_zarn_data(unmarked);
    delete_zarn_data(empty);
    unlock_zarn_data(nullptr);
    EXPECT_TRUE(test_kernel::journal("memory").empty());

    zarn_data_t *data = make_buffer({{0x1000, 50}, {0x2000, 60}, {0x3000, 70}});
    test_kernel::unmap(reinterpret_cast<void *>(0x2000), 1);  // wired, but not to be cached
    lock_token *first = lock_zarn_data(data), *second = lock_zarn_data(data);
    EXPECT_EQ(first->count, 3);
    EXPECT_EQ(data->flags, DATA_LOCKED | DATA_NEEDS_LOCK);
    memory_run runs[3];
    EXPECT_EQ(get_data_memory_map(data, runs, 3, true), -1);
    EXPECT_EQ(get_data_memory_map(data, runs, 3, false), -1);
    const std::vector<std::string> once = {"memory_lock \"\" 0x1000 50 0", "memory_map \"\" 0x1000 50 1",
                                           "memory_lock \"\" 0x2000 60 0", "memory_map \"\" 0x2000 60 1",
                                           "memory_lock \"\" 0x3000 70 0", "memory_map \"\" 0x3000 70 1"};
    std::vector<std::string> journal = test_kernel::journal("memory");
    ASSERT_GE(journal.size(), 12u);
    EXPECT_TRUE(std::equal(once.begin(), once.end(), journal.begin()));
    trim_zarn_data(data, 0, data->length);
    test_kernel::clear_journal();
    unlock_zarn_data(first);
    EXPECT_EQ(data->flags & DATA_LOCKED, DATA_LOCKED);
    delete_zarn_data(data);
    EXPECT_EQ(first->count, 3) << "the block is the caller's";
    zarn_free(first);
    EXPECT_EQ(test_kernel::journal("memory"),
              (std::vector<std::string>{"memory_unlock \"\" 0x1000 50 0", "memory_unlock \"\" 0x2000 60 0",
                                        "memory_unlock \"\" 0x3000 70 0"}));
    end_lock(second);
}

TEST_F(memory_lock_test, TheKernelIsAskedWithTheCacheUnlocked) {
    zarn_data_t *data = make_buffer({{0x1000, 50}});
    memory_run run;
    test_kernel::stopping_point window("memory_map");
    background call([&] { return get_data_memory_map(data, &run, 1, false); });
    window.wait();
    EXPECT_EQ(gAddressCache->count, 0);
    window.go_on();
    EXPECT_EQ(call.join(), 1);
    delete_zarn_data(data);
}

TEST_F(memory_lock_test, EveryFailureLeavesNothingBehind) {
    zarn_data_t *data = make_buffer({{0x1000, 50}, {0x2800, 0x1000}});
    sweep_failures([&] {
        dry_pools dry;
        lock_token *token = lock_zarn_data(data);
        const bool cached = test_kernel::refusals() == 0;
        EXPECT_EQ(cached, token != nullptr && token->pieces()[0].spec != nullptr &&
                              token->pieces()[1].spec != nullptr);
        memory_run table[3];
        EXPECT_EQ(get_data_memory_map(data, table, 3, true), cached ? 3 : -1);
        EXPECT_EQ(test_kernel::refusals() == 0, cached) << "allocates nothing";
        // Of what isn't cached the kernel is asked.
        const int32_t refusals = test_kernel::refusals();
        const int32_t result = get_data_memory_map(data, table, 3, false);
        EXPECT_EQ(result, test_kernel::refusals() == refusals ? 3 : -1);
        end_lock(token);
    });
    delete_zarn_data(data);
}

}  // namespace
