// SPDX-License-Identifier: MIT
//
// Runs the benchmarks with the module's services started, on the hosted kernel.

#include <cstdio>

#include "bench/bench.h"

extern "C" const void *const modules[];

const zarn_util_module_t *util = static_cast<const zarn_util_module_t *>(modules[0]);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (util->head.std_ops(MODULE_START) != 0) {
        std::fprintf(stderr, "the module does not start\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return util->head.std_ops(MODULE_STOP) == 0 ? 0 : 1;
}
