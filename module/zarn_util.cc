// SPDX-License-Identifier: MIT
//
// The module record: the table of operations, and the order in which the services start and stop.

#include <zarn/zarn_util.h>

static zarn_util_module_t gZarnUtilModule = {};

extern "C" __attribute__((visibility("default"))) const void *const modules[] = {&gZarnUtilModule, nullptr};
