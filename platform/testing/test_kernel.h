// SPDX-License-Identifier: MIT
//
// A kernel for tests: everything of platform/kern.h and the heap, behind a module whose objects are linked
// statically. It stands behind the tests of this module, and serves a test of a protocol module as well.
//
// The program is linked with -Wl,--wrap=malloc,--wrap=calloc,--wrap=free,--wrap=strdup, so that the heap as
// the module sees it goes through this kernel, which can refuse it and counts what is out.
//
// - Time stands still until a test advances it. A thread that sleeps, or waits with a time limit, does so
//   on this clock.
// - Threads are real. A test knows where they are: `wait_until_asleep`, `wait_until_blocked`,
//   `stopping_point`.
// - Every object is counted: `leftovers` names what is still there. Every call is written down: `journal`.
// - Every call that may fail does so on demand: `fail_call`, `fail_from`.
// - What a kernel forbids is written down as a violation: heap and sleep at interrupt level, giving back
//   what isn't there.
//
// A test that waits for something which doesn't come stops the program after 20 seconds and prints where
// everybody is. Any thread may call anything here, except that `reset` wants the module's threads gone.

#ifndef ZARN_PLATFORM_TESTING_TEST_KERNEL_H
#define ZARN_PLATFORM_TESTING_TEST_KERNEL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/kern.h"

namespace test_kernel {

// ---- The whole

// A fresh kernel: no objects, no faults armed, nothing provided, empty journal and log, the clock at
// kStartTime. Threads that a failed test left behind are never heard of again: their next kernel call
// doesn't return.
void reset();

// One line for each object that is alive: semaphores, threads, regions, heap blocks, module references,
// settings handles, wired ranges, debugger commands. Empty when there are none. Waits for threads that are
// on their way out.
std::string leftovers();

// One line for each thing that no caller may do, since the last reset or call of this. Empty when all went
// well.
std::string take_violations();

// ---- Time and threads

constexpr int64_t kStartTime = 10'000'000;

int64_t now();
void advance(int64_t microseconds);  // wakes whoever is due
void set_time(int64_t time);         // the same, to an absolute time; backwards wakes nobody

// As long as this lives, time goes by itself: from one wake-up to the next, whenever somebody waits for one.
// For a stop that waits for a sleeping thread:
//
//     running_clock clock;
//     uninit_zarn_timers();
class running_clock {
 public:
    running_clock();
    ~running_clock();
    running_clock(const running_clock &) = delete;

 private:
    bool stop_ = false;
    std::thread thread_;
};

void wait_until_asleep(const char *thread);  // until the thread of that name sleeps, with its wake-up ahead
void wait_until_gone(const char *thread);    // until no thread of that name exists
int32_t thread_id(const char *name);         // -1 when there is none
int32_t thread_priority(const char *name);

// The caller is thread `id` as long as this lives.
class as_thread {
 public:
    explicit as_thread(int32_t id);
    ~as_thread();
    as_thread(const as_thread &) = delete;

 private:
    int32_t before_;
};

// What kern_thread_info tells of every thread.
void set_thread_times(int64_t user, int64_t kernel);

// The caller runs at interrupt level as long as this lives. Whatever allocates, blocks or reschedules is a
// violation.
class interrupt_level {
 public:
    interrupt_level();
    ~interrupt_level();
    interrupt_level(const interrupt_level &) = delete;
};

// ---- Semaphores

// Results of semaphore calls that don't succeed.
constexpr int32_t kDeadSemaphore = -1001;
constexpr int32_t kTimedOut = -1002;
constexpr int32_t kInterrupted = -1003;
constexpr int32_t kBadCount = -1004;

// A kernel object, by its id or by its name.
struct object {
    object(int32_t by_id) : id(by_id) {}
    object(const char *by_name) : name(by_name) {}
    bool is(int32_t its_id, const std::string &its_name) const {
        return name.empty() ? id == its_id : name == its_name;
    }

