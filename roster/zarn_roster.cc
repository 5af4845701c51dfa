// SPDX-License-Identifier: MIT

#include "roster/zarn_roster.h"

#include <zarn/module.h>
#include <zarn/status.h>

#include "module/allocator.h"
#include "module/tallylock.h"
#include "platform/skiplist.h"
#include "roster/family_cache.h"

static zarn_tallylock_t gFamCacheLock;

int32_t init_roster() {
    gFamilyCaches = skiplist_new(compare_family_caches, free_family_cache, 0);
    if (gFamilyCaches == nullptr) {
        kern_log("zarn_util: init_roster(): failed to create family cache skiplist\n");
        return -1;
    }
    if (zarn_create_tallylock(&gFamCacheLock, "module roster") < 0) {
        kern_log("zarn_util: init_roster(): failed to create family cache lock\n");
        skiplist_free(gFamilyCaches);
        return -1;
    }
    return 0;
}

static int32_t print_cache_callback(void *item, void *) {
    const auto *cache = (const family_cache *)item;
    kern_log(
        "zarn_util: uninit_roster() called with family %d still loaded (%ld references outstanding)!!!\n",
        (int)cache->family, (long)cache->ref_count);
    return 0;
}

int32_t uninit_roster() {
    if (zarn_lock_tallylock(&gFamCacheLock) != 0) return -1;
    if (skiplist_count(gFamilyCaches) != 0) {
        skiplist_for_each(gFamilyCaches, print_cache_callback, nullptr);
        zarn_unlock_tallylock(&gFamCacheLock);
        return -1;
    }
    skiplist_free(gFamilyCaches);
    // Deleted while held: whoever waits for it, or comes later, gets the lock's error and never sees the
    // freed list.
    zarn_delete_tallylock(&gFamCacheLock);
    return 0;
}

// Acquires all modules of the stack or none of them. Returns 0 or -1.
static int32_t load_stack(stack_cache *stack) {
    if (stack->type != kStackIn) {
        stack->modules = zarn_malloc((uint32_t)stack->module_count * (uint32_t)sizeof(void *));
        if (stack->modules == nullptr) return -1;
    }
    void **tables = module_slots(stack);
    for (int32_t i = 0; i < stack->module_count; ++i) {
        const module_path path(stack->module_names[i]);
        if (kern_module_acquire(path.text, &tables[i]) == 0) continue;

        kern_log("zarn_util: unable to load zarn module %s\n", path.text);
        while (--i >= 0)
            kern_module_release(((const module_head *)tables[i])->name);
        if (stack->type != kStackIn) zarn_free(stack->modules);
        stack->modules = nullptr;
        return -1;
    }
    stack->loaded = 1;
    return 0;
}

static family_cache *find_family_locked(uint32_t family) {
    return (family_cache *)skiplist_search(gFamilyCaches, &family);
}

static void drop_family_locked(uint32_t family) {
    skiplist_delete(gFamilyCaches, &family);
}

// Copied out of the stack's record under the lock, because the record may be gone as soon as the lock is
// free.
struct found_modules {
    void *modules;  // as in stack_cache
    int32_t count;
};

// Finds the stack of `key`, with the family and the stack loaded if they aren't yet. A stack that isn't
// inbound comes with a new reference on the family. On failure `*found` is untouched.
static int32_t get_stack(uint32_t family, const stack_key &key, found_modules *found) {
    if (zarn_lock_tallylock(&gFamCacheLock) != 0) return -1;

    stack_cache *stack;
    int32_t status = 0;
    family_cache *cache = find_family_locked(family);
    if (cache == nullptr) {
        status = cache_family(family, &cache);
        if (status != 0) goto unlock;
    }

    stack = (stack_cache *)skiplist_search(cache->stacks, &key);
    if (stack == nullptr) {
        status = ERR_NO_STACK;
    } else if (!stack->loaded) {
        kern_log("zarn_util: loading stack %x %d %d %d\n", (unsigned)family, (int)stack->type,
                 (int)stack->key1, (int)stack->key2);
        status = load_stack(stack);
    }
    if (status == 0 && stack->type != kStackIn) ++cache->ref_count;

    if (cache->ref_count == 0) {
        // Nobody holds the family, so it doesn't stay. What was found is let go of with it: an inbound table
        // that the caller has no reference for must not be handed out.
        drop_family_locked(family);
        if (status == 0) status = -1;
    } else if (status == 0) {
        *found = {stack->modules, stack->module_count};
    }

unlock:
    zarn_unlock_tallylock(&gFamCacheLock);
    return status;
}

int32_t get_outbound_protos(uint8_t dl, int32_t family, int32_t key1, int32_t key2, void ***tables,
                            int32_t *count) {
    if (tables == nullptr || count == nullptr) return ERR_BAD_VALUE;
    found_modules found;
    const stack_key key = {dl ? kStackDatalink : kStackOut, (uint32_t)key1, key2};
    const int32_t status = get_stack((uint32_t)family, key, &found);
    if (status != 0) return status;
    *tables = (void **)found.modules;
    *count = found.count;
    return 0;
}

int32_t get_inbound_proto(int32_t family, int32_t key2, void **table) {
    if (table == nullptr) return ERR_BAD_VALUE;
    found_modules found;
    const int32_t status = get_stack((uint32_t)family, {kStackIn, 0, key2}, &found);
    if (status != 0) return status;
    *table = found.modules;
    return 0;
}

int32_t get_family_ref(int32_t family) {
    if (zarn_lock_tallylock(&gFamCacheLock) != 0) return -1;
    int32_t status = 0;
    if (family_cache *cache = find_family_locked((uint32_t)family)) {
        ++cache->ref_count;
    } else {
        kern_log("zarn_util: get_family_ref(%d) called, but family %d isn't loaded!\n", (int)family,
                 (int)family);
        status = -1;
    }
    zarn_unlock_tallylock(&gFamCacheLock);
    return status;
}

int32_t release_family_ref(int32_t family) {
    if (zarn_lock_tallylock(&gFamCacheLock) != 0) return -1;
    int32_t status = 0;
    if (family_cache *cache = find_family_locked((uint32_t)family)) {
        if (--cache->ref_count == 0) drop_family_locked((uint32_t)family);
    } else {
        kern_log("zarn_util: release_family_ref(%d) called, but family %d isn't loaded!\n", (int)family,
                 (int)family);
        status = -1;
    }
    zarn_unlock_tallylock(&gFamCacheLock);
    return status;
}
