// SPDX-License-Identifier: MIT
//
// The skip list behind platform/skiplist.h, for any port: it needs the heap and nothing else.
//
//     level 2  head ------------------------> D ---------------> null
//     level 1  head --------> B ------------> D ---------------> null
//     level 0  head --> A --> B --> C ------> D --> E --> F ---> null
//
// A node reaches each further level with a chance of 1 in 4. The chances come from a generator inside the
// list that always starts at the same value: two runs of a program build the same lists and compare the same
// items.

#include "platform/skiplist.h"

#include "platform/libc.h"

namespace {

constexpr int32_t kMaxLevels = 16;  // 4^16 is all that an int32 count can tell
constexpr uint32_t kFirstChance = 0x9e3779b9;
constexpr int32_t kDuplicate = -1;
constexpr int32_t kNotFound = -1;
constexpr int32_t kNoMemory = static_cast<int32_t>(0x80000000);

struct node {
    void *item;
    node *next[1];  // as many as the node has levels
};

}  // namespace

struct skiplist {
    int32_t (*compare)(const void *item, const void *key);
    int32_t (*free_item)(void *item);
    uint32_t chance;
    int32_t count;
    int32_t levels;  // in use, 1 or more
    node *first[kMaxLevels];
};

namespace {

// The next links of `at`, or those of the list's head when `at` is null.
node **links(skiplist *list, node *at) {
    return at ? at->next : list->first;
}

// How many levels a new node gets. One more than the list has, at most: a lucky draw must not make a short
// list tall.
int32_t draw_levels(skiplist *list) {
    uint32_t x = list->chance;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    list->chance = x;
    int32_t levels = 1;
    while ((x & 3) == 0 && levels <= list->levels && levels < kMaxLevels) {
        levels++;
        x >>= 2;
    }
    return levels;
}

// Stores in `before` the last node in front of the key's place on each level, null for the head. Returns the
// node that equals the key, or null.
node *find_place(skiplist *list, const void *key, node **before) {
    node *at = nullptr;
    node *equal = nullptr;
    for (int32_t level = list->levels - 1; level >= 0; level--) {
        for (node *next; (next = links(list, at)[level]) != nullptr && next != equal; at = next) {
            int32_t order = list->compare(next->item, key);
            if (order == 0) equal = next;
            if (order >= 0) break;
        }
        before[level] = at;
    }
    return equal;
}

}  // namespace

skiplist *skiplist_new(int32_t (*compare)(const void *item, const void *key),
                       int32_t (*free_item)(void *item), uint32_t flags) {
    if (!compare || flags != 0) return nullptr;
    skiplist *list = static_cast<skiplist *>(malloc(sizeof(skiplist)));
    if (!list) return nullptr;
    *list = {compare, free_item, kFirstChance, 0, 1, {}};
    return list;
}

void skiplist_free(skiplist *list) {
    if (!list) return;
    for (node *at = list->first[0]; at != nullptr;) {
        node *next = at->next[0];
        if (list->free_item) list->free_item(at->item);
        free(at);
        at = next;
    }
    free(list);
}

int32_t skiplist_insert(skiplist *list, void *item) {
    node *before[kMaxLevels] = {};  // the head on a level that comes into use
    if (find_place(list, item, before)) return kDuplicate;

    int32_t levels = draw_levels(list);
    node *added =
        static_cast<node *>(malloc(sizeof(node) + static_cast<size_t>(levels - 1) * sizeof(node *)));
    if (!added) return kNoMemory;
    added->item = item;
    for (int32_t level = 0; level < levels; level++) {
        node **link = &links(list, before[level])[level];
        added->next[level] = *link;
        *link = added;
    }
    if (list->levels < levels) list->levels = levels;
    list->count++;
    return 1;
}

int32_t skiplist_delete(skiplist *list, const void *key) {
    node *before[kMaxLevels];
    node *found = find_place(list, key, before);
    if (!found) return kNotFound;

    for (int32_t level = 0; level < list->levels; level++) {
        node **link = &links(list, before[level])[level];
        if (*link == found) *link = found->next[level];
    }
    while (list->levels > 1 && !list->first[list->levels - 1])
        list->levels--;
    list->count--;
    void *item = found->item;
    free(found);
    if (list->free_item) list->free_item(item);
    return 0;
}

void *skiplist_search(skiplist *list, const void *key) {
    node *at = nullptr;
    for (int32_t level = list->levels - 1; level >= 0; level--) {
        for (node *next; (next = links(list, at)[level]) != nullptr; at = next) {
            int32_t order = list->compare(next->item, key);
            if (order == 0) return next->item;
            if (order > 0) break;
        }
    }
    // At the end of the list nothing was left to compare on the lowest level; the promise of the header
    // stands there too.
    if (at && !at->next[0]) list->compare(at->item, key);
    return nullptr;
}

void skiplist_for_each(skiplist *list, int32_t (*function)(void *item, void *argument), void *argument) {
    for (node *at = list->first[0]; at != nullptr;) {
        node *next = at->next[0];
        function(at->item, argument);
        at = next;
    }
}

int32_t skiplist_count(skiplist *list) {
    return list->count;
}
