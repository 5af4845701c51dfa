// SPDX-License-Identifier: MIT
//
// Measurements: from the bracket to the sum of its name.
//
// At both ends the thread's id and the clock are read before anything else. The start samples a second time,
// last of all, so that the wait for the lock, the allocations and the insertion lie in front of the
// measurement; what the finish does lies behind its end.

#include "diagnostics/profiler.h"

#include <zarn/zarn_profiler.h>

#include "platform/kern.h"
#include "platform/libc.h"

int32_t gLock = kProfilerNotStarted;
int32_t gID = 0;
skiplist *gPending = nullptr;
skiplist *gFinished = nullptr;
uint32_t gNumInPad = kProfilerFirstPad;
profiler_record *gPad = nullptr;

// Atomic: whether the debugger's commands were registered. Not the same as started: a start whose semaphore
// failed with the very status that means "not started" leaves them behind.
static uint8_t gHasCommands = 0;

static constexpr struct {
    const char *name;
    int32_t (*function)(int32_t argc, char **argv);
    const char *help;
} kCommands[] = {{"prof_kern", dbg_kernel, "profiler stats sorted by kernel time"},
                 {"prof_real", dbg_real, "profiler stats sorted by real time"},
                 {"prof_func", dbg_func, "profiler stats sorted by function"}};

// An id below that of every pending record.
static constexpr int32_t kKeyId = -1;

// Appends `text` at `at` and returns where it ends; what would go past `last` is cut off.
static char *append_text(char *at, const char *last, const char *text) {
    while (at < last && *text != '\0')
        *at++ = *text++;
    *at = '\0';
    return at;
}

static void copy_name(char (&to)[kProfilerNameSize], const char *from) {
    append_text(to, to + kProfilerNameSize - 1, from);
}

static void build_name(char (&name)[kProfilerNameSize], const char *prefix, const char *suffix) {
    const char *last = name + kProfilerNameSize - 1;
    append_text(append_text(append_text(name, last, prefix), last, ":"), last, suffix);
}

// Leaves both times as they are when the kernel has none.
static int32_t read_thread_times(int32_t thread, int64_t *user, int64_t *kernel) {
    constexpr uint32_t kInfoSize = 76, kUserAt = 52, kKernelAt = 60;
    uint8_t info[kInfoSize];
    const int32_t status = kern_thread_info(thread, info, kInfoSize);
    if (status != 0) return status;
    memcpy(user, info + kUserAt, sizeof *user);
    memcpy(kernel, info + kKernelAt, sizeof *kernel);
    return 0;
}

static int32_t acquire_profiler(int32_t lock) {
    return kern_sem_acquire_ex(lock, 1, KERN_SEM_INTERRUPTIBLE, 0);
}

int32_t pending_cmp(const void *item, const void *key) {
    const profiler_record *a = (const profiler_record *)item;
    profiler_record *b = (profiler_record *)key;
    const int32_t order = strcmp(a->name, b->name);
    if (order != 0) return order;
    if (a->thread != b->thread) return a->thread - b->thread;
    b->match = (profiler_record *)a;
    return a->id - b->id;
}

int32_t finished_cmp(const void *item, const void *key) {
    return strcmp(((const profiler_record *)item)->name, ((const profiler_record *)key)->name);
}

int32_t freerec(void *item) {
    free(item);
    return 0;
}

