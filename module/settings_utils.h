// SPDX-License-Identifier: MIT
//
// Flat settings of the file zarn.conf, and a parameter looked up by name. Nothing is kept between two calls:
// each one opens, reads and closes the file, so a change takes effect at the next call. May block: thread
// level only.

#ifndef ZARN_MODULE_SETTINGS_UTILS_H
#define ZARN_MODULE_SETTINGS_UTILS_H

#include <stdint.h>

#include "platform/kern.h"

// Both are operations of the table: see include/zarn/zarn_util.h.
extern "C" {
int32_t get_config_int32(const char *key, int32_t default_value);
uint8_t get_config_bool(const char *key, uint8_t default_value);
}

// The first of `count` parameters that is called `name`, or null. A parameter without a name ends the array
// early.
const settings_parameter *find_driver_param(const char *name, const settings_parameter *parameters,
                                            int32_t count);

#endif
