// SPDX-License-Identifier: MIT
//
// The hosted kernel: kern.h on threads, futexes and signals of a Linux process. This is the side that the
// program and the tests see: where things lie, what is alive, interrupts. It links into the program, which
// exports its symbols to the modules that get loaded.
//
// - Thread level is any thread of the process; one that the kernel didn't spawn gets an id at its first use.
// - Interrupt level is a handler installed with hosted_install_interrupt. While a thread is inside one of the
//   kernel's own critical sections its interrupts are held back and run right behind, as a kernel masks them.
// - Everything here is for thread level, and may be called by any thread.

#ifndef ZARN_PLATFORM_HOSTED_HOSTED_KERNEL_H
#define ZARN_PLATFORM_HOSTED_HOSTED_KERNEL_H

#include <signal.h>

#include <cstddef>
#include <cstdint>

#include "platform/kern.h"

// What the operations of kern.h fail with here. A port may have others: callers test for below 0.
enum : int32_t {
    KERN_ERR_NO_MEMORY = static_cast<int32_t>(0x80000000),    // no memory, or a table of the kernel is full
    KERN_ERR_BAD_VALUE = static_cast<int32_t>(0x80000005),    // an argument out of its range
    KERN_ERR_WOULD_BLOCK = static_cast<int32_t>(0x8000000b),  // no units, and a timeout of 0
    KERN_ERR_TIMED_OUT = static_cast<int32_t>(0x80000009),
    KERN_ERR_INTERRUPTED = static_cast<int32_t>(0x8000000a),  // a signal ended the wait
    KERN_ERR_NOT_ALLOWED = static_cast<int32_t>(0x8000000f),  // would have to wait at interrupt level
    KERN_ERR_BAD_SEM = static_cast<int32_t>(0x80001001),  // no semaphore, or it was deleted during the wait
    KERN_ERR_BAD_THREAD = static_cast<int32_t>(0x80001100),
    KERN_ERR_BAD_REGION = static_cast<int32_t>(0x80001200),
    KERN_ERR_BAD_ADDRESS = static_cast<int32_t>(0x80001201),  // not mapped
    KERN_ERR_NAME_TAKEN = static_cast<int32_t>(0x80001300),
    KERN_ERR_NOT_FOUND = static_cast<int32_t>(0x80001301),
    KERN_ERR_BAD_MODULE = static_cast<int32_t>(0x80001302),  // no module there, or it can't be used
};

// Directories, "." at first. A path's text is copied; one of 4096 bytes or more is refused with
// KERN_ERR_BAD_VALUE.

// Where modules lie: `network/x` is looked for in the file `network/x.so` under this directory.
int32_t hosted_set_module_directory(const char *path);
// Where settings files lie. `hosted_settings_directory` copies the path and returns its length.
int32_t hosted_set_settings_directory(const char *path);
size_t hosted_settings_directory(char *path, size_t size);

// Log

// Sends every line of the log to `sink`, or to stderr again with null. One line at a time: the sink needs no
// lock, and it must not log. A line that is logged at interrupt level goes to stderr, because a sink may
// reach the heap.
void hosted_set_log(void (*sink)(void *context, const char *text), void *context);

// Debugger

// Runs a command line such as "prof_kern 5" and sends what it prints to `output`; with null to the log.
// Returns the command's result, or KERN_ERR_NOT_FOUND for a name that nobody registered and
// KERN_ERR_BAD_VALUE for an empty line. Commands run on the calling thread, one at a time, and the machine
// isn't stopped by that: what they read without a lock may be changing unless the caller keeps it quiet.
int32_t hosted_run_debug_command(const char *line, void (*output)(void *context, const char *text),
                                 void *context);

// Calls `visit` for every command, in order of registration, with their table locked: it registers and
// removes none.
void hosted_list_debug_commands(void (*visit)(void *context, const char *name, const char *help),
                                void *context);

// What kern_debug_enter does when it has logged its message: it stops all other threads for as long as
// `entered` runs, on the calling thread; null (as at first) comes back at once. `running` threads could not
// be stopped. Threads that enter at the same time take turns. At interrupt level, inside a critical section,
// and while the caller is in the debugger already, there is the line in the log and no more.
void hosted_set_debug_entry(void (*entered)(const char *message, int32_t running));

