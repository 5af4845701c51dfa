// SPDX-License-Identifier: MIT
//
// Regions, wired memory, and physical addresses as far as a process gets to know them.
//
// Wiring is mlock: the pages stay resident. The host does not count its locks, so the tally for each page is
// kept here, and a page is let go with the last lock on it.
//
// Physical addresses come from the process's page map, true at the time of the call: the host may still move
// a wired page that no device holds. Where it doesn't tell them, or where they don't fit into a pointer, a
// page has its virtual address instead, and is a run of its own.

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/hosted/internal.h"

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22  // since Linux 5.14; an older one refuses
#endif

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

uintptr_t page_size() {
    static const uintptr_t size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    return size;
}

uintptr_t page_of(uintptr_t address) {
    return address & ~(page_size() - 1);
}

// Whole pages: `first` to the one before `end`, which is 0 when they reach to the end of the address space.
struct page_range {
    uintptr_t first, end;

    size_t bytes() const { return end - first; }
    void *start() const { return reinterpret_cast<void *>(first); }
};

// False for a range that runs over the end of the address space.
bool find_pages(const void *address, uint32_t length, page_range *pages) {
    uintptr_t first = reinterpret_cast<uintptr_t>(address), last = first;
    *pages = {page_of(first), page_of(first)};
    if (length == 0) return true;
    if (__builtin_add_overflow(first, length - 1, &last)) return false;
    pages->end = page_of(last) + page_size();
    return true;
}

bool is_mapped(page_range pages) {
    constexpr size_t kAtOnce = 256;
    unsigned char resident[kAtOnce];
    while (pages.first != pages.end) {
        const size_t bytes = std::min(pages.bytes(), kAtOnce * page_size());
        if (mincore(pages.start(), bytes, resident) != 0) return false;
        pages.first += bytes;
    }
    return true;
}

// Whoever wires or unwires may sleep in the host meanwhile, which is nothing for the kernel's own lock; nor
// is the heap.
struct wired_memory {
    std::mutex lock;
    std::unordered_map<uintptr_t, int32_t> pages;              // locks of each page
    std::map<std::pair<uintptr_t, uint32_t>, int32_t> ranges;  // of each range, by address and length
    int32_t range_count = 0;                                   // sum of those
    int32_t refusals = 0;  // locks that have failed; their callers may unlock all the same
};

// Never destroyed: threads may still call when the program ends.
wired_memory &wired() {
    static wired_memory &memory = *new wired_memory;
    return memory;
}

// In a critical section: a thread that the debugger stops doesn't hold the lock.
class wired_guard {
 private:
    hosted::section masked_;
    std::lock_guard<std::mutex> held_{wired().lock};
};

// Lets go of those pages of the range that nobody has locked.
void release_unlocked(const wired_memory &memory, page_range pages) {
    for (uintptr_t page = pages.first; page != pages.end; page += page_size())
        if (memory.pages.count(page) == 0) munlock(reinterpret_cast<void *>(page), page_size());
}

void say_once(bool *said, const char *what) {
    if (!__atomic_exchange_n(said, true, __ATOMIC_RELAXED)) kern_log("kernel: %s\n", what);
}

bool gSaidRefused, gSaidHidden, gSaidTooHigh;  // atomic

constexpr uint64_t kPresent = uint64_t{1} << 63;
constexpr uint64_t kFrameMask = (uint64_t{1} << 55) - 1;

int page_map() {
    static const int file = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
    return file;
}

// Reads the host's entries for `count` pages; 0 for those that it doesn't tell of.
void read_page_map(uintptr_t first, size_t count, uint64_t *entries) {
    std::fill_n(entries, count, 0);
    const off64_t offset = static_cast<off64_t>(first / page_size() * sizeof(uint64_t));
    const ssize_t bytes = pread64(page_map(), entries, count * sizeof(uint64_t), offset);
    for (size_t i = bytes < 0 ? 0 : static_cast<size_t>(bytes) / sizeof(uint64_t); i < count; i++)
        entries[i] = 0;
}

