// SPDX-License-Identifier: MIT
//
// Invariant: for every address of a spec's range, the bucket of that address holds a link of that spec. All
// fields of a spec are written before it is linked, under the lock, and are not written again.

#include "memory/address_cache.h"

#include <zarn/status.h>

#include "module/allocator.h"
#include "platform/kern.h"
#include "platform/libc.h"

address_cache_t *gAddressCache;

static_assert((kAddressBuckets & (kAddressBuckets - 1)) == 0);
static_assert(kStrideShift >= kPageShift);

int32_t init_address_cache() {
    const size_t bucket_bytes = kAddressBuckets * sizeof(void *);
    address_cache_t *cache = (address_cache_t *)malloc(sizeof(address_cache_t) + bucket_bytes);
    if (cache == nullptr) return ERR_NO_MEMORY;
    cache->buckets = (address_link **)(cache + 1);
    cache->sem = kern_sem_create(0, "addr_cache");
    if (cache->sem < 0) {
        free(cache);
        return -1;
    }
    cache->count = 0;  // nobody else knows the record yet
    cache->bucket_count = kAddressBuckets;
    cache->shift = kStrideShift;
    cache->stride = 1u << kStrideShift;
    cache->mask = kAddressBuckets - 1;
    memset(cache->buckets, 0, bucket_bytes);
    gAddressCache = cache;
    return 0;
}

void uninit_address_cache() {
    kern_sem_delete(gAddressCache->sem);
    free(gAddressCache);
    gAddressCache = nullptr;
}

// Invariant: `count` is the holder plus all who are on their way in. An unlock that finds somebody on the way
// leaves a unit, and the semaphore keeps it for a contender that has counted itself but not yet reached its
// acquire: the adds of the two functions are each other's partners, and no wake-up is lost. Nothing is undone
// when the semaphore fails, since it stands as long as there are clients.
void lock_address_cache() {
    if (kern_fetch_add(&gAddressCache->count, 1) > 0)
        kern_sem_acquire_ex(gAddressCache->sem, 1, 0, KERN_TIMEOUT_FOREVER);
}

void unlock_address_cache() {
    if (kern_fetch_add(&gAddressCache->count, -1) > 1)
        kern_sem_release_ex(gAddressCache->sem, 1, KERN_SEM_NO_RESCHEDULE);
}

static inline address_link **bucket_of(uintptr_t address) {
    return &gAddressCache->buckets[(address >> gAddressCache->shift) & gAddressCache->mask];
}

address_spec *lookup_address_spec(void *addr, uint32_t length, int32_t thread) {
    const uintptr_t first = (uintptr_t)addr;
    for (address_link *link = *bucket_of(first); link != nullptr; link = link->next) {
        address_spec *spec = link->spec;
        // Compared by distances: `addr` + `length` may lie beyond the end of the address space.
        if (first >= spec->start && first <= spec->end && length <= spec->end - first + 1 &&
            (spec->thread == 0 || spec->thread == thread))
            return spec;
    }
    return nullptr;
}

static inline void fill_entry(run_table *table, uintptr_t address, uint32_t size) {
    *table->next++ = {address, size};
    --table->left;
}

uint32_t fill_run_table(run_table *table, const memory_run *runs, uint32_t run_count, uint32_t position,
                        uint32_t length) {
    if (table->left == 0) return 0;
    if (position <= runs->size && length <= runs->size - position) {
        fill_entry(table, runs->address + position, length);
        return length;
    }
    const memory_run *run = runs, *end = runs + run_count;
    uint32_t distance = position;  // from the beginning of `run`
    for (; run != end && run->size != 0 && run->size <= distance; ++run)
        distance -= run->size;
    uint32_t rest = length;
    for (; run != end && run->size != 0 && table->left != 0; ++run) {
        const uint32_t in_run = run->size - distance;
        const uint32_t size = rest < in_run ? rest : in_run;
        fill_entry(table, run->address + distance, size);
        rest -= size;
        if (rest == 0) break;
        distance = 0;
    }
    return length - rest;
}

address_spec *cache_address_spec(void *addr, uint32_t length, int32_t thread) {
    address_spec bounds = {(uintptr_t)addr, 0, thread};
    if (length == 0 || __builtin_add_overflow(bounds.start, length - 1, &bounds.end)) return nullptr;
    const uint32_t run_bytes = bounds.count_runs() * (uint32_t)sizeof(memory_run);
    const uint32_t link_count = bounds.count_links();
    const uint32_t link_bytes = link_count * (uint32_t)sizeof(address_link);
    address_spec *spec = (address_spec *)zarn_falloc((uint32_t)sizeof(address_spec) + run_bytes + link_bytes);
    if (spec == nullptr) return nullptr;
    *spec = bounds;

    // The kernel fills only the runs that it needs; the others end the table.
    memset(spec->runs(), 0, run_bytes);
    kern_memory_map(addr, length, spec->runs(), (int32_t)bounds.count_runs());
    if (spec->runs()->size == 0) {
        zarn_free(spec);
        return nullptr;
    }

    address_link *links = spec->links();
    lock_address_cache();
    // The cursor starts anywhere in the first stride and lands in the next one with each step.
    uintptr_t cursor = spec->start;
    for (uint32_t i = 0; i < link_count; ++i, cursor += gAddressCache->stride) {
        address_link *link = &links[i];
        address_link **bucket = bucket_of(cursor);
        link->spec = spec;
        if (*bucket != nullptr) (*bucket)->prev = &link->next;
        link->next = *bucket;
        link->prev = bucket;
        *bucket = link;
    }
    unlock_address_cache();
    return spec;
}

void free_address_spec(address_spec *spec) {
    if (spec == nullptr) return;
    const uint32_t link_count = spec->count_links();
    address_link *links = spec->links();
    lock_address_cache();
    for (uint32_t i = 0; i < link_count; ++i) {
        if (links[i].next != nullptr) links[i].next->prev = links[i].prev;
        *links[i].prev = links[i].next;
    }
    unlock_address_cache();
    zarn_free(spec);
}

int32_t get_cached_memory_map(void *addr, uint32_t length, memory_run *table, uint32_t count) {
    const int32_t thread = kern_thread_self();
    run_table entries = {table, count};
    int32_t result = 0;
    lock_address_cache();
    address_spec *spec = lookup_address_spec(addr, length, thread);
    if (spec != nullptr) {
        const uint32_t position = (uint32_t)((uintptr_t)addr - spec->start);
        const uint32_t filled = fill_run_table(&entries, spec->runs(), spec->count_runs(), position, length);
        if (filled == length) {
            result = (int32_t)(count - entries.left);
        } else if (entries.left == 0) {
            result = -1;
        }
    }
    unlock_address_cache();
    return result;
}
