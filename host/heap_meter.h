// SPDX-License-Identifier: MIT
//
// Counts what the loaded utility module asks of the heap. A kernel's loader binds a module's `malloc` to the
// kernel's heap; here the dynamic linker bound it to the C library's, and the meter puts a counting function
// in between. So the figures are those of the module alone: neither the program nor the protocols count.
//
// The module's allocator asks the heap for an uninitialised block only when the pool of that size has run
// dry, or when no pool is for that size: that is what a fall-back is.

#ifndef ZARN_HOST_HEAP_METER_H
#define ZARN_HOST_HEAP_METER_H

#include <zarn/zarn_util.h>

#include <array>
#include <cstddef>
#include <cstdint>

enum pool_index { kSmallPool, kMediumPool, kLargePool, kPools };

struct pool_state {
    const char *name;
    uint32_t block_size;
    uint32_t blocks;      // in the pool
    uint32_t out;         // of these, not in the pool now
    uint64_t fall_backs;  // requests of this size that went to the heap since the module was loaded
};

// Puts the meter into the module that the record belongs to; it goes with the module's mapping. Requests of
// `uncounted` bytes, which its profiler makes for its records, are no fall-backs. Returns 0, or -1 when the
// module calls no `malloc` that could be counted.
int32_t install_heap_meter(const zarn_util_module_t *util, size_t uncounted = 0);

// How often the module went to the heap at interrupt level, where it must not.
uint64_t heap_calls_at_interrupt_level();

// The state of the module's three pools. What is out is found by taking every block that is left and giving
// it back, so nothing else may use the module meanwhile. The second one waits for blocks that are on their
// way back: at most a second, and not at all once all are there.
std::array<pool_state, kPools> peek_pools(const zarn_util_module_t *util);
std::array<pool_state, kPools> measure_pools(const zarn_util_module_t *util);

#endif
