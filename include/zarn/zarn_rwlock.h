// SPDX-License-Identifier: MIT
//
// rwlock_t: a lock for many readers or one writer. Writers go first, the write lock is recursive, and a
// holder can turn from reader to writer and back. The owner of the data embeds or allocates the record.

#ifndef ZARN_RWLOCK_H
#define ZARN_RWLOCK_H

#include <stdint.h>

typedef struct rwlock_t {
    uint32_t count;      // low half: readers in or waiting; high half: writers in or waiting; atomic
    int32_t owner;       // the thread that holds the write lock, -1 when none does
    int32_t depth;       // how many times the owner has taken the write lock
    int32_t read_sem;    // readers wait here while a writer is present
    int32_t writer_sem;  // writers queue here behind the writer in front of them
    int32_t drain_sem;   // the writer at the front waits here until the lock is handed to it or its readers
                         // have left
} rwlock_t;

#endif
