// SPDX-License-Identifier: MIT
//
// An ordered list of the caller's items with searches in O(log n). The list holds pointers and owns nothing
// but its nodes.

#ifndef ZARN_PLATFORM_SKIPLIST_H
#define ZARN_PLATFORM_SKIPLIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct skiplist skiplist;

skiplist *skiplist_new(int32_t (*compare)(const void *item, const void *key),
                       int32_t (*free_item)(void *item), uint32_t flags);
void skiplist_free(skiplist *list);
int32_t skiplist_insert(skiplist *list, void *item);
int32_t skiplist_delete(skiplist *list, const void *key);
void *skiplist_search(skiplist *list, const void *key);
void skiplist_for_each(skiplist *list, int32_t (*function)(void *item, void *argument), void *argument);
int32_t skiplist_count(skiplist *list);

#ifdef __cplusplus
}
#endif

#endif