// The physical address of a page, or 0 for one that stays its own.
uintptr_t physical_address(uint64_t entry) {
    const uint64_t frame = entry & kPresent ? entry & kFrameMask : 0;
    if (frame == 0) {
        say_once(&gSaidHidden,
                 "memory maps show virtual addresses where /proc/self/pagemap hides the physical ones;"
                 " CAP_SYS_ADMIN lets the process see them");
        return 0;
    }
    if (frame > UINTPTR_MAX / page_size()) {
        say_once(&gSaidTooHigh,
                 "memory maps show virtual addresses for memory above 4 GiB, whose physical ones don't fit"
                 " into 32 bits");
        return 0;
    }
    return static_cast<uintptr_t>(frame * page_size());
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
    wired_memory &memory = wired();
    wired_guard held;
    page_range pages;
    if (!find_pages(address, length, &pages) || !is_mapped(pages)) {
        memory.refusals++;
        return KERN_ERR_BAD_ADDRESS;
    }
    // Pages that are locked already don't mind.
    if (mlock(pages.start(), pages.bytes()) != 0) {
        release_unlocked(memory, pages);  // it may have come a part of the way
        memory.refusals++;
        say_once(&gSaidRefused,
                 "memory could not be wired; the process may lock no more (ulimit -l), or has no access");
        return KERN_ERR_NO_MEMORY;
    }
    for (uintptr_t page = pages.first; page != pages.end; page += page_size())
        memory.pages[page]++;
    memory.ranges[{reinterpret_cast<uintptr_t>(address), length}]++;
    memory.range_count++;
    return 0;
}

int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t) {
    wired_memory &memory = wired();
    wired_guard held;
    auto range = memory.ranges.find({reinterpret_cast<uintptr_t>(address), length});
    if (range == memory.ranges.end()) {
        if (memory.refusals > 0) {
            memory.refusals--;
        } else {
            hosted::complain("unlock: %u bytes at %p aren't locked", static_cast<unsigned>(length), address);
        }
        return KERN_ERR_BAD_VALUE;
    }
    if (--range->second == 0) memory.ranges.erase(range);
    memory.range_count--;
    page_range pages;
    find_pages(address, length, &pages);
    for (uintptr_t page = pages.first; page != pages.end; page += page_size()) {
        auto locks = memory.pages.find(page);
        if (--locks->second == 0) memory.pages.erase(locks);
    }
    release_unlocked(memory, pages);
    return 0;
}

int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries) {
    if (entries <= 0) return KERN_ERR_BAD_VALUE;
    table[0] = {0, 0};
    page_range pages;
    if (!find_pages(address, length, &pages) || !is_mapped(pages)) return KERN_ERR_BAD_ADDRESS;
    // A page that was never touched has no frame yet. Where the host can't be asked to give it one, or has
    // none to give, the page counts as hidden.
    madvise(pages.start(), pages.bytes(), MADV_POPULATE_READ);

    constexpr size_t kAtOnce = 64;
    uint64_t found[kAtOnce];
    uintptr_t at = reinterpret_cast<uintptr_t>(address), behind = 0;
    int32_t filled = 0;
    for (uint32_t left = length, i = 0; left > 0; i++) {
        const uintptr_t page = page_of(at);
        if (i % kAtOnce == 0) read_page_map(page, std::min(kAtOnce, (pages.end - page) / page_size()), found);
        const uintptr_t frame = physical_address(found[i % kAtOnce]);
        const uintptr_t physical = (frame != 0 ? frame : page) + (at - page);
        const uint32_t size = std::min(left, static_cast<uint32_t>(page_size() - (at - page)));
        if (frame != 0 && physical == behind) {
            table[filled - 1].size += size;
        } else {
            if (filled == entries) break;
            table[filled++] = {physical, size};
        }
        behind = frame != 0 ? physical + size : 0;
        at += size;
        left -= size;
    }
    return filled;
}

namespace hosted {

void count_memory(hosted_counts *counts) {
    {
        wired_guard held;
        counts->locked_ranges = wired().range_count;
    }
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

int32_t log_locked_ranges() {
    wired_guard held;
    for (const auto &[range, locks] : wired().ranges)
        kern_log("kernel: %u bytes at %p, locked %d times\n", static_cast<unsigned>(range.second),
                 reinterpret_cast<void *>(range.first), locks);
    return static_cast<int32_t>(wired().ranges.size());
}

}  // namespace hosted
