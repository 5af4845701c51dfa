// SPDX-License-Identifier: MIT
//
// The table of the module "network/zarn_util": its record, with the 77 operations in the order that is its
// interface.
//
// A client acquires the module from the loader, keeps the pointer and calls through it:
//
//     zarn_util_module_t *util;
//     if (kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&util) != 0) return -1;
//     zarn_data_t *packet = util->new_zarn_data();
//     ...
//     kern_module_release(ZARN_UTIL_MODULE_NAME);
//
// The record is constant while the module is held; any thread may read it at any level. Each operation tells
// below what it does and who owns what after success and after each failure. Its last line tells the contexts
// that may call it, and what it returns when it fails; docs/operations.md is made of these lines.
//
//     any       never blocks and never reaches the heap: interrupt level included
//     pools     the same as long as the pools of the allocator have blocks; when one has run dry it reaches
//               the heap, so that a caller at interrupt level has no guarantee
//     thread    thread level: may reach the heap, or wait for a lock that others hold for a short time
//     blocks    thread level: may sleep for as long as other threads, hooks or the loader take
//
// "the heap" is the kernel's malloc. Status results are those of <zarn/status.h>; "a kernel status" is a
// failure of the kernel's, passed through.

#ifndef ZARN_UTIL_H
#define ZARN_UTIL_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/memory_run.h>
#include <zarn/module.h>
#include <zarn/status.h>
#include <zarn/zarn_data.h>
#include <zarn/zarn_endpoint.h>
#include <zarn/zarn_fifo.h>
#include <zarn/zarn_profiler.h>
#include <zarn/zarn_rwlock.h>
#include <zarn/zarn_tallylock.h>
#include <zarn/zarn_timer.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZARN_UTIL_MODULE_NAME "network/zarn_util"

typedef struct mempool_t mempool_t;
typedef struct address_spec address_spec;

