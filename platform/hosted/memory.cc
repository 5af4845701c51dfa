// SPDX-License-Identifier: MIT
//
// Regions, and physical memory as far as a process has it: every page maps to itself, one run a page, and is
// always there when it is touched, so locking only looks whether the range is mapped and keeps the tally.

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/hosted/internal.h"

namespace {

constexpr uint32_t kAnyAddress = 4;
constexpr uint32_t kRead = 1;
constexpr uint32_t kWrite = 2;

struct region {
    int32_t id;
    void *address;
    size_t size;
    char name[32];
    region *next;
};

hosted::lock gRegions;
// Under gRegions.
region *gFirst;
int32_t gLastId;
int32_t gCount;

int32_t gLockedRanges;  // atomic

uintptr_t page_size() {
    static const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    return size;
}

bool is_mapped(uintptr_t page) {
    unsigned char resident;
    return mincore(reinterpret_cast<void *>(page), page_size(), &resident) == 0;
}

// Whether all of the range is mapped and doesn't run over the end of the address space.
bool range_is_mapped(const void *address, uint32_t length) {
    uintptr_t first = reinterpret_cast<uintptr_t>(address), last;
    if (length == 0) return true;
    if (__builtin_add_overflow(first, length - 1, &last)) return false;
    for (uintptr_t page = first & ~(page_size() - 1); is_mapped(page); page += page_size())
        if (last - page < page_size()) return true;
    return false;
}

}  // namespace

int32_t kern_region_create(const char *name, void **address, uint32_t address_spec, uint32_t size, uint32_t,
                           uint32_t protection) {
    if (!address || address_spec != kAnyAddress || size == 0 || size > UINT32_MAX - page_size() ||
        (protection & ~(kRead | kWrite)))
        return KERN_ERR_BAD_VALUE;
    region *made = static_cast<region *>(malloc(sizeof(region)));
    if (!made) return KERN_ERR_NO_MEMORY;
    size_t whole = (size + page_size() - 1) & ~(page_size() - 1);
    int bits = (protection & kRead ? PROT_READ : 0) | (protection & kWrite ? PROT_WRITE : 0);
    void *memory = mmap(nullptr, whole, bits, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        free(made);
        return KERN_ERR_NO_MEMORY;
    }
    *made = {0, memory, whole, "", nullptr};
    hosted::copy_name(made->name, sizeof(made->name), name);
    hosted::guard held(gRegions);
    made->id = ++gLastId;
    made->next = gFirst;
    gFirst = made;
    gCount++;
    *address = memory;
    return made->id;
}

int32_t kern_region_delete(int32_t id) {
    region *found = nullptr;
    {
        hosted::guard held(gRegions);
        region **link = &gFirst;
        while (*link && (*link)->id != id)
            link = &(*link)->next;
        found = *link;
        if (found) {
            *link = found->next;
            gCount--;
        }
    }
    if (!found) {
        hosted::complain("delete: no region %d", id);
        return KERN_ERR_BAD_REGION;
    }
    if (munmap(found->address, found->size) != 0) hosted::broken("munmap", errno);
    free(found);
    return 0;
}

int32_t kern_memory_lock(void *address, uint32_t length, uint32_t) {
    if (!range_is_mapped(address, length)) return KERN_ERR_BAD_ADDRESS;
    __atomic_fetch_add(&gLockedRanges, 1, __ATOMIC_RELAXED);
    return 0;
}

int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t) {
    if (!range_is_mapped(address, length)) return KERN_ERR_BAD_ADDRESS;
    if (__atomic_fetch_sub(&gLockedRanges, 1, __ATOMIC_RELAXED) <= 0) {
        __atomic_fetch_add(&gLockedRanges, 1, __ATOMIC_RELAXED);
        hosted::complain("unlock: %u bytes at %p, and nothing is locked", static_cast<unsigned>(length),
                         address);
        return KERN_ERR_BAD_VALUE;
    }
    return 0;
}

int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries) {
    if (entries <= 0) return KERN_ERR_BAD_VALUE;
    table[0] = {0, 0};
    uintptr_t at = reinterpret_cast<uintptr_t>(address), end;
    if (__builtin_add_overflow(at, length, &end)) return KERN_ERR_BAD_ADDRESS;
    int32_t filled = 0;
    while (at < end && filled < entries) {
        uintptr_t page = at & ~(page_size() - 1);
        if (!is_mapped(page)) {
            table[0] = {0, 0};
            return KERN_ERR_BAD_ADDRESS;
        }
        uintptr_t in_page = page_size() - (at - page);
        uint32_t size = static_cast<uint32_t>(end - at < in_page ? end - at : in_page);
        table[filled++] = {at, size};
        at += size;
    }
    return filled;
}

namespace hosted {

void count_memory(hosted_counts *counts) {
    counts->locked_ranges = __atomic_load_n(&gLockedRanges, __ATOMIC_RELAXED);
    guard held(gRegions);
    counts->regions = gCount;
}

int32_t log_regions() {
    guard held(gRegions);
    for (region *at = gFirst; at; at = at->next)
        kern_log("kernel: region %d, \"%s\", %lu bytes\n", at->id, at->name,
                 static_cast<unsigned long>(at->size));
    return gCount;
}

}  // namespace hosted
