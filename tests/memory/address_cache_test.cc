// SPDX-License-Identifier: MIT
//
// Addresses here are numbers: neither the cache nor the kernel for tests looks at the memory.

#include "memory/address_cache.h"

#include <zarn/status.h>

#include <algorithm>
#include <list>
#include <vector>

#include "tests/support/failures.h"
#include "tests/support/fixture.h"
#include "tests/support/stress.h"

namespace {

void *at(uintptr_t address) {
    return reinterpret_cast<void *>(address);
}

// The number of links in all buckets; -1 when a link is not where its neighbours say.
int32_t count_all_links() {
    int32_t count = 0;
    for (uint32_t i = 0; i < gAddressCache->bucket_count; ++i) {
        address_link **word = &gAddressCache->buckets[i];
        for (; *word != nullptr; word = &(*word)->next, ++count)
            if ((*word)->prev != word) return -1;
    }
    return count;
}

class address_cache_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        ASSERT_EQ(init_address_cache(), 0);
    }
    void TearDown() override {
        EXPECT_EQ(count_all_links(), 0);
        EXPECT_EQ(test_kernel::sem_calls(), 0) << "with nobody to wait for";
        uninit_address_cache();
        module_test::TearDown();
    }
};

TEST_F(address_cache_test, ARangeIsFoundFromEachOfItsBytesAndFromNoneBeside) {
    const struct {
        uintptr_t address;
        uint32_t length, runs, links;
    } cases[] = {{0x1000, 100, 1, 1},
                 {0x3fff, 2, 2, 2},
                 {0, 0x5000, 5, 2},
                 {0x7ffff, 0x1100002, 0x1102, 0x442},  // around the table and on
                 {UINTPTR_MAX - 99, 100, 1, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.address);
        address_spec *spec = cache_address_spec(at(c.address), c.length, 0);
        ASSERT_NE(spec, nullptr);
        EXPECT_EQ(spec->count_runs(), c.runs);
        EXPECT_EQ(spec->count_links(), c.links);
        EXPECT_EQ(count_all_links(), static_cast<int32_t>(c.links));
        auto finds = [&](uintptr_t first, uint32_t length) {
            return lookup_address_spec(at(first), length, 5) == spec;
        };
        for (uint32_t i = 0; i < c.length; i += c.length / 50 + 1)
            EXPECT_TRUE(finds(c.address + i, 1) && finds(c.address + i, c.length - i)) << i;
        EXPECT_TRUE(finds(spec->end, 1));
        EXPECT_FALSE(finds(c.address - 1, 2) || finds(c.address, c.length + 1) || finds(spec->end, 2) ||
                     finds(spec->end + 1, 1) || finds(c.address - 1, 1) || finds(spec->end, UINT32_MAX));
        EXPECT_EQ(c.runs == 1, blocks_out() == "small pool: 1 blocks out\n") << blocks_out();
        free_address_spec(spec);
    }
    EXPECT_EQ(cache_address_spec(at(0x1000), 0, 0), nullptr);
    EXPECT_EQ(cache_address_spec(at(UINTPTR_MAX - 99), 101, 0), nullptr);
    free_address_spec(nullptr);
    EXPECT_EQ(test_kernel::journal("memory_map").size(), std::size(cases));
}

TEST_F(address_cache_test, OfManySpecsTheNewestThatFitsIsFoundWhateverGoes) {
    dice roll(1);
    std::list<address_spec *> model;  // newest first
    for (int round = 0; round < 4000; ++round) {
        // Few buckets, and ranges that share them from 16 MiB away.
        auto draw = [&] { return (roll.roll(3) << 24) + (roll.roll(6) << 13) + roll.roll(3); };
        uintptr_t address = draw();
        uint32_t length = 1 + (roll.roll(2) != 0 ? roll.roll(5) : roll.roll(60000));
        int32_t thread = static_cast<int32_t>(roll.roll(3)) * 7;
        if (model.size() < 4 || (model.size() < 30 && roll.roll(2) != 0)) {
            model.push_front(cache_address_spec(at(address), length, thread));
            ASSERT_NE(model.front(), nullptr);
        } else {
            auto victim = std::next(model.begin(), roll.roll(static_cast<uint32_t>(model.size())));
            free_address_spec(*victim);
            model.erase(victim);
        }
        auto fits = [&](const address_spec *spec) {
            return spec->start <= address && address + length - 1 <= spec->end &&
                   (spec->thread == 0 || spec->thread == 7);
        };
        for (address = draw(), length = 1; length < 40000; length = length * 5) {
            auto found = std::find_if(model.begin(), model.end(), fits);
            ASSERT_EQ(lookup_address_spec(at(address), length, 7), found == model.end() ? nullptr : *found);
        }
        ASSERT_GE(count_all_links(), 0);
    }
    for (address_spec *spec : model)
        free_address_spec(spec);
}

