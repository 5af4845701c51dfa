// SPDX-License-Identifier: MIT
//
// The address cache: the physical runs of ranges that somebody has wired, to be read at any time with one
// hash lookup and no call of the kernel.
//
// - Thread level, every function: the lock may block. It is held for list work only, never across the
//   allocator or the kernel's map.
// - A spec does not change between its entry and its end. Whoever finds one under the lock may read it until
//   the unlock; only the holder of the spec, who gives it to `free_address_spec`, may keep it longer.
// - The cache wires nothing: the runs are true for as long as the holder keeps the memory wired.
//
// A range is entered in the bucket of each stride that it touches, so that a lookup searches one chain:
//
//     buckets:   ... |    5    |    6    |    7    | ...      stride numbers, modulo the number of buckets
//                         |         |         |
//                      links[0]  links[1]  links[2]           of one spec, whose range begins in stride 5
//                         |         |         |
//                       older     older     older             links of other specs

#ifndef ZARN_MEMORY_ADDRESS_CACHE_H
#define ZARN_MEMORY_ADDRESS_CACHE_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/memory_run.h>

constexpr uint32_t kPageShift = 12;
constexpr uint32_t kStrideShift = 14;
constexpr uint32_t kAddressBuckets = 1024;

struct address_spec;

// One place of a spec in the chain of one bucket.
struct address_link {
    address_link *next;   // first, so that `prev` of the next link can point here as it points at a bucket
    address_link **prev;  // the word that points to this link
    address_spec *spec;
};

// One cached range. Behind the record, in the same block, lie the runs, one for each page that the range
// touches, and then the links, one for each stride. The counts are not stored: they follow from the bounds.
struct address_spec {
    uintptr_t start;  // first address
    uintptr_t end;    // last address
    int32_t thread;   // whom the entry holds for; 0 for every thread

    uint32_t count_runs() const { return (uint32_t)((end >> kPageShift) - (start >> kPageShift)) + 1; }
    uint32_t count_links() const { return (uint32_t)((end >> kStrideShift) - (start >> kStrideShift)) + 1; }

    // Fewer than there is room for when the kernel found pages that lie together: a size of 0 ends them.
    memory_run *runs() { return (memory_run *)(this + 1); }
    address_link *links() { return (address_link *)(runs() + count_runs()); }
};

static_assert(sizeof(address_spec) == (sizeof(void *) == 4 ? 12 : 24));
static_assert(sizeof(address_link) == 3 * sizeof(void *) && offsetof(address_link, next) == 0);
static_assert(alignof(memory_run) <= alignof(address_spec) && alignof(address_link) <= alignof(memory_run));
// The commonest range, within one page, is one small block.
static_assert(sizeof(address_spec) + sizeof(memory_run) + sizeof(address_link) ==
              (sizeof(void *) == 4 ? 32 : 64));

struct address_cache_t {
    int32_t sem;    // constant; where those who wait for the lock sleep
    int32_t count;  // atomic; threads inside the lock or on their way in

    // Constant
    uint32_t bucket_count;
    uint32_t shift;          // an address shifted right by it is its stride's number
    uint32_t stride;         // bytes
    uint32_t mask;           // from a stride's number to its bucket
    address_link **buckets;  // directly behind the record; what they hold is under the lock
};

static_assert(offsetof(address_cache_t, buckets) == 24 && sizeof(address_cache_t) == 24 + sizeof(void *));

// Constant while the module is in service.
extern address_cache_t *gAddressCache;

// Makes the cache, empty. 0, ERR_NO_MEMORY, or -1 when the semaphore can't be had, with nothing left.
int32_t init_address_cache();

// Ends it, with nobody inside the lock. Specs that still exist are not touched.
void uninit_address_cache();

// Not recursive.
void lock_address_cache();
void unlock_address_cache();

// The spec entered last among those that hold the whole range and are `thread`'s or everybody's; null for
// none. The caller holds the lock.
address_spec *lookup_address_spec(void *addr, uint32_t length, int32_t thread);

// A table of runs on its way to be filled: the next entry, and how many are left.
struct run_table {
    memory_run *next;
    uint32_t left;
};

// Fills entries with the `length` bytes behind `position` of the range that the runs stand for, one entry a
// run, and none beyond the first run of size 0. Returns the bytes that found a place: fewer than `length`
// when the entries or the runs have come to their end. Even no bytes take an entry.
uint32_t fill_run_table(run_table *table, const memory_run *runs, uint32_t run_count, uint32_t position,
                        uint32_t length);

extern "C" {

// Operations of the table: see <zarn/zarn_util.h>.
address_spec *cache_address_spec(void *addr, uint32_t length, int32_t thread);
void free_address_spec(address_spec *spec);
int32_t get_cached_memory_map(void *addr, uint32_t length, memory_run *table, uint32_t count);
}

#endif
