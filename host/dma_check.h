// SPDX-License-Identifier: MIT
//
// What a driver does before it hands a buffer to hardware, as a check of the module: the buffer is wired, its
// memory map is asked for, and the bytes of its runs are counted against those of the buffer. Where the runs
// lie is not looked at: the program can't read physical memory.
//
// Thread level only: wiring may block.

#ifndef ZARN_HOST_DMA_CHECK_H
#define ZARN_HOST_DMA_CHECK_H

#include <zarn/zarn_util.h>

#include <cstdint>

struct dma_counts {
    uint64_t buffers = 0;  // that were mapped; those without bytes need no map
    uint64_t runs = 0;     // of physical memory, in all of these
    uint64_t faults = 0;   // buffers that could not be wired or whose map is not theirs
};

// Wires the buffer, maps it without asking the kernel, and unwires it. The first fault is told on stderr.
void check_dma(zarn_util_module_t *util, zarn_data_t *data, dma_counts *counts);

#endif
