// SPDX-License-Identifier: MIT
//
// The map of a buffer that was wired beforehand, from the cache, beside the kernel's answer for the same
// buffer; and what the wiring costs that makes the difference.

#include <array>

#include "bench/bench.h"

namespace {

constexpr uint32_t kPieces = 7;
alignas(4096) uint8_t gMemory[kPieces * 16384];

// `length` bytes in so many pieces, each at the beginning of a page.
zarn_data_t *make_buffer(uint32_t pieces, uint32_t length) {
    zarn_data_t *data = util->new_zarn_data();
    for (uint32_t i = 0; i < pieces; ++i)
        util->append_zarn_data(data, gMemory + i * 16384, length / pieces, nullptr);
    data->flags |= DATA_NEEDS_LOCK;
    return data;
}

void end_lock(lock_token *token) {
    util->unlock_zarn_data(token);
    util->zarn_free(token);
}

void add_map(const std::string &variant, uint32_t pieces, uint32_t length, bool locked) {
    add_benchmark("memory_map/" + std::to_string(length) + "_in_" + std::to_string(pieces) + "/" + variant,
                  [=](benchmark::State &state) {
                      std::memset(gMemory, 1, sizeof gMemory);
                      zarn_data_t *data = make_buffer(pieces, length);
                      lock_token *token = locked ? util->lock_zarn_data(data) : nullptr;
                      std::array<memory_run, 32> runs;
                      for (auto _ : state) {
                          if (util->get_data_memory_map(data, runs.data(), runs.size(), locked) <= 0)
                              state.SkipWithError("no map");
                          benchmark::DoNotOptimize(runs);
                      }
                      end_lock(token);
                      util->delete_zarn_data(data);
                  });
}

void wire(benchmark::State &state) {
    zarn_data_t *data = make_buffer(1, 1460);
    for (auto _ : state) {
        lock_token *token = util->lock_zarn_data(data);
        if (token == nullptr) state.SkipWithError("not locked");
        end_lock(token);
    }
    util->delete_zarn_data(data);
}

[[maybe_unused]] const bool gAdded = [] {
    for (const auto &[pieces, length] : {std::pair{1u, 1460u}, {kPieces, 1400u}, {1u, 65536u}}) {
        add_map("cached", pieces, length, true);
        add_map("kernel", pieces, length, false);
    }
    add_benchmark("wire_and_unwire/1460/module", wire);
    return true;
}();

}  // namespace
