// SPDX-License-Identifier: MIT
//
// Threads: kernel threads are threads of the process with an id, a name and a priority.
//
// A thread's record lies in its own thread-local memory and hangs in a list from its first use of the kernel
// to its end; whoever looks at another thread's record holds gThreads. A thread of priority 20 or above runs
// under the host's round-robin scheduler where the process may; otherwise priorities are kept and shown, no
// more.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr int32_t kRealTimePriority = 20;
constexpr int32_t kHostPriority = 10;  // shown for threads that the kernel didn't spawn
constexpr uint32_t kRecordSize = 76;
constexpr size_t kUserTimeAt = 52;
constexpr size_t kKernelTimeAt = 60;
constexpr int64_t kUsecPerSecond = 1'000'000;

struct thread_record {
    // Constant while the record is in the list.
    int32_t id;
    int32_t priority;
    pid_t host_id;
    uintptr_t image;  // where the function of a spawned thread lies
    bool spawned;
    char name[64];
    uint32_t go;        // atomic: 0 until the thread is resumed
    int32_t waits_for;  // atomic: hosted::note_wait
    hosted::stop_place stop;
    // Under gThreads.
    thread_record *previous;
    thread_record *next;
};

// What a new thread gets from the one that spawns it, which waits for `id` and so may keep this on its stack.
struct birth {
    int32_t (*function)(void *);
    void *argument;
    const char *name;
    int32_t priority;
    uintptr_t image;
    int32_t id;
    uint32_t born;  // atomic
};

hosted::lock gThreads;
// Under gThreads.
thread_record *gFirst;
int32_t gLastId;
int32_t gSpawned;

uint32_t gEnds;        // atomic: changes whenever a spawned thread has left the list
bool gToldOfPriority;  // atomic

thread_local thread_record tRecord;

pthread_key_t gExitKey;
pthread_once_t gExitOnce = PTHREAD_ONCE_INIT;

thread_record *find_locked(int32_t id) {
    thread_record *record = gFirst;
    while (record && record->id != id)
        record = record->next;
    return record;
}

void leave_list(thread_record *record) {
    bool spawned;
    {
        hosted::guard held(gThreads);
        if (record->id == 0) return;
        (record->previous ? record->previous->next : gFirst) = record->next;
        if (record->next) record->next->previous = record->previous;
        record->id = 0;
        hosted::stop_no_more(&record->stop);
        spawned = record->spawned;
        if (spawned) gSpawned--;
    }
    if (spawned) {
        __atomic_fetch_add(&gEnds, 1, __ATOMIC_RELEASE);
        hosted::futex_wake(&gEnds, INT_MAX);
    }
}

void on_thread_exit(void *record) {
    leave_list(static_cast<thread_record *>(record));
}

void make_exit_key() {
    hosted::must(pthread_key_create(&gExitKey, on_thread_exit), "pthread_key_create");
}

// Gives the calling thread its record.
void join_list(const char *name, int32_t priority, uintptr_t image, bool spawned) {
    hosted::must(pthread_once(&gExitOnce, make_exit_key), "pthread_once");
    thread_record *record = &tRecord;
    bool may_stop = hosted::at_open_thread_level(), stopped;
    {
        hosted::guard held(gThreads);
        record->priority = priority;
        record->host_id = static_cast<pid_t>(syscall(SYS_gettid));
        record->image = image;
        record->spawned = spawned;
        hosted::copy_name(record->name, sizeof(record->name), name);
        __atomic_store_n(&record->go, spawned ? 0 : 1, __ATOMIC_RELAXED);
        do
            gLastId = gLastId == INT32_MAX ? 1 : gLastId + 1;
        while (find_locked(gLastId));
        record->id = gLastId;
        record->previous = nullptr;
        record->next = gFirst;
        if (gFirst) gFirst->previous = record;
        gFirst = record;
        if (spawned) gSpawned++;
        stopped = may_stop && hosted::stop_at_birth(&record->stop);
    }
    hosted::must(pthread_setspecific(gExitKey, record), "pthread_setspecific");
    if (stopped) hosted::stand_still(&record->stop);
}

void ask_for_priority(int32_t priority, const char *name) {
    if (priority < kRealTimePriority) return;
    sched_param parameter = {};
    parameter.sched_priority = sched_get_priority_min(SCHED_RR);
    int error = pthread_setschedparam(pthread_self(), SCHED_RR, &parameter);
    if (error != 0 && !__atomic_exchange_n(&gToldOfPriority, true, __ATOMIC_RELAXED))
        kern_log("kernel: thread \"%s\" runs without its real-time priority (error %d)\n", name, error);
}

