// SPDX-License-Identifier: MIT
//
// Wiring of buffers for hardware, and the physical runs of their pieces.

#include "data/memory_lock.h"

#include "data/zarn_data.h"
#include "platform/kern.h"
#include "platform/libc.h"

lock_token *lock_zarn_data(zarn_data_t *data) {
    if ((data->flags & DATA_NEEDS_LOCK) == 0) return nullptr;
    const uint32_t count = count_zarn_data_iovecs(data);
    if (count == 0 || count > (UINT32_MAX - sizeof(lock_token)) / sizeof(locked_piece)) return nullptr;
    lock_token *token =
        (lock_token *)zarn_falloc((uint32_t)(sizeof(lock_token) + count * sizeof(locked_piece)));
    if (token == nullptr) return nullptr;
    token->count = (int32_t)count;

    const int32_t thread = kern_thread_self();
    locked_piece *piece = token->pieces();
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next, ++piece) {
        piece->base = node->base;
        piece->len = node->len;
        kern_memory_lock(node->base, node->len, 0);  // before the runs are read: from here on they stay
        piece->spec = cache_address_spec(node->base, node->len, thread);
    }
    data->flags |= DATA_LOCKED;
    return token;
}

void unlock_zarn_data(lock_token *token) {
    if (token == nullptr) return;
    locked_piece *pieces = token->pieces();
    for (int32_t i = 0; i < token->count; ++i) {
        kern_memory_unlock(pieces[i].base, pieces[i].len, 0);
        free_address_spec(pieces[i].spec);
    }
}

// Has the kernel write the runs of the range into the scratch table, which is made at the first need. The
// cache's lock is down meanwhile, because the kernel may block; nothing of the cache is in use then. False
// without a table or without a run.
static bool ask_kernel_for_runs(void *addr, uint32_t length, memory_run **scratch) {
    unlock_address_cache();
    if (*scratch == nullptr) *scratch = (memory_run *)zarn_falloc(kScratchRuns * sizeof(memory_run));
    if (*scratch != nullptr) {
        memset(*scratch, 0, kScratchRuns * sizeof(memory_run));
        kern_memory_map(addr, length, *scratch, (int32_t)kScratchRuns);
    }
    lock_address_cache();
    return *scratch != nullptr && (*scratch)->size != 0;
}

// Adds the entries of one node. False when the call has to fail.
static bool map_node_locked(const mem_node *node, int32_t thread, bool no_fault, run_table *table,
                            memory_run **scratch) {
    if (table->left == 0) return false;
    uint32_t done = 0;
    address_spec *spec = lookup_address_spec(node->base, node->len, thread);
    if (spec != nullptr) {
        const uint32_t position = (uint32_t)((uintptr_t)node->base - spec->start);
        done = fill_run_table(table, spec->runs(), spec->count_runs(), position, node->len);
        if (done == node->len) return true;
    }
    // A table may hold fewer runs than the range has: the kernel is asked for the rest, until nothing is left
    // or it knows no more.
    do {
        if (no_fault || table->left == 0) return false;
        if (!ask_kernel_for_runs((uint8_t *)node->base + done, node->len - done, scratch)) return false;
        done += fill_run_table(table, *scratch, kScratchRuns, 0, node->len - done);
    } while (done != node->len);
    return true;
}

int32_t get_data_memory_map(zarn_data_t *data, memory_run *table, uint32_t count, uint8_t no_fault) {
    if (count == 0) return 0;
    run_table entries = {table, count};
    memory_run *scratch = nullptr;
    const int32_t thread = kern_thread_self();
    lock_address_cache();
    const mem_node *node = data->datalist;
    while (node != nullptr && map_node_locked(node, thread, no_fault != 0, &entries, &scratch))
        node = node->next;
    unlock_address_cache();
    zarn_free(scratch);
    return node == nullptr ? (int32_t)(count - entries.left) : -1;
}
