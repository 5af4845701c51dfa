// SPDX-License-Identifier: MIT
#include "platform/skiplist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

namespace {

// What the list compared and released, in order.
std::vector<int> gCompared, gFreed;
const int *gKey;

int32_t compare_ints(const void *item, const void *key) {
    gCompared.push_back(*static_cast<const int *>(item));
    EXPECT_TRUE(!gKey || key == gKey) << "the stored item comes first, the key second";
    int a = *static_cast<const int *>(item), b = *static_cast<const int *>(key);
    return a < b ? -1 : a > b;
}

int32_t free_int(void *item) {
    gFreed.push_back(*static_cast<int *>(item));
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
        ASSERT_NE(list, nullptr);
        int range = 4 << seed;
        for (int step = 0; step < 4000; step++) {
            int value = static_cast<int>(random() % static_cast<unsigned>(range));
            gKey = &value;
            gCompared.clear();
            gFreed.clear();
            auto at = model.lower_bound(value);
            bool known = at != model.end() && *at == value;
            switch (random() % 3) {
                case 0: {
                    int *item = new int(value);
                    gKey = item;
                    ASSERT_EQ(skiplist_insert(list, item), known ? -1 : 1);
                    if (known) delete item;
                    model.insert(value);
                    break;
                }
                case 1:
                    ASSERT_EQ(skiplist_delete(list, &value), known ? 0 : -1);
                    ASSERT_EQ(gFreed, known ? std::vector<int>{value} : std::vector<int>{});
                    model.erase(value);
                    break;
                default: {
                    void *found = skiplist_search(list, &value);
                    ASSERT_EQ(found != nullptr, known);
                    if (known) {
                        ASSERT_EQ(*static_cast<int *>(found), value);
                    } else if (!model.empty()) {
                        // The last comparison is with the next item or, at the end, the last one.
                        ASSERT_EQ(gCompared.back(), at == model.end() ? *model.rbegin() : *at);
                    }
                }
            }
            ASSERT_EQ(skiplist_count(list), static_cast<int32_t>(model.size()));
            if (step % 64 != 0) continue;
            std::vector<int> items;
            skiplist_for_each(list, collect, &items);
            ASSERT_EQ(items, std::vector<int>(model.begin(), model.end()));
        }
        gFreed.clear();
        skiplist_free(list);
        EXPECT_EQ(gFreed, std::vector<int>(model.begin(), model.end()));
    }
}

TEST(skiplist, costs_logarithmically_many_comparisons_in_any_order_of_arrival) {
    for (int order = 0; order < 3; order++) {
        SCOPED_TRACE(order);
        std::vector<int> items(20000);
        for (size_t i = 0; i < items.size(); i++)
            items[i] = static_cast<int>(order == 1 ? items.size() - i : i);
        if (order == 2) std::shuffle(items.begin(), items.end(), std::mt19937(7));
        skiplist *list = skiplist_new(compare_ints, nullptr, 0);
        gKey = nullptr;
        for (int &item : items)
            ASSERT_EQ(skiplist_insert(list, &item), 1);
        gCompared.clear();
        for (int &item : items)
            ASSERT_EQ(skiplist_search(list, &item), &item);
        double each = static_cast<double>(gCompared.size()) / static_cast<double>(items.size());
        EXPECT_LT(each, 3 * std::log2(static_cast<double>(items.size())));
        skiplist_free(list);
    }
}

TEST(skiplist, item_is_out_before_it_is_freed) {
    static skiplist *list;
    static int item = 5, searched;
    searched = 0;
    auto look = [](void *gone) {
        searched++;
        EXPECT_EQ(skiplist_search(list, gone), nullptr);
        EXPECT_EQ(skiplist_count(list), 0);
        return int32_t{0};
    };
    gKey = nullptr;
    list = skiplist_new(compare_ints, look, 0);
    ASSERT_EQ(skiplist_insert(list, &item), 1);
    EXPECT_EQ(skiplist_delete(list, &item), 0);
    EXPECT_EQ(searched, 1);
    skiplist_free(list);
    skiplist_free(nullptr);
    EXPECT_EQ(skiplist_new(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(skiplist_new(compare_ints, nullptr, 1), nullptr);
}

}  // namespace
