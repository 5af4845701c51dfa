// SPDX-License-Identifier: MIT
//
// rwlock_t: a lock for many readers or one writer. Writers go first, the write lock is recursive, and a
// holder can turn from reader to writer and back.
//
// - The owner of the data embeds or allocates the record; no operation allocates or frees it.
// - Without a writer about, reading costs one atomic add on the way in and one on the way out; so does
//   writing with nobody about. Everything else may block: thread level only.
// - A steady stream of writers starves the readers.
// - At most 65535 threads on either side.
//
// What is asked, by who holds the lock and what then happens:
//
//     holds it           asked by   read_lock          write_lock         upgrade_to_write
//     nobody             anybody    in at once         in at once         not allowed
//     readers, and no    another    in at once         waits for them     not allowed
//       writer waits     one of     in at once [1]     never returns [2]  waits for the other
//                        them                                             readers, if any
//     readers, and a     another    waits until all    waits behind       not allowed
//       writer waits                writers are gone   that writer
//                        one of     never returns [1]  never returns [2]  gives its read lock up,
//                        them                                             waits behind that writer
//     a writer           another    waits until all    waits behind       not allowed
//                                   writers are gone   that writer
//                        itself     nothing changes    one level deeper   one level deeper
//
//     given back         by         what happens
//     read_unlock        a reader   if it is the last, the first waiting writer gets in
//                        the writer nothing changes
//     write_unlock       the writer an inner level ends; the outermost lets the next writer in or, without
//                                   one, all waiting readers together
//     downgrade_to_read  the writer an inner level ends; the outermost becomes a read lock. With a writer
//                                   waiting it keeps that one out until its `read_unlock`, and no other
//                                   reader gets in before all writers are gone; without one, all waiting
//                                   readers get in beside it
//
// Rules that no operation checks:
//
// [1] A reader must not take a second read lock: with a writer waiting, it would wait for the writer and
//     the writer for it. The writer may read-lock as it likes.
// [2] A reader must not call `write_lock`, which would wait for its own read lock; `upgrade_to_write` is
//     the way.
// -   `write_unlock` and `downgrade_to_read` are for the writer only.
// -   What a thread took as the writer it gives back as the writer: the calls nest.
//
// The result of an upgrade is the same whether or not other writers ran in between: who relies on what
// it has read must read again.

#ifndef ZARN_RWLOCK_H
#define ZARN_RWLOCK_H

#include <stdint.h>

typedef struct rwlock_t {
    uint32_t count;      // low half: readers in or waiting; high half: writers in or waiting; atomic
    int32_t owner;       // the thread that holds the write lock, -1 when none does; atomic
    int32_t depth;       // how many times the owner has taken the write lock; the owner's
    int32_t read_sem;    // readers wait here while a writer is present
    int32_t writer_sem;  // writers queue here behind the writer in front of them
    int32_t drain_sem;   // the writer at the front waits here until the lock is handed to it or its readers
                         // have left
} rwlock_t;

#ifdef __cplusplus
// Clients embed the record.
static_assert(sizeof(rwlock_t) == 24);
#endif

#endif