void *run_thread(void *argument) {
    birth *from = static_cast<birth *>(argument);
    int32_t (*function)(void *) = from->function;
    void *function_argument = from->argument;
    join_list(from->name, from->priority, from->image, true);
    from->id = tRecord.id;
    // Pairs with the load in kern_thread_spawn. `from` may be gone from here on.
    __atomic_store_n(&from->born, 1, __ATOMIC_RELEASE);
    hosted::futex_wake(&from->born, 1);

    char name[16];  // what the host takes
    hosted::copy_name(name, sizeof(name), tRecord.name);
    hosted::must(pthread_setname_np(pthread_self(), name), "pthread_setname_np");
    while (__atomic_load_n(&tRecord.go, __ATOMIC_ACQUIRE) == 0)
        hosted::futex_wait(&tRecord.go, 0, KERN_TIMEOUT_FOREVER);
    ask_for_priority(tRecord.priority, tRecord.name);
    function(function_argument);
    // The function's code may be unmapped as soon as the list doesn't show this thread any more.
    leave_list(&tRecord);
    return nullptr;
}

// The times of another thread, in the ticks that the host tells.
int32_t read_times_of(pid_t host_id, int64_t *user, int64_t *kernel) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%ld/stat", static_cast<long>(host_id));
    int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return KERN_ERR_BAD_THREAD;
    char text[1024];
    ssize_t length = read(file, text, sizeof(text) - 1);
    close(file);
    if (length <= 0) return KERN_ERR_BAD_THREAD;
    text[length] = '\0';
    // The name in parentheses may hold anything; the fields count from the last one closed. utime and stime
    // are 14 and 15.
    const char *rest = strrchr(text, ')');
    unsigned long long ticks[2];
    if (!rest ||
        sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &ticks[0], &ticks[1]) != 2)
        return KERN_ERR_BAD_THREAD;
    int64_t ticks_per_second = sysconf(_SC_CLK_TCK);
    *user = static_cast<int64_t>(ticks[0]) * kUsecPerSecond / ticks_per_second;
    *kernel = static_cast<int64_t>(ticks[1]) * kUsecPerSecond / ticks_per_second;
    return 0;
}

int32_t count_threads_of(uintptr_t image) {
    hosted::guard held(gThreads);
    if (image == 0) return gSpawned;
    int32_t found = 0;
    for (thread_record *record = gFirst; record; record = record->next)
        found += record->spawned && record->image == image;
    return found;
}

// Waits until at most `count` spawned threads of this image (of any, with 0) are left.
bool wait_for_ends(uintptr_t image, int32_t count, int64_t timeout) {
    int64_t deadline;
    if (__builtin_add_overflow(kern_time_us(), timeout, &deadline)) deadline = KERN_TIMEOUT_FOREVER;
    for (;;) {
        // Before the count: an end in between changes it.
        uint32_t ends = __atomic_load_n(&gEnds, __ATOMIC_ACQUIRE);
        if (count_threads_of(image) <= count) return true;
        if (kern_time_us() >= deadline) return false;
        hosted::futex_wait(&gEnds, ends, deadline);
    }
}

}  // namespace

int32_t kern_thread_spawn(int32_t (*function)(void *), const char *name, int32_t priority, void *argument) {
    if (!function) return KERN_ERR_BAD_VALUE;
    birth child = {function,
                   argument,
                   name ? name : "unnamed thread",
                   priority,
                   hosted::image_of(reinterpret_cast<const void *>(function)),
                   0,
                   0};
    pthread_attr_t attributes;
    hosted::must(pthread_attr_init(&attributes), "pthread_attr_init");
    hosted::must(pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED),
                 "pthread_attr_setdetachstate");
    pthread_t thread;
    int error = pthread_create(&thread, &attributes, run_thread, &child);
    hosted::must(pthread_attr_destroy(&attributes), "pthread_attr_destroy");
    if (error != 0) return KERN_ERR_NO_MEMORY;
    while (__atomic_load_n(&child.born, __ATOMIC_ACQUIRE) == 0)  // pairs with run_thread
        hosted::futex_wait(&child.born, 0, KERN_TIMEOUT_FOREVER);
    return child.id;
}

