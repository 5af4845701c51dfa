// SPDX-License-Identifier: MIT
//
// read_int32: the one way in which numbers of the settings file are read. Touches nothing but its arguments.

#ifndef ZARN_MODULE_READ_INT32_H
#define ZARN_MODULE_READ_INT32_H

#include <stdint.h>

#include "platform/libc.h"

// Reads `text` as strtol does: leading blanks and a sign are accepted, and a value out of range stops at the
// limit. The limits are those of 32 bits, so that a settings file means the same where `long` is wider.
// Returns whether the number fills the text; `*value` is what has been read in either case.
inline bool read_int32(const char *text, int base, int32_t *value) {
    char *end;
    const long number = strtol(text, &end, base);
    if constexpr (sizeof(long) > sizeof(int32_t)) {
        *value = (int32_t)(number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : number);
    } else {
        *value = (int32_t)number;
    }
    return *end == '\0' && !(number == 0 && end == text);
}

#endif
