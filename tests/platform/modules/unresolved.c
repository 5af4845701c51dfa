// SPDX-License-Identifier: MIT
//
// A module that needs an operation no kernel has.

#include "tests/platform/modules/module.h"

int32_t kern_no_such_operation(int32_t op);

static int32_t std_ops(int32_t op) {
    return kern_no_such_operation(op);
}

static const module_head module = {TEST_MODULE_NAME, 0, std_ops};

const void *const modules[] = {&module, 0};