int32_t kern_thread_resume(int32_t thread) {
    int32_t status = KERN_ERR_BAD_THREAD;
    {
        // The record stays as long as it is in the list.
        hosted::guard held(gThreads);
        if (thread_record *record = find_locked(thread)) {
            bool runs = __atomic_exchange_n(&record->go, 1, __ATOMIC_RELEASE) != 0;
            if (!runs) hosted::futex_wake(&record->go, 1);
            status = runs ? KERN_ERR_BAD_VALUE : 0;
        }
    }
    if (status == KERN_ERR_BAD_VALUE) hosted::complain("resume: thread %d runs already", thread);
    if (status == KERN_ERR_BAD_THREAD) hosted::complain("resume: no thread %d", thread);
    return status;
}

int32_t kern_thread_self(void) {
    if (tRecord.id == 0) [[unlikely]] {
        char name[64] = "";
        if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) name[0] = '\0';
        join_list(name, kHostPriority, 0, false);
    }
    return tRecord.id;
}

int32_t kern_thread_info(int32_t thread, void *record, uint32_t size) {
    if (size != kRecordSize) return KERN_ERR_BAD_VALUE;
    int64_t user, kernel;
    if (thread == kern_thread_self()) {
        rusage usage;
        if (getrusage(RUSAGE_THREAD, &usage) != 0) return KERN_ERR_BAD_THREAD;
        user = int64_t{usage.ru_utime.tv_sec} * kUsecPerSecond + usage.ru_utime.tv_usec;
        kernel = int64_t{usage.ru_stime.tv_sec} * kUsecPerSecond + usage.ru_stime.tv_usec;
    } else {
        pid_t host_id = 0;
        {
            hosted::guard held(gThreads);
            if (thread_record *other = find_locked(thread)) host_id = other->host_id;
        }
        if (host_id == 0) {
            hosted::complain("info: no thread %d", thread);
            return KERN_ERR_BAD_THREAD;
        }
        int32_t status = read_times_of(host_id, &user, &kernel);
        if (status < 0) return status;
    }
    memset(record, 0, size);
    memcpy(static_cast<char *>(record) + kUserTimeAt, &user, sizeof(user));
    memcpy(static_cast<char *>(record) + kKernelTimeAt, &kernel, sizeof(kernel));
    return 0;
}

int32_t hosted_list_threads(hosted_thread_info *table, int32_t capacity) {
    hosted::guard held(gThreads);
    int32_t found = 0;
    for (thread_record *record = gFirst; record; record = record->next, found++) {
        if (found >= capacity) continue;
        hosted_thread_info *info = &table[found];
        bool suspended = __atomic_load_n(&record->go, __ATOMIC_RELAXED) == 0;
        int32_t waits_for = __atomic_load_n(&record->waits_for, __ATOMIC_RELAXED);
        *info = {record->id,
                 "",
                 record->priority,
                 record->spawned,
                 suspended,
                 waits_for > 0 ? waits_for : 0,
                 waits_for == hosted::kSleeps,
                 hosted::stands_still(&record->stop)};
        hosted::copy_name(info->name, sizeof(info->name), record->name);
    }
    return found;
}

bool hosted_wait_for_threads(int32_t count, int64_t timeout) {
    return wait_for_ends(0, count, timeout);
}

namespace hosted {

uintptr_t image_of(const void *address) {
    Dl_info info;
    return dladdr(address, &info) != 0 ? reinterpret_cast<uintptr_t>(info.dli_fbase) : 0;
}

bool wait_for_threads_of(uintptr_t image, int64_t timeout) {
    return image == 0 || wait_for_ends(image, 0, timeout);
}

void visit_other_threads(void (*visit)(void *context, pid_t host_id, stop_place *place), void *context) {
    guard held(gThreads);
    for (thread_record *record = gFirst; record; record = record->next)
        if (record != &tRecord) visit(context, record->host_id, &record->stop);
}

stop_place *own_stop_place() {
    return &tRecord.stop;
}

void note_wait(int32_t waits_for) {
    __atomic_store_n(&tRecord.waits_for, waits_for, __ATOMIC_RELAXED);
}

int32_t known_thread_id() {
    return tRecord.id;
}

const char *thread_name() {
    kern_thread_self();
    return tRecord.name;
}

int32_t count_threads() {
    return count_threads_of(0);
}

int32_t log_threads() {
    guard held(gThreads);
    for (thread_record *record = gFirst; record; record = record->next)
        if (record->spawned)
            kern_log("kernel: thread %d, \"%s\", priority %d\n", record->id, record->name, record->priority);
    return gSpawned;
}

}  // namespace hosted