// Stops every other thread that the kernel knows: those of kern_thread_spawn and those that have asked for
// their id. A thread stops where it holds no lock of this kernel or of the C library, so the caller may go on
// using both; locks that are made of semaphores stay as they are. Threads that come meanwhile stop, too. Time
// goes on: timeouts run out and timers fall due, and that shows as soon as the threads go on. Waits for
// another thread that has stopped the others, and then `patience` usec at most for threads to come to such a
// place. Returns how many have not; they go on running. KERN_ERR_NOT_ALLOWED at interrupt level, inside a
// critical section, and when the caller has stopped the others already.
int32_t hosted_stop_threads(int64_t patience);

// Lets them go on. For the thread that has stopped them.
void hosted_continue_threads();

// Interrupts and signals

// Makes the handler of `signal` run at interrupt level: it may call what kern.h allows there and must not
// wait, call the heap or log to a sink. Interrupts don't nest on a thread. Restarts system calls. With a null
// handler the signal is ignored from then on, what is still on its way included. Returns 0 or
// KERN_ERR_BAD_VALUE for a signal that can't be caught, or that is the kernel's own: SIGRTMAX.
int32_t hosted_install_interrupt(int signal, void (*handler)(const siginfo_t *info));

// Makes `signal` end an interruptible wait of the thread that it meets, from the moment that the thread has
// joined the semaphore's line. `handler`, which may be null, runs first; it may set a flag and must not call
// the kernel. Any other handler that is installed without SA_RESTART ends a wait too, but one that arrives
// just before the thread sleeps is missed.
int32_t hosted_install_signal(int signal, void (*handler)(int signal));

// Whether the caller runs at interrupt level.
bool hosted_at_interrupt_level();

// What is alive

struct hosted_semaphore_info {
    int32_t id;
    char name[32];  // cut
    int32_t team;   // 1 as long as nobody gave it to another
    int32_t count;  // units that nobody has taken
    int32_t waiters;
    int32_t holder;  // the thread that took units last and has given none back since; 0 when it isn't known
};

struct hosted_thread_info {
    int32_t id;
    char name[32];      // cut
    int32_t priority;   // as given to kern_thread_spawn, 10 for the others
    bool spawned;       // by kern_thread_spawn
    bool suspended;     // never resumed yet
    int32_t waits_for;  // the semaphore in whose line it stands, 0 for none
    bool sleeps;        // in kern_sleep_us
    bool stopped;       // by hosted_stop_threads
};

struct hosted_module_info {
    char path[128];
    int32_t references;
    int32_t owner;  // the thread that starts or stops it just now, 0 for none
};

struct hosted_counts {
    int32_t semaphores;
    int32_t threads;  // spawned ones whose function has not returned
    int32_t regions;
    int32_t locked_ranges;  // kern_memory_lock minus kern_memory_unlock
    int32_t modules;        // mapped ones
    int32_t module_references;
    int32_t debug_commands;
};

hosted_counts hosted_count_objects();

// Logs one line for each semaphore, spawned thread, region, locked range, module and debugger command that
// is alive, and returns how many lines.
int32_t hosted_log_objects();

// Fill `table` with at most `capacity` entries, and return how many objects there are.
int32_t hosted_list_semaphores(hosted_semaphore_info *table, int32_t capacity);
int32_t hosted_list_threads(hosted_thread_info *table, int32_t capacity);
int32_t hosted_list_modules(hosted_module_info *table, int32_t capacity);

// How many threads stand in the line of `sem`; -1 if there is no such semaphore.
int32_t hosted_count_waiters(int32_t sem);

// How many semaphores have this name, as far as a record keeps it.
int32_t hosted_count_semaphores_named(const char *name);

// Waits until no more than `count` spawned threads are left; false when `timeout` usec have passed before. A
// thread that has told its owner of its end may still be on its way out.
bool hosted_wait_for_threads(int32_t count, int64_t timeout);

#endif
