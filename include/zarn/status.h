// SPDX-License-Identifier: MIT
//
// Status values. An operation that returns int32_t gives 0 for success and a negative value for failure; a
// plain -1 is the general failure, the codes below have a meaning of their own. Other negative values come
// from the kernel (a dead semaphore, a wait that timed out) and are passed through as they are.

#ifndef ZARN_STATUS_H
#define ZARN_STATUS_H

#include <stdint.h>

#define ERR_NO_MEMORY ((int32_t)0x80000000u)        // memory or a buffer node can't be had
#define ERR_BAD_VALUE ((int32_t)0x80000005u)        // a bad argument or a malformed settings entry
#define ERR_WOULD_BLOCK ((int32_t)0x8000000bu)      // nothing to dequeue, and no waiting
#define ERR_NO_STACK ((int32_t)0x80007012u)         // the family has no such stack
#define ERR_NO_FAMILY ((int32_t)0x80007015u)        // the settings have no section for the family
#define ERR_NO_BUFFER_SPACE ((int32_t)0x80007023u)  // the limit of the FIFO is reached
#define ERR_DUPLICATE ((int32_t)0x80007025u)        // a settings entry compares equal to one already cached

#endif
