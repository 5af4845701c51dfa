// SPDX-License-Identifier: MIT
//
// What the module asks of the kernel. A port supplies these operations, those of platform/skiplist.h and the
// few C library functions of platform/libc.h, and nothing else. The module finds them as undefined symbols
// when it is loaded; platform/hosted/ is one such kernel, for a Linux process.
//
// What holds for every operation, where it says nothing else:
//
// - A status is 0 for success and negative for a failure. Which negative number is the port's choice: the
//   module tests for below 0 and hands the number on. Ids of semaphores, threads and regions are not
//   negative.
// - Any number of threads may call at the same time, on the same object too. The port locks what it must.
// - Thread level: the caller can be put to sleep, and it may hold locks that the module has built on
//   semaphores. The port holds no lock of its own while it calls std_ops, a thread's function or a debugger
//   command: they use these operations themselves.
// - Interrupt level: the caller must not sleep. Only the atomics and kern_sem_release_ex with
//   KERN_SEM_NO_RESCHEDULE are called there. (The heap is not, as long as the pools have blocks.)
// - "Blocks": the call may sleep. Whatever doesn't say so returns without waiting for another thread, but for
//   short locks of the port.
// - Texts are never null unless it is said, and end with a zero byte. The port copies a name that it keeps.
//   Names need not differ. Other pointers are valid for the length of the call.
// - An operation that fails has no effect.
// - What one thread has written before it releases a unit, resumes a thread or returns from a module's start
//   is seen by the thread that takes the unit, is resumed or gets the module.

#ifndef ZARN_PLATFORM_KERN_H
#define ZARN_PLATFORM_KERN_H

#include <stdint.h>

#include <zarn/memory_run.h>

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error \
    "zarn_util supports little-endian targets only: its checksums and masked comparisons read words in host order"
#endif

#ifdef __cplusplus
extern "C" {
#define KERN_NORETURN [[noreturn]]
#else
#define KERN_NORETURN _Noreturn
#endif

// Atomics: inline, because an uncontended lock has to cost one atomic instruction. Full barriers
// (sequentially consistent); each returns the value before. `address` is aligned. Any level.
static inline int32_t kern_fetch_add(int32_t *address, int32_t delta) {
    return __atomic_fetch_add(address, delta, __ATOMIC_SEQ_CST);
}

static inline int32_t kern_fetch_or(int32_t *address, int32_t bits) {
    return __atomic_fetch_or(address, bits, __ATOMIC_SEQ_CST);
}

static inline int32_t kern_fetch_and(int32_t *address, int32_t bits) {
    return __atomic_fetch_and(address, bits, __ATOMIC_SEQ_CST);
}

// Semaphores: counts with a name that threads wait on.
//
// First come, first served, and a release hands over: units go at once to the threads that already wait, in
// the order of their arrival, and an acquire that comes later can't take them, not even by the thread that
// released. A waiter for several units gets them together and is not overtaken while it is first in line. The
// clear handshake of the FIFOs and the stop of the deferred deletion rest on this: a thread there releases
// units for others and then waits for their return. A thread that times out, is interrupted or finds its
// semaphore deleted leaves the line without losing a unit.
//
// An id that is no live semaphore, -1 included, is an ordinary failure: locks rely on it after their
// deletion. An id should not come back soon.

// Acquire: a signal to the thread ends the wait with a failure. The kernel's own interrupts don't.
#define KERN_SEM_INTERRUPTIBLE 1u
// Release: the caller keeps the processor, and woken threads run when they are next scheduled.
#define KERN_SEM_NO_RESCHEDULE 2u
// Acquire: the timeout counts from now. Without this flag there is none, whatever `timeout` says.
#define KERN_SEM_RELATIVE_TIMEOUT 8u
#define KERN_TIMEOUT_FOREVER INT64_MAX
// The kernel's own team: what belongs to it outlives the program that made it.
#define KERN_TEAM 2

// A new semaphore with `count` (0 or more) units. Returns its id, or a failure. Thread level.
int32_t kern_sem_create(int32_t count, const char *name);

// Ends a semaphore. Every waiter returns with a failure, and so does whoever uses the id from then on. Thread
// level.
int32_t kern_sem_delete(int32_t sem);

// One unit, with no flags and no time limit. Blocks.
int32_t kern_sem_acquire(int32_t sem);

// Takes `units` (1 or more) together, or none. `flags`: KERN_SEM_INTERRUPTIBLE, KERN_SEM_RELATIVE_TIMEOUT.
// `timeout` in usec; 0 with the flag for a timeout takes what is there without waiting. Blocks.
int32_t kern_sem_acquire_ex(int32_t sem, int32_t units, uint32_t flags, int64_t timeout);

// One unit, with no flags. Thread level: the woken thread may run at once.
int32_t kern_sem_release(int32_t sem);

// Gives `units`. A count of 0 or below is a failure with no effect, and callers do pass that. With
// KERN_SEM_NO_RESCHEDULE at any level, with flags 0 at thread level.
int32_t kern_sem_release_ex(int32_t sem, int32_t units, uint32_t flags);

// Makes the semaphore belong to `team`. The module ignores the result. Thread level.
int32_t kern_sem_set_owner(int32_t sem, int32_t team);

// Threads and time

// Makes a kernel thread that will run `function(argument)` once it is resumed, and returns its id or a
// failure. `priority`: higher is more urgent; 5 is for work that can wait, and 20 is real time: a wheel of
// timers that ticks every 4096 usec. The thread ends when the function returns; its result means nothing and
// nobody waits for it through the kernel. The function's code may be unmapped soon after it has told its
// owner of its end, so a port that unloads modules sees to it that the thread has left them. Thread level;
// may block for memory.
int32_t kern_thread_spawn(int32_t (*function)(void *), const char *name, int32_t priority, void *argument);

// Starts a thread that was spawned. Thread level.
int32_t kern_thread_resume(int32_t thread);

// The id of the calling thread, never negative. Fast: read-write locks call it on every operation. Thread
// level.
int32_t kern_thread_self(void);

// Fills a record of `size` bytes, always 76: the thread's user time stands at byte 52 and its kernel time at
// byte 60, both int64 in usec since the thread began, unaligned. The module reads nothing else. Thread level.
int32_t kern_thread_info(int32_t thread, void *record, uint32_t size);

// Sleeps for that time or a little longer; 0 or below returns at once. The module ignores the result. Blocks.
int32_t kern_sleep_us(int64_t microseconds);

// A clock in usec: monotonic, above 0, the same for all threads. Thread level.
int64_t kern_time_us(void);

// Memory. The heap is the C library's malloc, calloc, free and strdup (platform/libc.h).

// One contiguous range of `size` bytes, a multiple of the page size; its address goes to `*address`. Returns
// the region's id or a failure. Called with `address_spec` 4 (anywhere), `lock_mode` 3 (resident and
// physically contiguous, as far as the kernel has that) and `protection` 3 (read and write). The range is
// aligned to pages; its contents don't matter. Blocks.
int32_t kern_region_create(const char *name, void **address, uint32_t address_spec, uint32_t size,
                           uint32_t lock_mode, uint32_t protection);

// Gives the range back. Blocks.
int32_t kern_region_delete(int32_t region);

// Wires a range: its pages stay where they are until the unlock of the same range. Locks of the same page
// count. `flags` is 0. Any bytes that a client has put into a buffer may come here, so a range that can't be
// wired is a failure and no more. The module ignores the results: a lock that failed is followed by an unlock
// like any other, which must not take away another's. Blocks.
int32_t kern_memory_lock(void *address, uint32_t length, uint32_t flags);
int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t flags);

