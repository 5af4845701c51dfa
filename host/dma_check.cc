// SPDX-License-Identifier: MIT
#include "host/dma_check.h"

#include <cinttypes>
#include <cstdio>
#include <vector>

namespace {

// Returns the number of runs, which have as many bytes as the locked buffer, or -1.
int32_t map_locked(zarn_util_module_t *util, zarn_data_t *data, std::vector<memory_run> *runs) {
    constexpr uint32_t kSmallestPage = 4096;
    // A piece may begin and end inside a page.
    runs->resize(2 * util->count_zarn_data_iovecs(data) + data->length / kSmallestPage);
    const int32_t filled =
        util->get_data_memory_map(data, runs->data(), static_cast<uint32_t>(runs->size()), 1);
    uint64_t bytes = 0;
    for (int32_t i = 0; i < filled; i++)
        bytes += (*runs)[static_cast<size_t>(i)].size;
    return bytes == data->length ? filled : -1;
}

}  // namespace

void check_dma(zarn_util_module_t *util, zarn_data_t *data, dma_counts *counts) {
    if (data->length == 0) return;
    static thread_local std::vector<memory_run> runs;  // one memory for all buffers
    data->flags |= DATA_NEEDS_LOCK;
    lock_token *token = util->lock_zarn_data(data);
    const int32_t filled = token != nullptr ? map_locked(util, data, &runs) : -1;
    if (filled >= 0) {
        counts->buffers++;
        counts->runs += static_cast<uint64_t>(filled);
    } else if (counts->faults++ == 0) {
        fprintf(stderr, "zarn: a buffer of %" PRIu32 " bytes %s\n", data->length,
                token == nullptr ? "can't be wired: no memory" : "has a memory map that is not its own");
    }
    util->unlock_zarn_data(token);
    util->zarn_free(token);
}