    int32_t id = -1;
    std::string name;
};

int32_t sem_count(object sem);    // units that nobody has taken; -1 when there is no such semaphore
int32_t sem_waiters(object sem);  // threads in line
void wait_until_blocked(object sem, int32_t threads = 1);  // until that many threads stand in line
int32_t interrupt_waiters(object sem);  // those that allow it leave with kInterrupted; returns how many
int32_t sem_calls();                    // acquires and releases of all threads since the last reset
void set_next_sem(int32_t id);  // the id of the semaphore that is created next; a status to refuse it with

// Holds the first thread that makes a call on an object, before the call has any effect. The thread that
// set the point passes. Without an object every call of that name matches.
//
//     stopping_point window("sem_acquire", lock.sem);
//     std::thread contender([&] { zarn_lock_tallylock(&lock); });
//     window.wait();                        // the contender has counted itself and not yet acquired
//     zarn_unlock_tallylock(&lock);
//     window.go_on();
//
// Calls are named as in the journal; "sleep", "time" and "thread_self" are not written there but can be
// stopped at, with the name or id of the calling thread as the object.
class stopping_point {
 public:
    explicit stopping_point(const char *call, object on = "");
    ~stopping_point();  // lets the thread go on
    stopping_point(const stopping_point &) = delete;

    void wait();         // until a thread stands here
    bool taken() const;  // whether one does, or did
    void go_on();        // lets it pass; without one, the point is withdrawn

    struct record;

 private:
    std::shared_ptr<record> record_;
};

// ---- Journal, log, debugger

// What has been called, in order, without the `kern_`: `sem_create "fifo_lock" 0`, `sem_acquire "fifo" 1 9`
// (units, flags), `module_acquire "network/udp"`. With a prefix, only the lines that begin with it.
std::vector<std::string> journal(const std::string &prefix = "");
void clear_journal();

std::vector<std::string> log_lines();  // one entry for each kern_log
void clear_log();

std::string take_debug_output();  // what the debugger has printed since the last take
bool has_debug_command(const std::string &name);
std::string debug_help(const std::string &name);      // "" when there is no such command
int32_t debug(const std::vector<std::string> &line);  // runs the command line[0]; -1 when there is none

// ---- Faults

enum fallible : unsigned {
    kHeap = 1,  // malloc, calloc, strdup
    kSemCreate = 2,
    kThreadSpawn = 4,
    kRegionCreate = 8,
    kSettings = 16,  // load and tree
    kModuleAcquire = 32,
    kMemoryMap = 64,  // finds no mapping
    kThreadInfo = 128,
    kEverything = 255,
    kDebugCommand = 256  // whose failure nobody has to care about
};

constexpr int32_t kRefused = -1100;  // the result of a call that fails on demand and returns a status

// Calls of the kinds in `mask` are counted from here on, and the k-th fails (the first is 1), or all from
// the k-th on.
void fail_call(int32_t k, unsigned mask = kEverything);
void fail_from(int32_t k, unsigned mask = kEverything);
void fail_nothing();
int32_t refusals();  // calls that have failed on demand since the last arming
void refused();      // called at each of them: a place for a breakpoint

// ---- Heap

int32_t heap_blocks();            // blocks from malloc, calloc and strdup that are out
bool on_heap(const void *block);  // whether `block` is one of them
int32_t heap_calls();             // all calls of the four since the last reset

// ---- Settings and modules

// Makes `text` the settings file `name`. A line is a parameter: its name, its values, and with a `{` at the
// end its children up to the line `}`. Words are divided by blanks and may be quoted; `""` is an empty
// word, `#` starts a comment.
void provide_settings(const std::string &name, const std::string &text);
void withdraw_settings(const std::string &name);

void provide_module(const std::string &path, const void *table);
void withdraw_module(const std::string &path);  // acquiring it fails from here on
int32_t module_references(const std::string &path);

// ---- Memory map

// What kern_memory_map does with each page, which is a run of its own: physical = virtual + offset. A call
// fills no more than `runs` entries, as many as there are by default. A range can be without any mapping.
void set_physical_offset(intptr_t offset);
void set_most_runs(int32_t runs);
void unmap(const void *address, uint32_t length);

}  // namespace test_kernel

#endif
