// SPDX-License-Identifier: MIT
//
// zarn_tallylock_t: the mutual-exclusion lock of the stack, an atomic counter in front of a counting
// semaphore.
//
// - The owner of the data embeds the record; no operation allocates or frees it. It is freed only when
//   no thread can still be inside an operation on it.
// - Uncontended, locking and unlocking are one atomic add each, with no call into the kernel.
// - Not recursive: a thread that holds the lock must not take it again. There is no owner: any thread
//   may unlock.
// - Waiters are served in the order of their arrival. Locking blocks: thread level only.
// - The operations are in the table of <zarn/zarn_util.h>.

#ifndef ZARN_TALLYLOCK_H
#define ZARN_TALLYLOCK_H

#include <stdint.h>

typedef struct zarn_tallylock_t {
    int32_t count;  // 0 free, 1 held, n > 1 held with n - 1 on their way; bits 30 and 31 set once deleted;
                    // atomic
    int32_t sem;    // where contenders sleep; a negative error if creation failed, -1 once deleted
} zarn_tallylock_t;

#ifdef __cplusplus
// Clients embed the record.
static_assert(sizeof(zarn_tallylock_t) == 8);
#endif

#endif
