// SPDX-License-Identifier: MIT
//
// The subtractive update of RFC 1624, equation 4: HC' = HC - ~m - m'.

#include "module/incremental_checksum.h"

uint32_t incremental_checksum(uint16_t checksum, uint16_t old_word, uint16_t new_word) {
    uint32_t updated = uint32_t{checksum} - (~uint32_t{old_word} & 0xffff) - new_word;
    // Below 0 the upper half is 0xffff or 0xfffe: adding it takes off one more for each borrow. The carry out
    // of that addition belongs to the subtraction and isn't added again.
    if (updated >> 16 != 0) updated = (updated & 0xffff) + (updated >> 16);
    return updated & 0xffff;
}
