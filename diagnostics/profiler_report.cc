// SPDX-License-Identifier: MIT
//
// The debugger commands of the profiler. They run with the machine stopped, so they take no lock, allocate
// nothing and sort copies: a thread may stand still in the middle of its change of the list.

#include "diagnostics/profiler.h"
#include "diagnostics/quick_sort.h"
#include "platform/kern.h"
#include "platform/libc.h"

static int32_t low_difference(int64_t a, int64_t b) {
    return (int32_t)((uint32_t)a - (uint32_t)b);
}

int32_t kernel_cmp(const void *a, const void *b) {
    return low_difference(((const profiler_record *)b)->kernel, ((const profiler_record *)a)->kernel);
}

int32_t real_cmp(const void *a, const void *b) {
    return low_difference(((const profiler_record *)b)->real, ((const profiler_record *)a)->real);
}

int32_t func_cmp(const void *a, const void *b) {
    return strcmp(((const profiler_record *)a)->name, ((const profiler_record *)b)->name);
}

int32_t inserter(void *item, void *position) {
    uint32_t *at = (uint32_t *)position;
    if (*at < gNumInPad) gPad[(*at)++] = *(const profiler_record *)item;
    return 0;
}

uint32_t load_pad() {
    uint32_t loaded = 0;
    if (gPad != nullptr && gFinished != nullptr) skiplist_for_each(gFinished, inserter, &loaded);
    return loaded;
}

void print_pad(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const profiler_record *record = &gPad[i];
        kern_debug_print("Function: %s\nkernel: %Ld; real %Ld; last thread: %ld\n\n", record->name,
                         (long long)record->kernel, (long long)record->real, (long)record->thread);
    }
}

static int32_t report(int32_t argc, char **argv, int32_t (*compare)(const void *a, const void *b)) {
    uint32_t n = load_pad();
    q_sort(gPad, n, sizeof(profiler_record), compare);
    if (argc > 1) {
        // A negative number is a huge one here, and means all of them.
        const unsigned long wanted = (unsigned long)strtol(argv[1], nullptr, 10);
        if (wanted <= n) n = (uint32_t)wanted;
    }
    print_pad(n);
    return 0;
}

int32_t dbg_kernel(int32_t argc, char **argv) {
    return report(argc, argv, kernel_cmp);
}

int32_t dbg_real(int32_t argc, char **argv) {
    return report(argc, argv, real_cmp);
}

int32_t dbg_func(int32_t argc, char **argv) {
    return report(argc, argv, func_cmp);
}
