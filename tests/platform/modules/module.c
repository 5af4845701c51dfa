// SPDX-License-Identifier: MIT
//
// A module as it should be, behind another record in one list. Definitions of the build spoil it.

#include <zarn/module.h>

// What `std_ops(op)` of the module of this name does and returns. The test program has it.
int32_t test_module_op(const char *name, int32_t op);

static int32_t other_std_ops(int32_t op) {
    return test_module_op("test/other", op);
}

static int32_t std_ops(int32_t op) {
    return test_module_op(TEST_MODULE_NAME, op);
}

static const module_head other = {"test/other", 0, other_std_ops};
static const module_head module = {TEST_MODULE_NAME, 0, std_ops};

const void *const modules[] = {&other, &module, 0};
