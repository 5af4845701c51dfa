// SPDX-License-Identifier: MIT
#include "platform/skiplist.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <set>
#include <vector>

namespace {

// What the list compared and released, in order.
std::vector<int> gCompared, gFreed;
const int *gKey;
skiplist *gList;  // while it is whole

int32_t compare_ints(const void *item, const void *key) {
    gCompared.push_back(*static_cast<const int *>(item));
    EXPECT_TRUE(!gKey || key == gKey) << "the stored item comes first, the key second";
    int a = *static_cast<const int *>(item), b = *static_cast<const int *>(key);
    return a < b ? -1 : a > b;
}

int32_t free_int(void *item) {
    gFreed.push_back(*static_cast<int *>(item));
    if (gList != nullptr) {
        gKey = static_cast<int *>(item);
        EXPECT_EQ(skiplist_search(gList, item), nullptr) << "it is out before it is freed";
    }
    delete static_cast<int *>(item);
    return -5;
}

int32_t collect(void *item, void *argument) {
    static_cast<std::vector<int> *>(argument)->push_back(*static_cast<int *>(item));
    return -1;  // is ignored
}

TEST(skiplist, agrees_with_a_set_over_random_operations) {
    for (unsigned seed = 1; seed <= 8; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        std::set<int> model;
        skiplist *list = skiplist_new(compare_ints, free_int, 0);
        gList = list;
        int range = 4 << seed;
        for (int step = 0; step < 4000; step++) {
            int value = static_cast<int>(random() % static_cast<unsigned>(range));
            gKey = &value;
            gCompared.clear();
            gFreed.clear();
            auto at = model.lower_bound(value);
            bool known = at != model.end() && *at == value;
            if (const uint32_t action = random() % 3; action == 0) {
                int *item = new int(value);
                gKey = item;
                ASSERT_EQ(skiplist_insert(list, item), known ? -1 : 1);
                if (known) delete item;
                model.insert(value);
            } else if (action == 1) {
                ASSERT_EQ(skiplist_delete(list, &value), known ? 0 : -1);
                ASSERT_EQ(gFreed, std::vector<int>(known, value));
                model.erase(value);
            } else {
                void *found = skiplist_search(list, &value);
                ASSERT_EQ(found != nullptr && *static_cast<int *>(found) == value, known);
                // The last comparison of a miss is with the next item or, at the end, the last one.
                ASSERT_TRUE(known || model.empty() ||
                            gCompared.back() == (at == model.end() ? *model.rbegin() : *at));
            }
            ASSERT_EQ(skiplist_count(list), static_cast<int32_t>(model.size()));
            if (step % 64 != 0) continue;
            std::vector<int> items;
            skiplist_for_each(list, collect, &items);
            ASSERT_EQ(items, std::vector<int>(model.begin(), model.end()));
        }
        gFreed.clear();
        gList = nullptr;
        skiplist_free(list);
        EXPECT_EQ(gFreed, std::vector<int>(model.begin(), model.end()));
    }
}

TEST(skiplist, costs_logarithmically_many_comparisons_when_items_arrive_in_order) {
    std::vector<int> items(20000);
    std::iota(items.begin(), items.end(), 0);
    skiplist *list = skiplist_new(compare_ints, nullptr, 0);
    gKey = nullptr;
    for (int &item : items)
        ASSERT_EQ(skiplist_insert(list, &item), 1);
    gCompared.clear();
    for (int &item : items)
        ASSERT_EQ(skiplist_search(list, &item), &item);
    EXPECT_LT(gCompared.size(), 43 * items.size()) << "more than three times the logarithm";
    skiplist_free(list);
    skiplist_free(nullptr);
    EXPECT_EQ(skiplist_new(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(skiplist_new(compare_ints, nullptr, 1), nullptr);
}

}  // namespace