typedef struct zarn_util_module_t {
    module_head head;

    // -- Buffers: creation and end. The record, and a drawing of two that share memory, are in
    // <zarn/zarn_data.h>.
    //
    // A buffer has one owner at a time and no lock: every operation wants the buffers that it is given to
    // itself, but for sources that are only read, which several readers may share as long as nobody changes
    // them. Lengths and offsets are in bytes.
    //
    // Nodes, descriptors and buffers come from the pools of the allocator.

    // A new empty buffer, or null without memory. The caller owns it until it hands it on or deletes it.
    // Context: pools. Fails: null.
    zarn_data_t *(*new_zarn_data)(void);

    // Ends a buffer and gives back its references on descriptors. The free function of each descriptor of
    // which this was the last reference is called on its elements, in the order in which they were added. As
    // slow as those functions.
    // Context: thread.
    void (*delete_zarn_data)(zarn_data_t *data);

    // Ends a buffer from any context: it never blocks, allocates nothing, reaches no heap and can't fail.
    // What has to wait for thread level is done by a thread of the module, which is woken when more than
    // about 8 buffers wait for it; the last ones may wait until the next deletion or until the module stops.
    // Free functions of descriptors with FREE_INTERRUPT_SAFE run at once on the caller, all others on that
    // thread. The buffer must not stand on a queue.
    // Context: any.
    void (*isafe_delete_zarn_data)(zarn_data_t *data);

    // Registers `element` to be freed by `free_func` when the last reference goes. The call is
    // `free_func(element)`, or `free_func(ext_arg, element)` with an `ext_arg` that isn't null (see
    // `zarn_free_func_from_ext`). Adds nothing to the data. `flags` is 0 or FREE_INTERRUPT_SAFE; an element
    // that joins others with the same function and argument in one descriptor goes the way of the first of
    // them, so give them all the same flags. ERR_NO_MEMORY: nothing is registered and the element stays the
    // caller's.
    // Context: pools. Fails: ERR_NO_MEMORY.
    int32_t (*add_free_element)(zarn_data_t *data, void *element, void *ext_arg, zarn_free_func free_func,
                                uint16_t flags);

    // -- Ranges of buffers. A range is valid when `offset` + `length` does not exceed the buffer's `length`;
    // the sum doesn't wrap. Removing bytes frees no memory before the buffer's end.

    // Adds a copy of the range behind the data of `dst`, as one piece in a new block that `dst` owns. Of the
    // flags, those of DATA_CLIENT_MASK come along. -1: invalid range, or `dst` would pass 4 GiB; nothing has
    // changed. ERR_NO_MEMORY: `dst` holds what it held. Beyond 2048 bytes it takes from the heap.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*copy_zarn_data)(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length);

    // Adds the range behind the data of `dst` without copying a byte: `dst` gets pieces of the same memory,
    // and a reference on every descriptor of `src`. Either buffer may be deleted first. Of the flags, those
    // of DATA_CLIENT_MASK and DATA_NEEDS_LOCK come along; `dst` loses DATA_LOCKED when the source needs
    // locking and isn't locked. -1: invalid range, or `dst` would pass 4 GiB; nothing has changed.
    // ERR_NO_MEMORY: `dst` is sound and holds the pieces and references that were made, to be used or
    // deleted; `src` is as it was.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*clone_zarn_data)(zarn_data_t *dst, zarn_data_t *src, uint32_t offset, uint32_t length);

    // Makes the range one piece, in a new block that the buffer owns. Over the whole buffer this takes
    // DATA_NEEDS_LOCK away, and a cached checksum stays valid. -1: invalid range. ERR_NO_MEMORY: without a
    // block, nothing has changed; without a node to take the range out, only the cached checksum is
    // forgotten; without one to put it back in, the range is gone from the buffer (compare `length`). A
    // `length` of 0 in a buffer that holds data gives ERR_NO_MEMORY and changes nothing; in an empty buffer,
    // 0. Beyond 2048 bytes it takes from the heap.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*coalesce_zarn_data)(zarn_data_t *data, uint32_t offset, uint32_t length);

    // -- Linking memory. The bytes stay where they are. With a `free_func`, the memory at `addr` belongs to
    // the buffer and `free_func(addr)` is called when the last reference goes; with null it stays the
    // caller's and must outlive every buffer that refers to it. A `length` of 0 at either end of the data
    // links and registers nothing, and gives 0. All three:
    //
    //     -1             no node, or the buffer would pass 4 GiB: its data is as before, the memory stays
    //                    the caller's.
    //     ERR_NO_MEMORY  the bytes are linked but nobody owns them: the memory stays the caller's and must
    //                    outlive the buffer.

    // Puts `length` bytes at `addr` before the data. Takes the same time however long the buffer is.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*prepend_zarn_data)(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func);

    // Puts `length` bytes at `addr` behind the data. Walks the pieces.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*append_zarn_data)(zarn_data_t *data, void *addr, uint32_t length, zarn_free_func free_func);

    // Puts `length` bytes at `addr` before the byte at `offset`. -1 also for an `offset` beyond the data.
    // Strictly inside the data a `length` of 0 is linked and registered like any other.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*insert_zarn_data)(zarn_data_t *data, uint32_t offset, void *addr, uint32_t length,
                                zarn_free_func free_func);

    // -- Looking into buffers and cutting them.

    // Takes the range out of the data; at the front of the first piece, as for a header, in constant time.
    // -1: invalid range, a `length` of 0, or no node for the rest of a piece that is cut in two; the data is
    // as before. Only that last case takes memory.
    // Context: pools. Fails: -1.
    int32_t (*trim_zarn_data)(zarn_data_t *data, uint32_t offset, uint32_t length);

    // Fills `table` with the physical runs of the data, in order, for hardware that reads memory by itself.
    // Returns how many of the `count` entries were filled; each piece takes one or more, and pieces that lie
    // together are not joined. The runs of a piece come from the cache when the calling thread has locked the
    // piece, or one that it is a part of: then nothing is allocated and the kernel is not called. Otherwise
    // the kernel is asked, and the runs are true only for as long as somebody keeps the memory wired; with
    // `no_fault` not 0 it isn't asked, and the call fails. 0 for an empty buffer and for a `count` of 0.
    //
    // -1: more entries are needed, a piece is not in the cache and `no_fault` is set, the kernel has no run
    // for a piece, or no memory to ask it (2048 bytes). `table` holds what was filled until then; how much is
    // not told. A piece without bytes has no run.
    // Context: blocks. Fails: -1.
    int32_t (*get_data_memory_map)(zarn_data_t *data, memory_run *table, uint32_t count, uint8_t no_fault);

    // Fills `table` with the pieces of the data in order, up to `count`; returns how many.
    // Context: any.
    uint32_t (*get_zarn_data_iovecs)(zarn_data_t *data, zarn_iovec *table, uint32_t count);

    // How many pieces there are.
    // Context: any.
    uint32_t (*count_zarn_data_iovecs)(zarn_data_t *data);

    // Copies the range to `dest`. Returns `length`, or 0 for an invalid range, with nothing written.
    // Context: any. Fails: 0.
    uint32_t (*copy_from_zarn_data)(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length);

    // Makes the range contiguous if it isn't, and points `*out` at it; valid until the buffer is deleted.
    // Copies only a range that spans pieces, as `coalesce_zarn_data` does. -1: invalid range, a `length` of
    // 0, or no memory, with the data left as by `coalesce_zarn_data` and `*out` not written. A range inside
    // one piece takes no memory: any context then.
    // Context: pools. Fails: -1.
    int32_t (*map_to_zarn_data)(zarn_data_t *data, uint32_t offset, void **out, uint32_t length);

    // Makes the range safe to write to: if any memory of the buffer may be shared with another buffer, the
    // range is moved to a block of this buffer's own. 0, or a failure of `coalesce_zarn_data` with what that
    // leaves.
    // Context: pools. Fails: -1, ERR_NO_MEMORY.
    int32_t (*disassociate_zarn_data)(zarn_data_t *data, uint32_t offset, uint32_t length);

    // -- Internet checksums (RFC 1071).
    //
    // A checksum is the complement of the one's complement sum of 16-bit words, the value that goes into a
    // header. Words are counted from the first byte of the range, at whatever address it lies; a byte left
    // over counts as a word with a 0 behind it. Results have 16 bits, zero-extended, in host order: stored as
    // a host-order 16-bit field they have the right bytes on the wire. Lengths and offsets are bytes, and any
    // value of either may be passed. The caller owns the buffer for the time of the call.

    // The checksum of bytes `offset` to `offset` + `length` - 1, over however many pieces. 0xffff for a
    // `length` of 0; 0 for a range that reaches beyond the data, and for any range of an empty buffer.
    // Neither asks nor changes the remembered checksum.
    // Context: any. Fails: 0.
    uint32_t (*get_zarn_data_checksum)(zarn_data_t *data, uint32_t offset, uint32_t length);

    // Copies the range to `dest`, which overlaps none of it, and returns its checksum, in one walk. Results
    // as above; with a bad range nothing is copied. Over the whole of a buffer the checksum is remembered in
    // it until its bytes change, and a call that finds it there COPIES NOTHING: whoever needs the bytes once
    // more takes them with `copy_from_zarn_data`.
    // Context: any. Fails: 0.
    uint32_t (*copy_and_checksum_data)(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length);

    // The checksum of memory, added to `seed`. With `seed` 0 that of the memory alone; with the checksum of
    // what follows as `seed`, that of both together, provided that `length` is even.
    // Context: any.
    uint32_t (*get_zarn_checksum)(const void *buf, uint32_t length, uint16_t seed);

    // The checksum after one word of the data has changed from `old_word` to `new_word` (RFC 1624, equation
    // 4). It may give the other form of zero than a new computation. All three values are in the same byte
    // order.
    // Context: any.
    uint32_t (*incremental_checksum)(uint16_t checksum, uint16_t old_word, uint16_t new_word);

    // -- Wiring of buffers, so that their memory stays where it is while hardware works on it.

    // Wires every piece of the data and puts its runs into the cache, for the calling thread. Sets
    // DATA_LOCKED. The token is the caller's: `unlock_zarn_data`, on any thread, and then `zarn_free`. The
    // memory must not be freed before the unlock; deleting the buffer doesn't unlock, and pieces that join
    // the buffer later are not covered. A buffer may be locked several times, with a token each.
    //
    // Null, with nothing locked, when DATA_NEEDS_LOCK is clear, when the buffer is empty and without memory.
    // A piece that can't be cached is wired all the same, and mapping it asks the kernel.
    // Context: blocks. Fails: null.
    lock_token *(*lock_zarn_data)(zarn_data_t *data);

    // Undoes one lock. The token is not freed, and DATA_LOCKED stays set in the buffer. Null does nothing.
    // Context: blocks.
    void (*unlock_zarn_data)(lock_token *token);

    // -- Tallylocks. The record and its rules are in <zarn/zarn_tallylock.h>.

    // Sets the lock up, free, with a semaphore of this name; null stands for "anonymous zarn_tallylock_t".
    // Returns the semaphore's id, 0 or above: test for `< 0`. On failure the kernel's error, with nothing to
    // clean up.
    // Context: thread. Fails: a kernel status.
    int32_t (*zarn_create_tallylock)(zarn_tallylock_t *lock, const char *name);

    // Ends the lock under whoever holds it or waits for it: those who wait return with an error, later calls
    // fail. Waits for nobody. Returns the status of the semaphore's deletion.
    // Context: thread. Fails: a kernel status.
    int32_t (*zarn_delete_tallylock)(zarn_tallylock_t *lock);

    // Waits until the lock is the caller's. 0, or the error of a dead semaphore: then it is not held. No
    // signal interrupts the wait.
    // Context: blocks. Fails: a kernel status.
    int32_t (*zarn_lock_tallylock)(zarn_tallylock_t *lock);

    // Gives the lock to the thread that has waited longest, or frees it. The caller keeps the processor. 0,
    // or the error of a dead semaphore.
    // Context: thread. Fails: a kernel status.
    int32_t (*zarn_unlock_tallylock)(zarn_tallylock_t *lock);

    // -- Timers. What hooks may do, and what cancelling and deleting promise, is in <zarn/zarn_timer.h>.
    // Times are microseconds. The lock of the wheel is held for the time of a few stores.

    // An idle timer, or null without memory. The caller owns it until `delete_zarn_timer`. `hook` may be null
    // until the timer is armed.
    // Context: thread. Fails: null.
    zarn_timer_t *(*create_zarn_timer)(zarn_timer_hook hook, void *arg);

    // Cancels the timer and frees it. On return its hook neither runs nor will run; for that the call waits
    // for the end of all hooks that are due, unless it comes from a hook itself.
    // Context: blocks.
    void (*delete_zarn_timer)(zarn_timer_t *timer);

    // Cancels the timer and gives it another hook. Nobody else may arm or re-hook the timer meanwhile.
    // Context: thread.
    void (*zarn_set_timer_hook)(zarn_timer_t *timer, zarn_timer_hook hook, void *arg);

    // Arms the timer to fire once, `delay` from now. An armed timer keeps its appointment if `replace` is 0,
    // otherwise it gets the new one. INT64_MAX is never. Without a hook the system is halted.
    // Context: thread.
    void (*zarn_set_timer)(zarn_timer_t *timer, int64_t delay, uint8_t replace);

    // Disarms the timer; nothing happens if it is idle. Does not wait for a hook that runs already.
    // Context: thread.
    void (*zarn_cancel_timer)(zarn_timer_t *timer);

    // When the timer is due, on the clock of the kernel; 0 when it is idle, as it is in its own hook. A look
    // without a lock: it may be out of date on return, and where pointers have 32 bits it may be half of it
    // while another thread arms or cancels.
    // Context: any.
    int64_t (*zarn_timer_appointment)(zarn_timer_t *timer);

    // -- Read-write locks. The record, its state table and the rules of use are in <zarn/zarn_rwlock.h>. The
    // locking and unlocking ones return 0 or the error of a dead semaphore, after which the lock is not used
    // any more.

    // Sets the lock up, free. Its three semaphores are named `name` and a suffix; of a longer `name`, which
    // must not be null, the first 95 characters count. -1 when a semaphore can't be had, with nothing left.
    // Context: thread. Fails: -1.
    int32_t (*create_rwlock)(rwlock_t *lock, const char *name);

    // Ends the lock; those who wait return with an error. Returns the status of the last semaphore's
    // deletion.
    // Context: thread. Fails: a kernel status.
    int32_t (*delete_rwlock)(rwlock_t *lock);

    // Waits for the writers that are in or waiting. The writer itself gets 0 and nothing changes.
    // Context: blocks. Fails: a kernel status.
    int32_t (*read_lock)(rwlock_t *lock);

    // Gives a read lock back; the last of the readers that a writer waits for lets it in. The writer itself
    // gets 0 and nothing changes.
    // Context: thread. Fails: a kernel status.
    int32_t (*read_unlock)(rwlock_t *lock);

    // Waits for the readers that are in and the writers before. The writer itself goes one level deeper.
    // Context: blocks. Fails: a kernel status.
    int32_t (*write_lock)(rwlock_t *lock);

    // Leaves one level; with the outermost one the next writer gets in, or else all waiting readers.
    // Context: thread. Fails: a kernel status.
    int32_t (*write_unlock)(rwlock_t *lock);

    // Turns a reader into the writer; the writer itself goes one level deeper. If another writer was there
    // first, that one runs before: what the caller has read must then be read again, and the result does not
    // tell.
    // Context: blocks. Fails: a kernel status.
    int32_t (*upgrade_to_write)(rwlock_t *lock);

    // Leaves one level; the outermost one becomes a read lock without a gap in which others could write.
    // Context: thread. Fails: a kernel status.
    int32_t (*downgrade_to_read)(rwlock_t *lock);

    // -- FIFOs of buffers. The record and who may run beside whom are in <zarn/zarn_fifo.h>.

    // Sets the queue up, empty. `name` is that of the semaphore on which consumers sleep; `limit` is in
    // bytes. -1 when a semaphore can't be had, with nothing left.
    // Context: thread. Fails: -1.
    int32_t (*create_zarn_fifo)(zarn_fifo_t *fifo, const char *name, uint32_t limit);

    // Ends the queue and deletes the buffers in it. Consumers that wait return with the error of a dead
    // semaphore. Waits for an enqueue or dequeue that is under way.
    // Context: blocks.
    void (*delete_zarn_fifo)(zarn_fifo_t *fifo);

    // Puts `data` at the end and wakes the consumers that wait. 0: the queue owns `data`. ERR_NO_BUFFER_SPACE
    // when its `length` would take the queue past the limit, or the error of a dead lock: it is still the
    // caller's. Never waits for room.
    // Context: thread. Fails: ERR_NO_BUFFER_SPACE, a kernel status.
    int32_t (*enqueue_zarn_fifo_data)(zarn_fifo_t *fifo, zarn_data_t *data);

    // Stores the first buffer in `*out` and returns its `length`, 0 or above: it is the caller's. With `peek`
    // the queue keeps it, and `*out` is a clone that shares its memory and has its two user words. (A buffer
    // of 2 GiB or more gives a number below 0; that `*out` isn't null tells it from a failure.)
    //
    // On an empty queue it waits for up to `timeout` microseconds, starting over when another consumer was
    // quicker, so that the whole wait can be longer; KERN_TIMEOUT_FOREVER waits without end, and 0 not at
    // all. Otherwise `*out` is null, and the result is ERR_WOULD_BLOCK (empty without waiting, or sent away
    // by `clear_zarn_fifo`), ERR_NO_MEMORY (no memory for the clone), or the kernel's status of a wait that
    // timed out, was interrupted by a signal, or whose semaphore is gone.
    // Context: blocks. Fails: ERR_WOULD_BLOCK, ERR_NO_MEMORY, a kernel status.
    int32_t (*dequeue_zarn_fifo_data)(zarn_fifo_t *fifo, zarn_data_t **out, int64_t timeout, uint8_t peek);

    // Deletes the buffers in the queue and sends the consumers that wait away with ERR_WOULD_BLOCK. The queue
    // stays usable. Free functions of the buffers run with the queue's lock held and must not use the queue.
    // 0, or the error of a dead lock. Blocks until the consumers have left their wait.
    // Context: blocks. Fails: a kernel status.
    int32_t (*clear_zarn_fifo)(zarn_fifo_t *fifo);

    // -- Bytes under a mask. The areas hold `length` bytes each, 0 or more, at any alignment.

    // Compares `a` and `b` where `mask` has ones: 1, 0 or -1. The first difference decides; it is sought by
    // unsigned 32-bit words in the machine's order, then by the bytes that are left. So the sign is not that
    // of memcmp: on a little-endian machine the last byte of a word weighs most. Equality does not depend on
    // this.
    // Context: any.
    int32_t (*zarn_masked_cmp)(const void *a, const void *b, const void *mask, int32_t length);

    // Copies `src` to `dst`. Where `mask` has zeros `dst` gets zeros; it does not keep its old bits.
    // Context: any.
    void (*zarn_masked_copy)(void *dst, const void *src, const void *mask, int32_t length);

    // -- The roster: the protocol modules of an address family, as the section `domains` of zarn.conf names
    // them.
    //
    // A family is read at its first lookup and its stacks are loaded one by one at theirs. All of it stays
    // while a reference on the family stands and goes with the last one: modules are released, and the
    // settings are read anew at the next lookup. The operations take the roster's lock and hold it while
    // modules load and go, so no module may call them from its start and stop routines.

    // Finds the stack (key1, key2) of the family, among "dl" with `dl` not 0 and among "out" otherwise. On 0
    // the caller holds a new reference on the family, to be given back with `release_family_ref`; `*tables`
    // is the array of `*count` module records in the order of the settings, good as long as that reference
    // stands. key2 -1 takes any stack under key1. On failure nothing is stored and no reference taken:
    //
    //     ERR_BAD_VALUE    `tables` or `count` is null
    //     ERR_NO_FAMILY    the settings have no section for the family
    //     ERR_NO_STACK     the family has no such stack
    //     ERR_NO_MEMORY    out of memory while the family was read
    //     -1               no settings file, a module that can't be loaded, no memory for the stack's array,
    //                      or the lock can't be had
    // Context: blocks. Fails: -1, ERR_BAD_VALUE, ERR_NO_FAMILY, ERR_NO_STACK, ERR_NO_MEMORY.
    int32_t (*get_outbound_protos)(uint8_t dl, int32_t family, int32_t key1, int32_t key2, void ***tables,
                                   int32_t *count);

    // Finds the module that receives `key2` in the family. On 0 `*table` is its record. No reference is
    // taken: the record is good as long as the caller's own reference on the family stands. On a family that
    // nobody holds a reference on, the module would be gone at once, so the result is -1. `*table` is written
    // on success only; the other failures are those of `get_outbound_protos`.
    // Context: blocks. Fails: -1, ERR_BAD_VALUE, ERR_NO_FAMILY, ERR_NO_STACK, ERR_NO_MEMORY.
    int32_t (*get_inbound_proto)(int32_t family, int32_t key2, void **table);

    // Adds a reference to a family that is held already. -1, with a line in the log, when it isn't loaded.
    // Context: blocks. Fails: -1.
    int32_t (*get_family_ref)(int32_t family);

    // Gives back one reference: of a successful outbound lookup, of `get_family_ref`, or of an endpoint that
    // the caller has deleted. The last one releases the family's modules. -1, with a line in the log, when it
    // isn't loaded.
    // Context: blocks. Fails: -1.
    int32_t (*release_family_ref)(int32_t family);

    // -- Flat settings: the top-level parameters of zarn.conf. Each call opens, reads and closes the file, so
    // a change takes effect at the next call.

    // The value of `key` as a decimal number that fills the text, sign and leading blanks accepted; one
    // beyond 32 bits stops at the limit. `default_value` when the key or its value is missing or is no
    // number; when the file can't be loaded as well, with a line in the log.
    // Context: blocks. Fails: `default_value`.
    int32_t (*get_config_int32)(const char *key, int32_t default_value);

    // The value of `key` as the kernel reads its words for true and false, 0 or not 0. `default_value` as
    // above.
    // Context: blocks. Fails: `default_value`.
    uint8_t (*get_config_bool)(const char *key, uint8_t default_value);

    // -- The allocator of the stack: pools of fixed blocks in front of the heap.
    //
    // Small, medium and large blocks have 32, 128 and 2048 bytes where pointers have 32 bits, and 64, 256 and
    // 2048 where they have 64. While the pool of a class has blocks, taking one and giving it back take no
    // lock, never block and work at interrupt level. A request above the large class, or of a class that has
    // run dry, goes to the heap: then the call is as safe as the heap is. Nothing is logged, nothing is
    // counted.

    // `size` or more bytes of undefined contents, or null. The caller owns the block until `zarn_free`.
    // Context: pools. Fails: null.
    void *(*zarn_falloc)(uint32_t size);

    // A block like that of `zarn_falloc`, with the first `size` bytes set to 0. What a pool block has behind
    // them keeps what it held.
    // Context: pools. Fails: null.
    void *(*zarn_zalloc)(uint32_t size);

    // `size` bytes of the heap, all zero, or null; never a pool block. A `size` of 0 gives a block as well.
    // Context: thread. Fails: null.
    void *(*zarn_malloc)(uint32_t size);

    // Gives back what any of the three gave, once; null does nothing. The address tells pool from heap, so no
    // size is asked for. Memory from elsewhere goes to the heap's `free`. Also a `zarn_free_func` for
    // buffers.
    // Context: pools.
    void (*zarn_free)(void *block);

    // -- Pools of the client's own, over memory of the client's own.

    // A pool of `count` blocks of `block_size` bytes, a power of two, back to back from `base`. Blocks go out
    // in ascending order at first, from then on the one given back last goes first. Null when the heap has no
    // room for the pool's record; the memory at `base` stays the caller's in every case.
    // Context: thread. Fails: null.
    mempool_t *(*new_mempool)(void *base, uint32_t block_size, int32_t count);

    // Frees the pool's record. No other call on the pool may be under way, and no block may be used or given
    // back any more; the memory under the blocks stays the caller's.
    // Context: thread.
    void (*delete_mempool)(mempool_t *pool);

    // A free block, or null when all are out. Lock-free.
    // Context: any. Fails: null.
    void *(*mp_alloc)(mempool_t *pool);

    // Gives back, once, a block that `mp_alloc` of this pool returned. Nothing is checked. Lock-free.
    // Context: any.
    void (*mp_free)(mempool_t *pool, void *block);

    // -- The cache of physical address runs, which `lock_zarn_data` fills; also for memory in no buffer. The
    // cache wires nothing: the caller wires the memory before and keeps it wired until it has freed the spec.

    // Asks the kernel for the runs of the range and enters them, for one thread or, with a `thread` of 0, for
    // all. The spec is the caller's until `free_address_spec`. Null, with nothing entered, for a `length` of
    // 0, a range beyond the end of the address space, one without a mapping, and without memory. Takes one
    // small block for a range within a page.
    // Context: blocks. Fails: null.
    address_spec *(*cache_address_spec)(void *addr, uint32_t length, int32_t thread);

    // Takes the range out of the cache and frees the spec, once, on any thread. Null does nothing.
    // Context: thread.
    void (*free_address_spec)(address_spec *spec);

    // Fills `table` with the runs of the range from the cache, without asking the kernel, and returns how
    // many of the `count` entries (1 or more) were filled. Of several specs that hold the whole range, the
    // one entered last gives them. 0: no spec of this thread or of all holds the whole range, or the kernel
    // had runs for a part of it only. -1: more entries are needed; those that there are were filled.
    // Context: thread. Fails: 0, -1.
    int32_t (*get_cached_memory_map)(void *addr, uint32_t length, memory_run *table, uint32_t count);

    // -- The profiler. What it measures, and where to read that, is in <zarn/zarn_profiler.h>.
    //
    // The name of a bracket is `prefix`, ":" and `suffix`, cut to 1023 bytes. `flags` are PROF_RECORD,
    // PROF_LOG and PROF_BREAK; with 0 the calls do nothing. A measurement that can't be had is lost, with a
    // line in the log unless it was for want of memory. Brackets may nest, and the same name may be open more
    // than once. Not for code that runs at interrupt level.

    // Opens a bracket; what the call itself takes is not measured.
    // Context: thread.
    void (*_enter_prof_func)(const char *prefix, const char *suffix, int32_t flags);

    // Closes a bracket: the same thread, name and flags as at the enter, or nothing is found to close.
    // Context: thread.
    void (*_exit_prof_func)(const char *prefix, const char *suffix, int32_t flags);

    // -- Kept for their positions: they read nothing and do nothing.

    // Context: any.
    void (*log_data_path)(void);
    // Context: any.
    void (*print_memuse)(void);

    // -- Endpoints; their record is in <zarn/zarn_endpoint.h>, hooks on their events in
    // <zarn/zarn_endpoint_hooks.h>.
    //
    // Each operation takes the lock of the endpoint that it is called for (`ep_ready_endpoint` that of the
    // parent) and calls hooks and protocols with it held, so none of those may call back on that endpoint. A
    // spawn holds the listener's while the stack of the child is loaded. An endpoint belongs to the client
    // that created it; a child belongs to its listener until it is dequeued.

    // Makes an endpoint with a chain of the "out" stack (key1, key2) of `family`, protocols initialised from
    // the last named to the first. On 0 `*out` is the endpoint, and a reference on the family goes with it.
    // On failure `*out` is null and nothing is left: the status of `get_outbound_protos`, or -1 when memory,
    // a lock or a protocol refuses.
    // Context: blocks. Fails: -1, ERR_NO_FAMILY, ERR_NO_STACK, ERR_NO_MEMORY.
    int32_t (*ep_new_endpoint)(zarn_endpoint_t **out, int32_t family, int32_t key1, int32_t key2);

    // Deletes the endpoint, the children on its lists before it, theirs before them, each with its chain. The
    // caller owns the endpoint, no other call on it is under way, and its hooks are off. For the endpoint
    // itself the caller gives the family reference back afterwards: `release_family_ref` with the `family`
    // noted before. Those of the children that go along are given back here.
    // Context: blocks.
    void (*ep_delete_endpoint)(zarn_endpoint_t *ep);

    // Makes a child from the listener's stack, on its pending list, with copies of the inherited blob, both
    // copied words and both tunings. Null, with nothing changed, when the backlog is used up, the listener is
    // closed, an inherited blob exceeds EP_BLOB_BYTES, or the child can't be made.
    // Context: blocks. Fails: null.
    zarn_endpoint_t *(*ep_spawn_endpoint)(zarn_endpoint_t *parent);

    // Hands out the child that has been ready longest, or null when there is none. It becomes the caller's,
    // who deletes it like an endpoint of its own making, and no longer counts against the backlog. Doesn't
    // wait.
    // Context: blocks. Fails: null.
    zarn_endpoint_t *(*ep_dequeue_endpoint)(zarn_endpoint_t *listener);

    // Moves a pending child to the end of its listener's ready list and raises EP_EVENT_READY there, with the
    // value 1. Once per child. Without effect on a child that was handed out and when the listener is closed.
    // Context: blocks.
    void (*ep_ready_endpoint)(zarn_endpoint_t *child);

    // Sets how many children the listener may hold. Those above the new limit are deleted: pending ones,
    // newest first, then ready ones, oldest first. A new endpoint has 0; a negative limit deletes all and
    // refuses new ones. Not for an endpoint that is being deleted. 0, or the error of the unlock.
    // Context: blocks. Fails: a kernel status.
    int32_t (*ep_set_backlog)(zarn_endpoint_t *listener, uint32_t backlog);

    // Calls the hooks of `event` with `value`, one-shot hooks for the last time. EP_EVENT_STORED stores the
    // value in `event2_value` before. 0, ERR_BAD_VALUE for an event that doesn't exist, or the error of the
    // unlock.
    // Context: blocks. Fails: ERR_BAD_VALUE, a kernel status.
    int32_t (*ep_notify_endpoint)(zarn_endpoint_t *ep, uint32_t event, uint32_t value);

    // -- Notifications.

    // Sends the message of <zarn/zarn_notify.h> to the module "network/zarn_notify", which is acquired for
    // the call. The payload is copied: the memory is the caller's again on return; null sends `length` zeros.
    // 0 when it was delivered, otherwise -1, with lines in the log.
    // Context: blocks. Fails: -1.
    int32_t (*zarn_notify)(uint32_t kind, uint32_t detail, void *payload, uint32_t length);
} zarn_util_module_t;

