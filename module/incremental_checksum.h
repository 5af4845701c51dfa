// SPDX-License-Identifier: MIT
//
// Updating a checksum for one changed word, without the data. A plain computation, callable at any level.

#ifndef ZARN_MODULE_INCREMENTAL_CHECKSUM_H
#define ZARN_MODULE_INCREMENTAL_CHECKSUM_H

#include <cstdint>

// An operation of the table; zarn/zarn_util.h tells what it promises.
uint32_t incremental_checksum(uint16_t checksum, uint16_t old_word, uint16_t new_word);

#endif
