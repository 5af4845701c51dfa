// SPDX-License-Identifier: MIT
//
// A bracket of the profiler, beside what it asks of the kernel for its three samplings; and its sort of
// records by real time, beside the library's.

#include <zarn/zarn_profiler.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "bench/bench.h"
#include "diagnostics/profiler.h"
#include "diagnostics/quick_sort.h"
#include "platform/kern.h"

namespace {

void add_bracket(const char *variant, int32_t flags) {
    add_benchmark(std::string("bracket/") + variant, [flags](benchmark::State &state) {
        for (auto _ : state) {
            util->_enter_prof_func("bench", "bracket", flags);
            util->_exit_prof_func("bench", "bracket", flags);
        }
    });
}

using sort_function = void (*)(std::vector<profiler_record> &records);

void add_sort(size_t count, const char *variant, sort_function sort) {
    add_benchmark("sort_records/" + std::to_string(count) + "/" + variant, [=](benchmark::State &state) {
        std::mt19937 random(1);
        std::vector<profiler_record> loaded(count), records;
        for (profiler_record &each : loaded)
            each.real = random() % 1000000;
        for (auto _ : state) {
            state.PauseTiming();
            records = loaded;
            state.ResumeTiming();
            sort(records);
        }
        const auto behind = [](const auto &a, const auto &b) { return a.real > b.real; };
        if (!std::is_sorted(records.begin(), records.end(), behind)) state.SkipWithError("not sorted");
    });
}

const int gRegistered = [] {
    add_bracket("record", PROF_RECORD);
    add_bracket("flags_0", 0);
    add_benchmark("bracket/its_kernel_calls", [](benchmark::State &state) {
        uint8_t info[76];
        for (auto _ : state) {
            for (int sampling = 0; sampling < 3; ++sampling) {
                kern_thread_info(kern_thread_self(), info, sizeof info);
                benchmark::DoNotOptimize(kern_time_us());
            }
        }
    });
    for (size_t count : {40, 1000}) {
        add_sort(count, "module", [](auto &records) {
            q_sort(records.data(), static_cast<uint32_t>(records.size()), sizeof records[0], real_cmp);
        });
        add_sort(count, "qsort",
                 [](auto &records) { qsort(records.data(), records.size(), sizeof records[0], real_cmp); });
    }
    return 0;
}();

}  // namespace
