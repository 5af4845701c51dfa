// SPDX-License-Identifier: MIT
//
// The sums under the Internet checksums (RFC 1071).
//
// - A sum is the 16-bit one's complement sum of the bytes, taken in pairs in host order, the first byte of a
//   pair low; a byte left over counts as a pair with a 0 behind it. A checksum, what the operations on
//   buffers give and what a header carries, is the complement of a sum. Stored as a host-order 16-bit value,
//   either has the right bytes on the wire.
// - Results are 16-bit values, zero-extended. Not a byte outside of a range is read or written.
// - Plain computations: no locks, no heap, callable at any level.

#ifndef ZARN_DATA_CHECKSUM_H
#define ZARN_DATA_CHECKSUM_H

#include <cstdint>

// The sum of `length` bytes at `data`, any address, any length.
uint32_t chksum(const void *data, uint32_t length);

// Copies `length` bytes from `src` to `dest`, which don't overlap, and returns their sum. Any addresses, any
// length.
uint32_t cpysum(void *dest, const void *src, uint32_t length);

// One way of summing. All of them give the same results at every length; `chksum` and `cpysum` choose by the
// length and by what the processor can do.
struct checksum_form {
    const char *name;
    uint32_t (*sum)(const void *data, uint32_t length);
    uint32_t (*copy)(void *dest, const void *src, uint32_t length);
};

// The plain-register form, which every build has.
extern const checksum_form kPlainChecksum;

// The forms with vector registers that this processor can run, the narrowest first; `*count` is 0 in a build
// without them.
const checksum_form *get_wide_checksums(uint32_t *count);

#endif