// Writes the physical runs of the range in order, at most `entries` (1 or more) of them; they add up to
// `length` if there is room, and the module asks again for what is left if there isn't. A page is one run or
// a part of one, and no run is empty but for the first one when the range has no mapping. The entries behind
// the last run stay as they are: they are 0 when the module calls, and it looks at the sizes and not at the
// result, which is the number of runs or a failure. Blocks, and may fault.
int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries);

// Settings: a file of parameters, each with a name, values and parameters below it. Its syntax and place are
// the port's. What a handle gave (strings, tree) lives until the handle is unloaded. All block.

typedef struct settings_parameter {
    const char *name;
    int32_t value_count;
    const char *const *values;  // in the order of the file
    int32_t child_count;
    const struct settings_parameter *children;  // in the order of the file
} settings_parameter;

typedef struct settings_tree {
    int32_t parameter_count;
    const settings_parameter *parameters;
} settings_tree;

// Reads the settings file of this bare name, such as "zarn.conf", as it is now. Null when it can't be had.
void *kern_settings_load(const char *name);

// Closes a handle. Called once for every handle that a load gave. The module ignores the result.
int32_t kern_settings_unload(void *handle);

// The value of the top-level parameter `key`, `if_unknown` (may be null) when there is no such parameter or
// it has several values, or `if_no_value` (may be null) when it has none.
const char *kern_settings_string(void *handle, const char *key, const char *if_unknown,
                                 const char *if_no_value);

// The same, read as a boolean: 0 or 1, or one of the two given values. Which words are true and false is the
// port's; any other word counts as unknown.
uint8_t kern_settings_bool(void *handle, const char *key, uint8_t if_unknown, uint8_t if_no_value);

// The whole file, or null. What it points to is never written by the module.
const settings_tree *kern_settings_tree(void *handle);

// Modules, as include/zarn/module.h tells it to their clients. The module itself acquires and releases
// others, from inside its locks: the loader calls std_ops of one module while it may be in the middle of
// another's, and must not hold a lock of its own across that. Both block.

// Finds the module `path` ("network/ipv4", at most 127 characters), loads and starts it if nobody has it yet,
// adds a reference and stores the address of its record in `*table`. A start that gives anything but 0 fails
// the call and leaves the module unloaded. Starts and stops of one module never run at the same time.
int32_t kern_module_acquire(const char *path, void **table);

// Drops one reference; with the last one the module is stopped, and unloaded if its stop gave 0. Otherwise it
// stays in service, and the next last release asks again. The module ignores the result.
int32_t kern_module_release(const char *path);

// Debugger, log, halt
//
// Formats are those of printf with %ld for a `long`, %Ld for a `long long`, and %p; arguments match them on
// every width.

typedef int32_t (*kern_debug_command)(int32_t argc, char **argv);

// Registers a debugger command: `argv[0]` is its name, and `argc` is 1 or more. Commands take no locks,
// because they run with the machine stopped. The module ignores the result. It may register a command again
// that is there already: a failure, or the same command once more, but one remove ends it, because its code
// may be unmapped behind that. Thread level.
int32_t kern_debug_add_command(const char *name, kern_debug_command function, const char *help);

// Removes it; a failure, and nothing else, if no command of this name has this function. Thread level.
int32_t kern_debug_remove_command(const char *name, kern_debug_command function);

// Prints on the debugger's console. Called from debugger commands only.
void kern_debug_print(const char *format, ...);

// Stops in the debugger and comes back when it is left. Thread level.
void kern_debug_enter(const char *message);

// Adds to the kernel's log. The text brings its own end of line. Thread level; may block briefly.
void kern_log(const char *format, ...);

// Stops the system with a message. For what can't go on: a corrupt record. Thread level.
KERN_NORETURN void kern_halt(const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
