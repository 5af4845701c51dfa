// SPDX-License-Identifier: MIT
//
// A module whose list knows everything but the name of its file.

#include "tests/platform/modules/module.h"

static int32_t std_ops(int32_t op) {
    return test_module_op("test/somebody else", op);
}

static const module_head module = {"test/somebody else", 0, std_ops};

const void *const modules[] = {&module, 0};
