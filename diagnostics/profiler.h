// SPDX-License-Identifier: MIT
//
// The profiler: measurements under way, the sums of the finished ones, and the debugger commands that print
// these. What clients see is in <zarn/zarn_profiler.h>, what each operation promises stands with the table of
// <zarn/zarn_util.h>.
//
//     _enter_prof_func -> gPending: a record for each bracket that is open
//     _exit_prof_func  -> gFinished: a record for each name, which adds up
//     prof_kern, ...   -> gPad: copies of the finished records, sorted and printed
//
// Everything is there for the reports only if the debugger can work without the heap: the pad is made ahead
// and always has more room than there are names.

#ifndef ZARN_DIAGNOSTICS_PROFILER_H
#define ZARN_DIAGNOSTICS_PROFILER_H

#include <stddef.h>
#include <stdint.h>

#include "platform/skiplist.h"

constexpr uint32_t kProfilerNameSize = 1024;

// One measurement, or the running total of one name. From malloc, back with free. Times in usec: the thread's
// and the clock's at the start while pending, what has passed when finished.
struct profiler_record {
    char name[kProfilerNameSize];  // ends with a zero; the key of both lists
    int64_t real;
    int64_t user;
    int64_t kernel;
    int32_t thread;          // that started it; of a total, the thread of the first measurement finished
    int32_t id;              // unique among the pending ones, 0 or more
    int32_t count;           // measurements in it
    profiler_record *match;  // in a search key only: the record that pending_cmp has found
};

static_assert(offsetof(profiler_record, real) == 1024 && offsetof(profiler_record, kernel) == 1040);
static_assert(offsetof(profiler_record, thread) == 1048 && offsetof(profiler_record, count) == 1056);
static_assert(offsetof(profiler_record, match) == (sizeof(void *) == 4 ? 1060 : 1064));
static_assert(sizeof(profiler_record) == (sizeof(void *) == 4 ? 1064 : 1072));

constexpr int32_t kProfilerNotStarted = (int32_t)0x80001000u;
constexpr uint32_t kProfilerFirstPad = 0x400;

// Atomic: the profiler's mutex, a semaphore of count 1. It has the value above as long as nobody has started
// the profiler, and a failure's status when its creation has failed. It guards all that follows and all
// records; the debugger reads them without it, with the machine stopped.
extern int32_t gLock;
extern int32_t gID;            // the next record's
extern skiplist *gPending;     // by pending_cmp; owns nothing; null together with gFinished
extern skiplist *gFinished;    // by finished_cmp, freed by freerec
extern uint32_t gNumInPad;     // records that the pad has room for
extern profiler_record *gPad;  // null when there was no memory

extern "C" {

// Operations of the table: see <zarn/zarn_util.h>.
void _enter_prof_func(const char *prefix, const char *suffix, int32_t flags);
void _exit_prof_func(const char *prefix, const char *suffix, int32_t flags);
}

// Start or finish a measurement under `name`, which is cut to what a record holds. What goes wrong is told in
// the log, and the measurement is lost. Thread level.
void start_profiler_record(const char *name);
void finish_profiler_record(const char *name);

// By name, thread and id. The key's `match` becomes the last item compared with it that has its name and
// thread.
int32_t pending_cmp(const void *item, const void *key);
// By name alone.
int32_t finished_cmp(const void *item, const void *key);
// Frees a record. Returns 0.
int32_t freerec(void *item);

// Gives everything back, measurements under way included, and removes the commands: all is as when the module
// was loaded. No call may be under way, and none may come until the module has been started again.
void uninit_profiler();

// The debugger commands `prof_kern [n]`, `prof_real [n]` and `prof_func [n]`: the finished records, the first
// `n` of them in order, all without `n`. They print nothing without a pad or a finished record. Return 0.
int32_t dbg_kernel(int32_t argc, char **argv);
int32_t dbg_real(int32_t argc, char **argv);
int32_t dbg_func(int32_t argc, char **argv);

// What they consist of. With the machine stopped.

// Copies the finished records into the pad, as many as it has room for, and returns how many.
uint32_t load_pad();
// Copies `item` to the element of the pad that the uint32_t at `position` tells, and counts that up.
int32_t inserter(void *item, void *position);
// Prints the first `n` elements of the pad.
void print_pad(uint32_t n);

// Highest first, by the low 32 bits of the time: right as long as two times differ by less than 2^31 usec.
int32_t kernel_cmp(const void *a, const void *b);
int32_t real_cmp(const void *a, const void *b);
// By name.
int32_t func_cmp(const void *a, const void *b);

#endif
