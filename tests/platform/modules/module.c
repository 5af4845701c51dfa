// SPDX-License-Identifier: MIT
//
// A module as it should be, behind another record in one list.

#include "tests/platform/modules/module.h"

static int32_t other_std_ops(int32_t op) {
    return test_module_op("test/other", op);
}

static int32_t std_ops(int32_t op) {
    return test_module_op(TEST_MODULE_NAME, op);
}

static const module_head other = {"test/other", 0, other_std_ops};
static const module_head module = {TEST_MODULE_NAME, 0, std_ops};

const void *const modules[] = {&other, &module, 0};
