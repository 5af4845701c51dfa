// SPDX-License-Identifier: MIT
//
// The family cache: what the `domains` section of zarn.conf says about one address family, one record per
// stack.
//
//     gFamilyCaches -> family_cache -> stacks: stack_cache, stack_cache, ...
//                          |                        | module_names[i]
//                          names                    v
//                          +--> copied_name ---> "alpha"   (one copy per family, however many stacks name it)
//                          +--> copied_name ---> "gamma"
//
// - Everything here is guarded by the roster's lock, `gFamCacheLock`; it is held across all functions of
//   this file.
// - A family owns copies of all that it keeps: the settings are closed again before it is used.
// - The skip lists give items to their free functions and don't touch them afterwards, so a record's own
//   memory is the last thing that its free function releases.
// - Modules are acquired by the lookup (roster/zarn_roster.cc) and released when their family goes.

#ifndef ZARN_ROSTER_FAMILY_CACHE_H
#define ZARN_ROSTER_FAMILY_CACHE_H

#include <stddef.h>
#include <stdint.h>

#include "platform/kern.h"
#include "platform/skiplist.h"

// What a stack is for. The values are those of `stack_cache.type` and the order in which the sections are
// read.
enum stack_type : uint32_t { kStackIn = 0, kStackOut = 1, kStackDatalink = 2 };
constexpr int kStackTypes = 3;

// As a stored key2 it answers to every key2 of its (type, key1) group, as a key2 looked up it takes any of
// the group.
constexpr uint32_t kAnyKey2 = 0xffffffff;

// One copied module name.
struct copied_name {
    char *name;         // from strdup; first, because compare_names reads it
    copied_name *next;  // on the family's `names`
};

// One address family.
struct family_cache {
    uint32_t family;     // first: a search passes the address of a bare family number
    skiplist *stacks;    // of stack_cache
    int32_t ref_count;   // references outstanding; at least 1 whenever the roster's lock is free
    copied_name *names;  // every module name of the family
};

// What a stack is searched by.
struct stack_key {
    uint32_t type;
    uint32_t key1;  // 0 for kStackIn
    int32_t key2;
};

// One configured stack. The leading fields are those of stack_key, so that a key can stand in for a record.
struct stack_cache {
    uint32_t type;
    uint32_t key1;
    int32_t key2;
    uint8_t loaded;             // all modules are held
    int32_t module_count;       // 0 or more
    const char **module_names;  // in the order of the settings; the strings are the family's
    void *modules;  // kStackIn: the table of its one module; otherwise an array of `module_count` tables
};

static_assert(offsetof(family_cache, family) == 0 && offsetof(copied_name, name) == 0);
static_assert(offsetof(stack_cache, type) == offsetof(stack_key, type));
static_assert(offsetof(stack_cache, key1) == offsetof(stack_key, key1));
static_assert(offsetof(stack_cache, key2) == offsetof(stack_key, key2));
static_assert(sizeof(family_cache) == (sizeof(void *) == 4 ? 16 : 32));
static_assert(sizeof(stack_cache) == (sizeof(void *) == 4 ? 28 : 40));
static_assert(sizeof(copied_name) == 2 * sizeof(void *));

// Path of a protocol module. A name that doesn't fit is cut, for the load and the release alike.
struct module_path {
    explicit module_path(const char *module_name);
    char text[128];
};

// The families that are loaded; null before the roster starts.
extern skiplist *gFamilyCaches;

// Order of `gFamilyCaches`, and the end of a family: releases its modules, stacks, names and the record.
int32_t compare_family_caches(const void *a, const void *b);
int32_t free_family_cache(void *item);

// Reads the section of `family`, which must not be cached, and stores the new record of `gFamilyCaches` in
// `*out`, with no reference and no stack loaded. Bad entries cost only themselves. On failure `*out` is
// untouched and nothing is left:
//
//     ERR_NO_FAMILY    the settings have no section for the family
//     ERR_NO_MEMORY    out of memory
//     -1               no settings file, or a skip list that refuses
int32_t cache_family(uint32_t family, family_cache **out);

// Where a stack's module tables are stored: `module_count` slots.
inline void **module_slots(stack_cache *stack) {
    return stack->type == kStackIn ? &stack->modules : (void **)stack->modules;
}

#endif
