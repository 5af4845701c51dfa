// SPDX-License-Identifier: MIT

#include "module/allocator.h"

#include <zarn/status.h>

#include "platform/kern.h"
#include "platform/libc.h"

pool_allocator gMP;

static constexpr uint32_t kAnyKernelAddress = 4;
static constexpr uint32_t kResidentContiguous = 3;
static constexpr uint32_t kReadWrite = 3;

int32_t init_mempool() {
    void *start = nullptr;
    int32_t region = kern_region_create("zarn_mempool", &start, kAnyKernelAddress, kRegionBytes,
                                        kResidentContiguous, kReadWrite);
    gMP.region = region;
    if (region < 0) return region;

    gMP.start = start;
    gMP.end = (uint8_t *)start + kRegionBytes;
    gMP.large_pool = gMP.medium_pool = gMP.small_pool = nullptr;
    gMP.large_base = start;
    gMP.large_pool = new_mempool(gMP.large_base, kLargeBlock, kLargeBlocks);
    if (gMP.large_pool == nullptr) goto no_large_pool;

    gMP.medium_base = (uint8_t *)gMP.large_base + kLargeBlock * kLargeBlocks;
    gMP.medium_pool = new_mempool(gMP.medium_base, kMediumBlock, kMediumBlocks);
    if (gMP.medium_pool == nullptr) goto no_medium_pool;

    gMP.small_base = (uint8_t *)gMP.medium_base + kMediumBlock * kMediumBlocks;
    gMP.small_pool = new_mempool(gMP.small_base, kSmallBlock, kSmallBlocks);
    if (gMP.small_pool == nullptr) goto no_small_pool;
    return 0;

no_small_pool:
    delete_mempool(gMP.medium_pool);
no_medium_pool:
    delete_mempool(gMP.large_pool);
no_large_pool:
    kern_region_delete(region);
    gMP = {};  // a later request must find the heap, not a pool that is gone
    return ERR_NO_MEMORY;
}

int32_t uninit_mempool() {
    if (gMP.large_pool != nullptr) delete_mempool(gMP.large_pool);
    if (gMP.medium_pool != nullptr) delete_mempool(gMP.medium_pool);
    if (gMP.small_pool != nullptr) delete_mempool(gMP.small_pool);
    return kern_region_delete(gMP.region);
}

static inline mempool_t *pool_for(uint32_t size) {
    if (size <= kSmallBlock) return gMP.small_pool;
    if (size <= kMediumBlock) return gMP.medium_pool;
    if (size <= kLargeBlock) return gMP.large_pool;
    return nullptr;
}

void *zarn_falloc(uint32_t size) {
    mempool_t *pool = pool_for(size);
    if (pool != nullptr) {
        void *block = mp_alloc(pool);
        if (block != nullptr) return block;
    }
    return malloc(size);
}

void *zarn_zalloc(uint32_t size) {
    void *block = zarn_falloc(size);
    if (block != nullptr) memset(block, 0, size);
    return block;
}

void *zarn_malloc(uint32_t size) {
    // Callers take null for out of memory, and some ask for an array of no elements.
    return calloc(size != 0 ? size : 1, 1);
}

void zarn_free(void *block) {
    if (block < gMP.start || block >= gMP.end) {
        free(block);
    } else if (block >= gMP.small_base) {
        mp_free(gMP.small_pool, block);
    } else if (block >= gMP.medium_base) {
        mp_free(gMP.medium_pool, block);
    } else {
        mp_free(gMP.large_pool, block);
    }
}
