// SPDX-License-Identifier: MIT
//
// A run of physical memory: what a virtual range becomes when the kernel maps it for hardware.

#ifndef ZARN_MEMORY_RUN_H
#define ZARN_MEMORY_RUN_H

#include <stdint.h>

typedef struct memory_run {
    uintptr_t address;  // physical address of the first byte
    uint32_t size;      // bytes; 0 in the first entry of a table means that the range has no mapping
} memory_run;

#ifdef __cplusplus
static_assert(sizeof(memory_run) == 2 * sizeof(void *));  // the kernel writes tables of them
#endif

#endif