#ifdef __cplusplus
}

// Clients call by position: nothing is ever reordered or inserted. Position 1 stands behind the three words
// of the head.
#define ZARN_UTIL_POSITION(position, operation) \
    static_assert(offsetof(zarn_util_module_t, operation) == (2 + (position)) * sizeof(void *))
ZARN_UTIL_POSITION(1, new_zarn_data);
ZARN_UTIL_POSITION(2, delete_zarn_data);
ZARN_UTIL_POSITION(3, isafe_delete_zarn_data);
ZARN_UTIL_POSITION(4, add_free_element);
ZARN_UTIL_POSITION(5, copy_zarn_data);
ZARN_UTIL_POSITION(6, clone_zarn_data);
ZARN_UTIL_POSITION(7, coalesce_zarn_data);
ZARN_UTIL_POSITION(8, prepend_zarn_data);
ZARN_UTIL_POSITION(9, append_zarn_data);
ZARN_UTIL_POSITION(10, insert_zarn_data);
ZARN_UTIL_POSITION(11, trim_zarn_data);
ZARN_UTIL_POSITION(12, get_data_memory_map);
ZARN_UTIL_POSITION(13, get_zarn_data_iovecs);
ZARN_UTIL_POSITION(14, count_zarn_data_iovecs);
ZARN_UTIL_POSITION(15, copy_from_zarn_data);
ZARN_UTIL_POSITION(16, map_to_zarn_data);
ZARN_UTIL_POSITION(17, disassociate_zarn_data);
ZARN_UTIL_POSITION(18, get_zarn_data_checksum);
ZARN_UTIL_POSITION(19, copy_and_checksum_data);
ZARN_UTIL_POSITION(20, get_zarn_checksum);
ZARN_UTIL_POSITION(21, incremental_checksum);
ZARN_UTIL_POSITION(22, lock_zarn_data);
ZARN_UTIL_POSITION(23, unlock_zarn_data);
ZARN_UTIL_POSITION(24, zarn_create_tallylock);
ZARN_UTIL_POSITION(25, zarn_delete_tallylock);
ZARN_UTIL_POSITION(26, zarn_lock_tallylock);
ZARN_UTIL_POSITION(27, zarn_unlock_tallylock);
ZARN_UTIL_POSITION(28, create_zarn_timer);
ZARN_UTIL_POSITION(29, delete_zarn_timer);
ZARN_UTIL_POSITION(30, zarn_set_timer_hook);
ZARN_UTIL_POSITION(31, zarn_set_timer);
ZARN_UTIL_POSITION(32, zarn_cancel_timer);
ZARN_UTIL_POSITION(33, zarn_timer_appointment);
ZARN_UTIL_POSITION(34, create_rwlock);
ZARN_UTIL_POSITION(35, delete_rwlock);
ZARN_UTIL_POSITION(36, read_lock);
ZARN_UTIL_POSITION(37, read_unlock);
ZARN_UTIL_POSITION(38, write_lock);
ZARN_UTIL_POSITION(39, write_unlock);
ZARN_UTIL_POSITION(40, upgrade_to_write);
ZARN_UTIL_POSITION(41, downgrade_to_read);
ZARN_UTIL_POSITION(42, create_zarn_fifo);
ZARN_UTIL_POSITION(43, delete_zarn_fifo);
ZARN_UTIL_POSITION(44, enqueue_zarn_fifo_data);
ZARN_UTIL_POSITION(45, dequeue_zarn_fifo_data);
ZARN_UTIL_POSITION(46, clear_zarn_fifo);
ZARN_UTIL_POSITION(47, zarn_masked_cmp);
ZARN_UTIL_POSITION(48, zarn_masked_copy);
ZARN_UTIL_POSITION(49, get_outbound_protos);
ZARN_UTIL_POSITION(50, get_inbound_proto);
ZARN_UTIL_POSITION(51, get_family_ref);
ZARN_UTIL_POSITION(52, release_family_ref);
ZARN_UTIL_POSITION(53, get_config_int32);
ZARN_UTIL_POSITION(54, get_config_bool);
ZARN_UTIL_POSITION(55, zarn_falloc);
ZARN_UTIL_POSITION(56, zarn_zalloc);
ZARN_UTIL_POSITION(57, zarn_malloc);
ZARN_UTIL_POSITION(58, zarn_free);
ZARN_UTIL_POSITION(59, new_mempool);
ZARN_UTIL_POSITION(60, delete_mempool);
ZARN_UTIL_POSITION(61, mp_alloc);
ZARN_UTIL_POSITION(62, mp_free);
ZARN_UTIL_POSITION(63, cache_address_spec);
ZARN_UTIL_POSITION(64, free_address_spec);
ZARN_UTIL_POSITION(65, get_cached_memory_map);
ZARN_UTIL_POSITION(66, _enter_prof_func);
ZARN_UTIL_POSITION(67, _exit_prof_func);
ZARN_UTIL_POSITION(68, log_data_path);
ZARN_UTIL_POSITION(69, print_memuse);
ZARN_UTIL_POSITION(70, ep_new_endpoint);
ZARN_UTIL_POSITION(71, ep_delete_endpoint);
ZARN_UTIL_POSITION(72, ep_spawn_endpoint);
ZARN_UTIL_POSITION(73, ep_dequeue_endpoint);
ZARN_UTIL_POSITION(74, ep_ready_endpoint);
ZARN_UTIL_POSITION(75, ep_set_backlog);
ZARN_UTIL_POSITION(76, ep_notify_endpoint);
ZARN_UTIL_POSITION(77, zarn_notify);
#undef ZARN_UTIL_POSITION
static_assert(sizeof(zarn_util_module_t) == 80 * sizeof(void *));
#endif

#endif