// Creates the semaphore and registers the commands. Threads that make the first call together may all come
// here. The exchange lets one semaphore in, already the kernel's; whoever comes too late deletes its own and
// goes on with that of the winner, which alone registers. A creation that gives the very value for "not
// started" exchanges it for itself and so counts as a winner: the commands are there, the next call tries
// again.
//
// The exchange publishes no more than an id: what the lock guards is handed on by the semaphore, and the
// kernel knew that before anybody could read its id here.
static void start_profiler() {
    kern_log("initializing profiler\n");
    const int32_t lock = kern_sem_create(1, "profiler sem");
    if (lock >= 0) kern_sem_set_owner(lock, KERN_TEAM);
    int32_t expected = kProfilerNotStarted;
    if (!__atomic_compare_exchange_n(&gLock, &expected, lock, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
        if (lock >= 0) kern_sem_delete(lock);
        return;
    }
    __atomic_store_n(&gHasCommands, 1, __ATOMIC_RELAXED);  // read when nobody else is about
    for (const auto &command : kCommands)
        kern_debug_add_command(command.name, command.function, command.help);
}

// The pad and the two lists, as far as they are missing. False, with a line in the log, without lists; the
// pad can wait for the next start.
static bool create_tables_locked() {
    if (gPad == nullptr) {
        gPad = (profiler_record *)calloc(gNumInPad, sizeof(profiler_record));
        if (gPad == nullptr) kern_debug_enter("profiler couldn't alloc pad space\n");
    }
    if (gPending == nullptr) gPending = skiplist_new(pending_cmp, nullptr, 0);
    if (gPending == nullptr) {
        kern_log("profiler couldn't create pending list\n");
        return false;
    }
    if (gFinished == nullptr) gFinished = skiplist_new(finished_cmp, freerec, 0);
    if (gFinished == nullptr) {
        kern_log("profiler couldn't create finished list\n");
        // It is empty and was created just now: neither list is ever there without the other.
        skiplist_free(gPending);
        gPending = nullptr;
        return false;
    }
    return true;
}

// Ids stay 0 or more, above that of the key, and the difference of any two is an int32_t.
static int32_t next_id_locked() {
    const int32_t id = gID;
    gID = id < INT32_MAX - 1 ? id + 1 : 0;
    return id;
}

void start_profiler_record(const char *name) {
    const int32_t thread = kern_thread_self();
    const int64_t now = kern_time_us();
    profiler_record *record = (profiler_record *)malloc(sizeof(profiler_record));
    if (record == nullptr) return;
    copy_name(record->name, name);
    record->thread = thread;
    record->real = now;
    record->count = 1;
    record->match = nullptr;
    int32_t lock;
    if (read_thread_times(thread, &record->user, &record->kernel) != 0) {
        kern_log("profiler couldn't get thread info for tid %ld\n", (long)thread);
        goto free_record;
    }

    if (__atomic_load_n(&gLock, __ATOMIC_SEQ_CST) == kProfilerNotStarted) start_profiler();
    lock = __atomic_load_n(&gLock, __ATOMIC_SEQ_CST);
    if (lock == kProfilerNotStarted) {
        kern_log("profiler couldn't create profiler sem\n");
        goto free_record;
    }
    if (acquire_profiler(lock) != 0) {
        kern_log("profiler couldn't acquire profiler sem in start\n");
        goto free_record;
    }
    record->id = next_id_locked();
    if (!create_tables_locked()) goto release;
    // Without memory for the node the measurement is lost, as without memory for the record.
    if (skiplist_insert(gPending, record) < 0) goto release;
    read_thread_times(thread, &record->user, &record->kernel);
    record->real = kern_time_us();
    kern_sem_release_ex(lock, 1, KERN_SEM_NO_RESCHEDULE);
    return;

release:
    kern_sem_release(lock);
free_record:
    free(record);
}

// Takes the oldest pending record of the name and thread out of its list; null when there is none.
//
// The key equals no record, so the search goes down to the lowest level, and ends there with a comparison of
// the key and the record next to its place. In the order that is the one with the lowest id of its name and
// thread, if there is any, and it is the last to be left in `match`. The first bracket that was opened ends
// first.
static profiler_record *take_pending_locked(const char *name, int32_t thread) {
    // The lists are missing when every start since the first has failed to create them.
    if (gPending == nullptr) return nullptr;
    profiler_record key;
    copy_name(key.name, name);
    key.thread = thread;
    key.id = kKeyId;
    key.match = nullptr;
    skiplist_search(gPending, &key);
    if (key.match != nullptr) skiplist_delete(gPending, key.match);
    return key.match;
}

static void grow_pad_locked() {
    gNumInPad = gNumInPad * 3 / 2;
    profiler_record *old = gPad;
    gPad = (profiler_record *)calloc(gNumInPad, sizeof(profiler_record));
    free(old);
    if (gPad == nullptr) kern_debug_enter("profiler couldn't reallocate pad space\n");
}

// Adds a finished measurement to the sum of its name, or makes it that sum.
static void add_finished_locked(profiler_record *measured) {
    profiler_record *sum = (profiler_record *)skiplist_search(gFinished, measured);
    if (sum != nullptr) {
        sum->real += measured->real;
        sum->user += measured->user;
        sum->kernel += measured->kernel;
        sum->count++;
        free(measured);
    } else if (skiplist_insert(gFinished, measured) < 0) {
        free(measured);
    } else if ((uint32_t)skiplist_count(gFinished) >= gNumInPad) {
        grow_pad_locked();
    }
}

void finish_profiler_record(const char *name) {
    const int32_t thread = kern_thread_self();
    const int64_t end = kern_time_us();
    const int32_t lock = __atomic_load_n(&gLock, __ATOMIC_SEQ_CST);
    if (acquire_profiler(lock) != 0) {
        kern_log("profiler couldn't acquire profiler sem in finish\n");
        return;
    }
    int64_t user, kernel;
    profiler_record *record = take_pending_locked(name, thread);
    if (record == nullptr) {
        kern_log("profiler couldn't find record to update\n");
    } else if (read_thread_times(thread, &user, &kernel) != 0) {
        kern_log("profiler couldn't get thread info for thread %ld\n", (long)thread);
        free(record);
    } else {
        record->real = end - record->real;
        record->user = user - record->user;
        record->kernel = kernel - record->kernel;
        add_finished_locked(record);
    }
    kern_sem_release(lock);
}

void _enter_prof_func(const char *prefix, const char *suffix, int32_t flags) {
    char name[kProfilerNameSize];
    build_name(name, prefix, suffix);
    if (flags & PROF_LOG) kern_log("PROF_IN: %s\n", name);
    if (flags & PROF_BREAK) kern_debug_enter("PROF_IN profile point\n");
    if (flags & PROF_RECORD) start_profiler_record(name);
}

void _exit_prof_func(const char *prefix, const char *suffix, int32_t flags) {
    char name[kProfilerNameSize];
    build_name(name, prefix, suffix);
    if (flags & PROF_LOG) kern_log("PROF_OUT: %s\n", name);
    if (flags & PROF_BREAK) kern_debug_enter("PROF_OUT profile point\n");
    if (flags & PROF_RECORD) finish_profiler_record(name);
}

void uninit_profiler() {
    // First what reads the rest.
    if (gHasCommands != 0) {
        for (const auto &command : kCommands)
            kern_debug_remove_command(command.name, command.function);
    }
    gHasCommands = 0;
    const auto free_pending = [](void *item, void *) { return freerec(item); };
    if (gPending != nullptr) skiplist_for_each(gPending, free_pending, nullptr);
    skiplist_free(gPending);
    gPending = nullptr;
    skiplist_free(gFinished);
    gFinished = nullptr;
    free(gPad);
    gPad = nullptr;
    gNumInPad = kProfilerFirstPad;
    gID = 0;
    const int32_t lock = __atomic_exchange_n(&gLock, kProfilerNotStarted, __ATOMIC_SEQ_CST);
    if (lock >= 0) kern_sem_delete(lock);
}