TEST_F(address_cache_test, AMapIsCutOutOfTheRunsAndNeverReachesBehindThem) {
    constexpr uintptr_t kStart = 0x12800;
    constexpr uint32_t kLength = 0x2000;  // half a page, a page, half a page
    test_kernel::as_thread seven(7);
    test_kernel::set_physical_offset(0x100000);
    const struct {
        int32_t most_runs;
        uint32_t position, length, count;
        int32_t result;
    } cases[] = {
        {9, 0, 0x800, 1, 1},   {9, 5, 100, 9, 1},        {9, 0, kLength, 3, 3},    {9, 0, kLength, 2, -1},
        {9, 0x7ff, 2, 2, 2},   {9, 0x800, 0x1000, 1, 1}, {9, 0x900, 0x1000, 9, 2}, {9, 0x1800, 0x800, 1, 1},
        {9, 1, kLength, 9, 0}, {9, 0x1fff, 1, 1, 1},     {9, 0, 1, 0, -1},         {2, 0, kLength, 9, 0},
        {2, 0, 0x1800, 2, 2},  {2, 0x1900, 5, 1, 0},     {1, 0, 0x801, 9, 0},      {1, 0, 0x801, 1, -1},
        {9, 0x1000, 0, 1, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        test_kernel::set_most_runs(c.most_runs);
        address_spec *spec = cache_address_spec(at(kStart), kLength, 7);
        memory_run table[4] = {{1, 1}, {1, 1}, {1, 1}, {1, 1}};
        EXPECT_EQ(get_cached_memory_map(at(kStart + c.position), c.length, table, c.count), c.result);
        uintptr_t expected = kStart + c.position + 0x100000, end = expected + c.length;
        for (int32_t i = 0; i < c.result; expected += table[i++].size) {
            EXPECT_EQ(table[i].address, expected);
            EXPECT_EQ(table[i].size, std::min<uintptr_t>(end, (expected | 0xfff) + 1) - expected);
        }
        EXPECT_TRUE(c.result <= 0 || expected == end);
        EXPECT_EQ(table[std::min<size_t>(c.count, 3)].size, 1u) << "behind the caller's table";
        {
            test_kernel::as_thread eight(8);
            EXPECT_EQ(get_cached_memory_map(at(kStart), 1, table, 4), 0) << "another's";
        }
        free_address_spec(spec);
    }
    EXPECT_EQ(test_kernel::journal("memory_map").size(), std::size(cases)) << "the kernel was asked again";
}

TEST_F(address_cache_test, APlaceBehindTheRunsHasNone) {
    const memory_run run = {0x1000, 100};
    memory_run filled;
    run_table table = {&filled, 1};
    EXPECT_EQ(fill_run_table(&table, &run, 1, 100, 10), 0u);
}

TEST_F(address_cache_test, AFailureLeavesNothingBehind) {
    sweep_failures([] {
        dry_pools dry;
        address_spec *spec = cache_address_spec(at(0x1000), 0x5000, 0);
        EXPECT_EQ(spec == nullptr, test_kernel::refusals() != 0);
        EXPECT_EQ(count_all_links(), spec == nullptr ? 0 : 2);
        free_address_spec(spec);
    });
    address_cache_t *before = gAddressCache;
    for (const auto &[kind, status] :
         {std::pair{test_kernel::kHeap, ERR_NO_MEMORY}, {test_kernel::kSemCreate, -1}}) {
        test_kernel::fail_call(1, kind);
        EXPECT_EQ(init_address_cache(), status);
    }
    EXPECT_EQ(gAddressCache, before);
}

}  // namespace
