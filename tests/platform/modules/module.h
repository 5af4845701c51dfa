// SPDX-License-Identifier: MIT
//
// The modules of the loader's tests leave their start and stop to the test that loads them.

#ifndef ZARN_TESTS_PLATFORM_MODULES_MODULE_H
#define ZARN_TESTS_PLATFORM_MODULES_MODULE_H

#include <zarn/module.h>

#ifdef __cplusplus
extern "C"
#endif
    // What `std_ops(op)` of the module of this name does and returns. The test program has it.
    int32_t
    test_module_op(const char *name, int32_t op);

#endif
