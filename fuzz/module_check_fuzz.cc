// SPDX-License-Identifier: MIT
//
// Any bytes as a module's file: a verdict comes out, and a module without a fault has a name.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "host/module_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const module_verdict verdict = check_module(data, size, "tcp");
    if (verdict.faults.empty() && (verdict.names.empty() || verdict.target.empty())) {
        fputs("module_check_fuzz: a module without a name is good\n", stderr);
        abort();
    }
    return 0;
}
