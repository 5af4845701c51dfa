// SPDX-License-Identifier: MIT
//
// An ordered list of the caller's items; search, insert and delete take O(log n) comparisons.
// platform/skiplist.cc serves any port; a kernel that has such a list already may stand behind these
// declarations itself.
//
// - The list holds pointers to items and owns nothing but its own nodes. Items that compare equal can't stand
//   in one list. What the compare function reads of an item must not change while the item is in the list.
// - No operation locks: whoever shares a list guards it. Readers (search, count, for_each) may run beside
//   each other.
// - Thread level only. new and insert reach the heap and may block there, delete and free give back to it.
// - `list` is never null, except for skiplist_free.

#ifndef ZARN_PLATFORM_SKIPLIST_H
#define ZARN_PLATFORM_SKIPLIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct skiplist skiplist;

// Makes an empty list, or returns null when there is no memory, `compare` is null or `flags` is not 0.
//
// `compare(item, key)` always gets a stored item first and the key second, in a search, a delete and an
// insert (where the new item is the key). Negative: the item stands before the key; 0: equal; positive:
// behind. It may write to either, as long as the order stays the same. `free_item(item)`, if not null, is
// called for every item that skiplist_delete or skiplist_free takes out. The list doesn't touch the item
// afterwards, and its result is ignored. With a null `free_item` the items live on.
skiplist *skiplist_new(int32_t (*compare)(const void *item, const void *key),
                       int32_t (*free_item)(void *item), uint32_t flags);

// Calls `free_item`, if any, on every item in order, then destroys the list. Compares nothing, and with a
// null `free_item` touches no item: they may be gone already. Null is ignored.
void skiplist_free(skiplist *list);

// 1 when `item` was inserted. -1 when an item that compares equal is there, 0x80000000 when there is no
// memory; both leave the list as it was and the item the caller's.
int32_t skiplist_insert(skiplist *list, void *item);

// Takes out the item that equals `key` and calls `free_item` on it, after the list has forgotten it, so
// `free_item` may use the list. `key` is not read after that, so it may be the item itself. 0, or -1 when
// nothing equals `key`.
int32_t skiplist_delete(skiplist *list, const void *key);

// The item that equals `key`, or null. `key` stands in for an item in `compare` and needs only what that
// reads. A search that finds nothing in a list that isn't empty ends at the lowest level with a comparison of
// the key and the item next to the key's place: the one behind it or, at the end of the list, the last one.
// No comparison is left out because the same item was compared on a higher level.
void *skiplist_search(skiplist *list, const void *key);

// Calls `function(item, argument)` on every item in order and ignores the results. The function may release
// the item's memory if the list is freed next, with a null `free_item`. It must not change the list.
void skiplist_for_each(skiplist *list, int32_t (*function)(void *item, void *argument), void *argument);

// The number of items.
int32_t skiplist_count(skiplist *list);

#ifdef __cplusplus
}
#endif

#endif
