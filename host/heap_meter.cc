// SPDX-License-Identifier: MIT
#include "host/heap_meter.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/hosted/hosted_kernel.h"
#include "platform/kern.h"

namespace {

constexpr bool kWide = sizeof(void *) == 8;
constexpr pool_state kPoolShapes[kPools] = {
    {"small", kWide ? 64 : 32, 1024, 0, 0},
    {"medium", kWide ? 256 : 128, 256, 0, 0},
    {"large", 2048, 128, 0, 0},
};

// So many buffers may wait for deletion without waking the thread that does it.
constexpr int kPurgatoryWaits = 8;

size_t gUncounted;  // constant while the meter is in
// Atomic
uint64_t gFallBacks[kPools];
uint64_t gCalls;
uint64_t gCallsAtInterruptLevel;

void *metered_malloc(size_t size) {
    __atomic_fetch_add(&gCalls, 1, __ATOMIC_RELAXED);
    if (hosted_at_interrupt_level()) __atomic_fetch_add(&gCallsAtInterruptLevel, 1, __ATOMIC_RELAXED);
    for (int i = 0; i < kPools && size != gUncounted; i++) {
        if (size > kPoolShapes[i].block_size) continue;
        __atomic_fetch_add(&gFallBacks[i], 1, __ATOMIC_RELAXED);
        break;
    }
    return malloc(size);
}

template <typename Relocation>
void **find_slot_in(const link_map *map, const ElfW(Sym) * symbols, const char *strings, ElfW(Addr) table,
                    size_t bytes) {
    auto *entries = reinterpret_cast<const Relocation *>(table);
    for (size_t i = 0; i < bytes / sizeof(Relocation); i++) {
        size_t symbol = kWide ? entries[i].r_info >> 32 : entries[i].r_info >> 8;
        if (strcmp(strings + symbols[symbol].st_name, "malloc") == 0)
            return reinterpret_cast<void **>(map->l_addr + entries[i].r_offset);
    }
    return nullptr;
}

// Where the dynamic linker keeps the module's address of `malloc`.
void **find_malloc_slot(const link_map *map) {
    ElfW(Addr) values[DT_JMPREL + 1] = {};  // by tag; all tags that are asked for lie below
    for (const ElfW(Dyn) *entry = map->l_ld; entry->d_tag != DT_NULL; entry++) {
        if (entry->d_tag >= 0 && entry->d_tag <= DT_JMPREL) values[entry->d_tag] = entry->d_un.d_ptr;
    }
    auto *symbols = reinterpret_cast<const ElfW(Sym) *>(values[DT_SYMTAB]);
    auto *strings = reinterpret_cast<const char *>(values[DT_STRTAB]);
    void **slot = find_slot_in<ElfW(Rel)>(map, symbols, strings, values[DT_REL], values[DT_RELSZ]);
    if (slot == nullptr)
        slot = find_slot_in<ElfW(Rela)>(map, symbols, strings, values[DT_RELA], values[DT_RELASZ]);
    if (slot == nullptr && values[DT_PLTREL] == DT_REL)
        slot = find_slot_in<ElfW(Rel)>(map, symbols, strings, values[DT_JMPREL], values[DT_PLTRELSZ]);
    if (slot == nullptr && values[DT_PLTREL] == DT_RELA)
        slot = find_slot_in<ElfW(Rela)>(map, symbols, strings, values[DT_JMPREL], values[DT_PLTRELSZ]);
    return slot;
}

bool all_blocks_in(const std::array<pool_state, kPools> &states) {
    for (const pool_state &state : states) {
        if (state.out != 0) return false;
    }
    return true;
}

}  // namespace

int32_t install_heap_meter(const zarn_util_module_t *util, size_t uncounted) {
    gUncounted = uncounted;
    Dl_info info;
    link_map *map = nullptr;
    if (dladdr1(util, &info, reinterpret_cast<void **>(&map), RTLD_DL_LINKMAP) == 0 || map == nullptr)
        return -1;
    void **slot = find_malloc_slot(map);
    if (slot == nullptr) return -1;

    // The linker may have made the page read-only when it was done with it.
    uintptr_t page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    uintptr_t page = reinterpret_cast<uintptr_t>(slot) & ~(page_size - 1);
    if (mprotect(reinterpret_cast<void *>(page), page_size, PROT_READ | PROT_WRITE) != 0) return -1;
    __atomic_store_n(slot, reinterpret_cast<void *>(metered_malloc), __ATOMIC_RELAXED);
    for (uint64_t &count : gFallBacks)
        __atomic_store_n(&count, 0, __ATOMIC_RELAXED);
    return 0;
}

uint64_t heap_calls_at_interrupt_level() {
    return __atomic_load_n(&gCallsAtInterruptLevel, __ATOMIC_RELAXED);
}

std::array<pool_state, kPools> peek_pools(const zarn_util_module_t *util) {
    std::array<pool_state, kPools> states;
    std::vector<void *> taken;
    for (int i = 0; i < kPools; i++) {
        states[i] = kPoolShapes[i];
        states[i].fall_backs = __atomic_load_n(&gFallBacks[i], __ATOMIC_RELAXED);
        uint64_t before = states[i].fall_backs;
        // The request that goes to the heap is the first one that finds the pool dry.
        states[i].out = states[i].blocks;
        while (true) {
            void *block = util->zarn_falloc(states[i].block_size);
            if (block == nullptr) break;
            taken.push_back(block);
            if (__atomic_load_n(&gFallBacks[i], __ATOMIC_RELAXED) != before) break;
            states[i].out--;
        }
        __atomic_store_n(&gFallBacks[i], before, __ATOMIC_RELAXED);
        for (void *block : taken)
            util->zarn_free(block);
        taken.clear();
    }
    return states;
}

std::array<pool_state, kPools> measure_pools(const zarn_util_module_t *util) {
    constexpr int kRounds = 200;
    std::array<pool_state, kPools> states = peek_pools(util);
    for (int round = 0; round < kRounds && !all_blocks_in(states); round++) {
        // More than wait without waking the purgatory's thread, so that they take along what waits there.
        for (int i = 0; i < 2 * kPurgatoryWaits; i++) {
            if (zarn_data_t *data = util->new_zarn_data()) util->isafe_delete_zarn_data(data);
        }
        kern_sleep_us(5'000);
        const std::array<pool_state, kPools> now = peek_pools(util);
        for (int i = 0; i < kPools; i++)  // some of those just deleted may wait, too
            states[i].out = std::min(states[i].out, now[i].out);
    }
    return states;
}
