// SPDX-License-Identifier: MIT
//
// One mutex guards the whole kernel, and one condition variable wakes everybody who waits for anything:
// simple enough to be right by reading, and fast enough for tests. Nothing in here reaches the wrapped
// heap: standard containers take their memory from operator new, which calls the C library inside its own
// shared object.

#include "platform/testing/test_kernel.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <unordered_map>
#include <utility>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
char *__real_strdup(const char *text);
void __gcov_dump() __attribute__((weak));  // there when coverage is measured
}

namespace test_kernel {

struct stopping_point::record {
    std::string call;
    object on;
    int32_t setter;
    bool taken = false;
    bool open = false;
};

namespace {

using point = stopping_point::record;
using lock = std::unique_lock<std::mutex>;

constexpr auto kPatience = std::chrono::seconds(20);
constexpr uint32_t kPage = 4096;

struct waiter {
    int32_t units;
    uint32_t flags;
    int64_t deadline;
    bool done = false;
    int32_t result = 0;
};

struct semaphore {
    std::string name;
    int32_t count;
    std::list<waiter *> line;
};

struct thread {
    std::string name;
    int32_t priority;
    int32_t (*function)(void *);
    void *argument;
    enum { kSuspended, kRunning, kAsleep, kBlocked, kStopped } state = kSuspended;
    int64_t wake = 0;
    bool own = false;  // a thread of the test that happened to call the kernel
};

struct command {
    kern_debug_command function;
    std::string help;
};

struct provided_module {
    const void *table;
    int32_t references;
    bool available;
};

// A parameter of a settings file, in a form that is easy to build.
struct parameter {
    std::string name;
    std::vector<std::string> values;
    std::vector<parameter> children;
};

// What a settings handle points at. Everything of the tree lies in here, so that a look at it after the
// unload is a use of freed memory that the address sanitizer reports.
struct settings_handle {
    std::list<std::string> texts;
    std::list<std::vector<const char *>> values;
    std::list<std::vector<settings_parameter>> parameters;
    settings_tree tree;
};

struct region {
    std::string name;
    void *address;
};

struct kernel {
    std::mutex mutex;
    std::condition_variable changed;

    int64_t time = kStartTime;
    int64_t user_time = 0, kernel_time = 0;
    int32_t generation = 0;  // of resets; a thread of an older one is an orphan
    int32_t last_id = 1000;
    int32_t next_sem = -1;
    int32_t sem_calls = 0;

    std::map<int32_t, semaphore> sems;
    std::map<int32_t, thread> threads;
    std::list<std::map<int32_t, thread>> orphans;
    std::map<int32_t, region> regions;
    std::map<std::string, command> commands;
    std::map<std::string, provided_module> modules;
    std::map<std::string, std::vector<parameter>> files;
    std::map<void *, std::unique_ptr<settings_handle>> handles;
    std::multimap<const void *, uint32_t> wired;
    std::map<uintptr_t, uint32_t> unmapped;
    intptr_t physical_offset = 0;
    int32_t most_runs = INT32_MAX;
    std::list<std::shared_ptr<point>> points;

    std::unordered_map<const void *, size_t> heap;
    int32_t heap_calls = 0;

    unsigned fault_mask = 0;
    int32_t fault_first = 0, fault_last = 0, fault_count = 0, refusals = 0;

    std::vector<std::string> journal, log, violations;
    std::string debug_output;
};

// Never destroyed: threads and exit handlers may still call.
kernel &k() {
    static kernel &the_kernel = *new kernel;
    return the_kernel;
}

thread_local int32_t tSelf = 0;
thread_local int32_t tGeneration = -1;
thread_local int32_t tInterruptLevel = 0;

std::string in_quotes(const std::string &text) {
    return '"' + text + '"';
}

template <typename... Args>
std::string line(const Args &...args) {
    std::ostringstream out;
    const char *gap = "";
    ((out << gap << args, gap = " "), ...);
    return out.str();
}

std::string formatted(const char *format, va_list args) {
    char text[2048];
    vsnprintf(text, sizeof text, format, args);
    return text;
}

const char *state_name(const thread &t) {
    static const char *const names[] = {"suspended", "running", "asleep", "blocked", "stopped"};
    return names[t.state];
}

std::string what_is_left() {
    std::ostringstream out;
    for (auto &[id, t] : k().threads) {
        if (!t.own) out << "thread " << id << ' ' << in_quotes(t.name) << ' ' << state_name(t) << '\n';
    }
    for (auto &[id, sem] : k().sems) {
        out << "semaphore " << id << ' ' << in_quotes(sem.name) << " count " << sem.count << " waiters "
            << sem.line.size() << '\n';
    }
    for (auto &[id, r] : k().regions)
        out << "region " << id << ' ' << in_quotes(r.name) << '\n';
    for (auto &[block, size] : k().heap)
        out << "heap block " << block << " of " << size << " bytes\n";
    for (auto &[path, module] : k().modules) {
        if (module.references != 0)
            out << "module " << in_quotes(path) << " references " << module.references << '\n';
    }
    for (auto &[handle, unused] : k().handles)
        out << "settings handle " << handle << '\n';
    for (auto &[address, length] : k().wired)
        out << "wired range " << address << " of " << length << " bytes\n";
    for (auto &[name, unused] : k().commands)
        out << "debugger command " << in_quotes(name) << '\n';
    return out.str();
}

[[noreturn]] void give_up(const std::string &what) {
    fprintf(stderr, "test kernel: %s. Alive:\n%s", what.c_str(), what_is_left().c_str());
    for (auto &entry : k().violations)
        fprintf(stderr, "violation: %s\n", entry.c_str());
    abort();
}

// For whoever must not wait for ever: the test's side.
template <typename Condition>
void wait_patiently(lock &held, const std::string &what, Condition condition) {
    if (!k().changed.wait_for(held, kPatience, condition)) give_up("no end of waiting for " + what);
}

int32_t self() {
    if (tSelf == 0) {
        tSelf = ++k().last_id;
        tGeneration = -1;
    }
    return tSelf;
}

// The caller's thread. One that wasn't spawned here is a thread of the test, known as long as it has
// business here.
thread &current(lock &held) {
    int32_t id = self();
    auto found = k().threads.find(id);
    if (found == k().threads.end()) {
        found = k().threads.emplace(id, thread{"test", 0, nullptr, nullptr}).first;
        found->second.own = true;
        found->second.state = thread::kRunning;
    }
    (void)held;
    return found->second;
}

// Ends the wait in `state` when the condition holds. Threads of the module may wait for ever, the test's
// may not.
template <typename Condition>
void block(lock &held, const std::string &what, decltype(thread::kAsleep) state, Condition condition) {
    thread &t = current(held);
    t.state = state;
    k().changed.notify_all();
    if (t.own) {
        wait_patiently(held, what, condition);
        k().threads.erase(tSelf);
    } else {
        k().changed.wait(held, condition);
        t.state = thread::kRunning;
    }
}

// The start of every call: orphans end here, a stopping point holds the caller, and the journal gets its
// line. What may not be called at interrupt level says so by `level`.
enum level { kThreadLevel, kAnyLevel };

void enter(lock &held, const char *call, int32_t id, const std::string &name, level allowed,
           const std::string &details = "", bool write_down = true) {
    if (tGeneration >= 0 && tGeneration != k().generation) {
        k().changed.wait(held, [] { return false; });
    }
    if (tInterruptLevel > 0 && allowed == kThreadLevel) {
        k().violations.push_back(line(call, in_quotes(name), "at interrupt level"));
    }
    for (auto p : k().points) {
        if (p->taken || p->setter == self() || p->call != call) continue;
        if (!p->on.name.empty() || p->on.id != -1) {
            if (!p->on.is(id, name)) continue;
        }
        p->taken = true;
        block(held, std::string("going on from ") + call, thread::kStopped, [p] { return p->open; });
        break;
    }
    if (write_down)
        k().journal.push_back(details.empty() ? line(call, in_quotes(name))
                                              : line(call, in_quotes(name), details));
}

// Whether this call is one that has to fail.
bool fails(fallible kind) {
    if ((k().fault_mask & kind) == 0) return false;
    int32_t n = ++k().fault_count;
    if (n < k().fault_first || n > k().fault_last) return false;
    k().refusals++;
    refused();
    return true;
}

void arm(unsigned mask, int32_t first, int32_t last) {
    lock held(k().mutex);
    k().fault_mask = mask;
    k().fault_first = first;
    k().fault_last = last;
    k().fault_count = k().refusals = 0;
}

semaphore *find_sem(int32_t id, const char *call) {
    auto found = k().sems.find(id);
    if (found != k().sems.end()) return &found->second;
    k().violations.push_back(line(call, "of", id, "which is no semaphore"));
    return nullptr;
}

std::string sem_name(int32_t id) {
    auto found = k().sems.find(id);
    return found == k().sems.end() ? "" : found->second.name;
}

const semaphore *look_up(const object &which) {
    for (auto &[id, sem] : k().sems) {
        if (which.is(id, sem.name)) return &sem;
    }
    return nullptr;
}

// Hands units to the line, first come first served.
void serve(semaphore &sem) {
    while (!sem.line.empty() && sem.line.front()->units <= sem.count) {
        sem.count -= sem.line.front()->units;
        sem.line.front()->done = true;
        sem.line.pop_front();
    }
}

// Sends those away whom `leaves` names, with `result`. Who stood behind them may have enough units now.
template <typename Predicate>
int32_t send_away(semaphore &sem, int32_t result, Predicate leaves) {
    int32_t gone = 0;
    sem.line.remove_if([&](waiter *w) {
        if (!leaves(*w)) return false;
        w->result = result;
        w->done = true;
        gone++;
        return true;
    });
    serve(sem);
    return gone;
}

void clock_moved() {
    for (auto &[id, t] : k().threads) {
        if (t.state == thread::kAsleep && t.wake <= k().time) t.state = thread::kRunning;
    }
    for (auto &[id, sem] : k().sems) {
        send_away(sem, kTimedOut, [](const waiter &w) { return w.deadline <= k().time; });
    }
    k().changed.notify_all();
}

// The time at which the next sleeper or waiter is due.
int64_t next_wakeup() {
    int64_t next = KERN_TIMEOUT_FOREVER;
    for (auto &[id, t] : k().threads) {
        if (t.state == thread::kAsleep) next = std::min(next, t.wake);
    }
    for (auto &[id, sem] : k().sems) {
        for (waiter *w : sem.line)
            next = std::min(next, w->deadline);
    }
    return next;
}

int32_t acquire(int32_t id, int32_t units, uint32_t flags, int64_t timeout) {
    lock held(k().mutex);
    k().sem_calls++;
    enter(held, "sem_acquire", id, sem_name(id), kThreadLevel, line(units, flags));
    auto found = k().sems.find(id);
    if (found == k().sems.end()) return kDeadSemaphore;
    if (units <= 0) return kBadCount;
    semaphore &sem = found->second;
    if (sem.line.empty() && sem.count >= units) {
        sem.count -= units;
        return 0;
    }
    bool limited = (flags & KERN_SEM_RELATIVE_TIMEOUT) != 0 && timeout < KERN_TIMEOUT_FOREVER - k().time;
    if (limited && timeout <= 0) return kTimedOut;
    waiter me{units, flags, limited ? k().time + timeout : KERN_TIMEOUT_FOREVER};
    sem.line.push_back(&me);
    block(held, "semaphore " + in_quotes(sem.name), thread::kBlocked, [&me] { return me.done; });
    return me.result;
}

int32_t release(int32_t id, int32_t units, uint32_t flags) {
    lock held(k().mutex);
    k().sem_calls++;
    enter(held, "sem_release", id, sem_name(id),
          (flags & KERN_SEM_NO_RESCHEDULE) != 0 ? kAnyLevel : kThreadLevel, line(units, flags));
    auto found = k().sems.find(id);
    if (found == k().sems.end()) return kDeadSemaphore;
    if (units <= 0) return kBadCount;
    found->second.count += units;
    serve(found->second);
    k().changed.notify_all();
    return 0;
}

void run(int32_t id, int32_t generation) {
    tSelf = id;
    tGeneration = generation;
    int32_t (*function)(void *);
    void *argument;
    {
        lock held(k().mutex);
        function = k().threads.at(id).function;
        argument = k().threads.at(id).argument;
    }
    function(argument);
    lock held(k().mutex);
    if (generation == k().generation) k().threads.erase(id);
    k().changed.notify_all();
}

// Parses lines up to the `}` that ends the block, or to the end of the file.
std::vector<parameter> parse(std::istringstream &in) {
    std::vector<parameter> result;
    for (std::string text; std::getline(in, text);) {
        std::vector<std::string> words;
        for (size_t i = 0; i < text.size() && text[i] != '#';) {
            if (text[i] == ' ' || text[i] == '\t') {
                ++i;
                continue;
            }
            bool quote = text[i] == '"';
            size_t start = quote ? i + 1 : i;
            size_t end = std::min(text.find_first_of(quote ? "\"" : " \t#", start), text.size());
            words.push_back(text.substr(start, end - start));
            i = quote ? end + 1 : end;
        }
        if (words.empty()) continue;
        if (words[0] == "}") break;
        parameter p{words[0], {words.begin() + 1, words.end()}, {}};
        if (words.back() == "{") {
            p.values.pop_back();
            p.children = parse(in);
        }
        result.push_back(std::move(p));
    }
    return result;
}

const settings_parameter *build(settings_handle &handle, const std::vector<parameter> &from) {
    auto keep = [&](const std::string &text) { return handle.texts.emplace_back(text).c_str(); };
    std::vector<settings_parameter> level;
    for (const parameter &p : from) {
        auto &values = handle.values.emplace_back();
        for (auto &value : p.values)
            values.push_back(keep(value));
        level.push_back({keep(p.name), static_cast<int32_t>(values.size()), values.data(),
                         static_cast<int32_t>(p.children.size()), build(handle, p.children)});
    }
    return handle.parameters.emplace_back(std::move(level)).data();
}

const settings_parameter *find_key(void *handle, const char *key) {
    auto found = k().handles.find(handle);
    if (found == k().handles.end()) {
        k().violations.push_back(line("settings handle", handle, "is not open"));
        return nullptr;
    }
    const settings_tree &tree = found->second->tree;
    for (int32_t i = 0; i < tree.parameter_count; ++i) {
        if (strcmp(tree.parameters[i].name, key) == 0) return &tree.parameters[i];
    }
    return nullptr;
}

// A new heap block is written down and filled with what nobody should rely on.
void *note_block(void *block, size_t size, bool fill) {
    if (block == nullptr) return nullptr;
    if (fill) memset(block, 0xa5, size);
    k().heap[block] = size;
    return block;
}

// The common start of the heap's calls.
bool heap_refuses(const char *call) {
    k().heap_calls++;
    if (tInterruptLevel > 0) k().violations.push_back(line(call, "at interrupt level"));
    return fails(kHeap);
}

}  // namespace

// ---- The whole

void reset() {
    lock held(k().mutex);
    if (!k().threads.empty()) {
        k().generation++;
        k().orphans.push_back(std::move(k().threads));  // they still wait on these records
    }
    for (auto &[id, r] : k().regions)
        __real_free(r.address);
    k().time = kStartTime;
    k().user_time = k().kernel_time = 0;
    k().next_sem = -1;
    k().sem_calls = k().heap_calls = 0;
    k().physical_offset = 0;
    k().most_runs = INT32_MAX;
    k().sems.clear();
    k().threads.clear();
    k().regions.clear();
    k().commands.clear();
    k().modules.clear();
    k().files.clear();
    k().handles.clear();
    k().wired.clear();
    k().unmapped.clear();
    k().heap.clear();
    k().fault_mask = 0;
    k().journal.clear();
    k().log.clear();
    k().violations.clear();
    k().debug_output.clear();
}

std::string leftovers() {
    lock held(k().mutex);
    k().changed.wait_for(held, kPatience, [] {
        for (auto &[id, t] : k().threads) {
            if (!t.own && t.state == thread::kRunning) return false;
        }
        return true;
    });
    return what_is_left();
}

std::string take_violations() {
    lock held(k().mutex);
    std::string all;
    for (auto &entry : k().violations)
        all += entry + '\n';
    k().violations.clear();
    return all;
}

// ---- Time and threads

int64_t now() {
    lock held(k().mutex);
    return k().time;
}

void set_time(int64_t time) {
    lock held(k().mutex);
    k().time = time;
    clock_moved();
}

void advance(int64_t microseconds) {
    lock held(k().mutex);
    k().time += microseconds;
    clock_moved();
}

running_clock::running_clock() {
    thread_ = std::thread([this] {
        lock held(k().mutex);
        for (;;) {
            int64_t next;
            k().changed.wait(held, [&] {
                next = next_wakeup();
                return stop_ || next != KERN_TIMEOUT_FOREVER;
            });
            if (stop_) return;
            k().time = next;
            clock_moved();
        }
    });
}

running_clock::~running_clock() {
    {
        lock held(k().mutex);
        stop_ = true;
        k().changed.notify_all();
    }
    thread_.join();
}

void wait_until_asleep(const char *name) {
    lock held(k().mutex);
    wait_patiently(held, line("the sleep of", in_quotes(name)), [name] {
        for (auto &[id, t] : k().threads) {
            if (t.name == name && t.state == thread::kAsleep) return true;
        }
        return false;
    });
}

void wait_until_gone(const char *name) {
    lock held(k().mutex);
    wait_patiently(held, line("the end of", in_quotes(name)), [name] {
        for (auto &[id, t] : k().threads) {
            if (t.name == name) return false;
        }
        return true;
    });
}

int32_t thread_id(const char *name) {
    lock held(k().mutex);
    for (auto &[id, t] : k().threads) {
        if (t.name == name) return id;
    }
    return -1;
}

int32_t thread_priority(const char *name) {
    lock held(k().mutex);
    for (auto &[id, t] : k().threads) {
        if (t.name == name) return t.priority;
    }
    return -1;
}

as_thread::as_thread(int32_t id) : before_(tSelf) {
    tSelf = id;
}
as_thread::~as_thread() {
    tSelf = before_;
}

void set_thread_times(int64_t user, int64_t kernel) {
    lock held(k().mutex);
    k().user_time = user;
    k().kernel_time = kernel;
}

interrupt_level::interrupt_level() {
    tInterruptLevel++;
}
interrupt_level::~interrupt_level() {
    tInterruptLevel--;
}

// ---- Semaphores

int32_t sem_count(object which) {
    lock held(k().mutex);
    const semaphore *sem = look_up(which);
    return sem == nullptr ? -1 : sem->count;
}

int32_t sem_waiters(object which) {
    lock held(k().mutex);
    const semaphore *sem = look_up(which);
    return sem == nullptr ? 0 : static_cast<int32_t>(sem->line.size());
}

void wait_until_blocked(object which, int32_t threads) {
    lock held(k().mutex);
    wait_patiently(held, line(threads, "waiters of semaphore", which.id, in_quotes(which.name)), [&] {
        const semaphore *sem = look_up(which);
        return sem != nullptr && static_cast<int32_t>(sem->line.size()) >= threads;
    });
}

int32_t interrupt_waiters(object which) {
    lock held(k().mutex);
    int32_t gone = 0;
    for (auto &[id, sem] : k().sems) {
        if (!which.is(id, sem.name)) continue;
        gone += send_away(sem, kInterrupted,
                          [](const waiter &w) { return (w.flags & KERN_SEM_INTERRUPTIBLE) != 0; });
    }
    k().changed.notify_all();
    return gone;
}

int32_t sem_calls() {
    lock held(k().mutex);
    return k().sem_calls;
}

void set_next_sem(int32_t id) {
    lock held(k().mutex);
    k().next_sem = id;
}

stopping_point::stopping_point(const char *call, object on) : record_(new record{call, on, self()}) {
    lock held(k().mutex);
    k().points.push_back(record_);
}

stopping_point::~stopping_point() {
    go_on();
}

void stopping_point::wait() {
    lock held(k().mutex);
    wait_patiently(held, "a stop at " + record_->call, [this] { return record_->taken; });
}

bool stopping_point::taken() const {
    lock held(k().mutex);
    return record_->taken;
}

void stopping_point::go_on() {
    lock held(k().mutex);
    record_->open = true;
    k().points.remove(record_);
    k().changed.notify_all();
}

// ---- Journal, log, debugger

std::vector<std::string> journal(const std::string &prefix) {
    lock held(k().mutex);
    std::vector<std::string> result;
    for (auto &entry : k().journal) {
        if (entry.compare(0, prefix.size(), prefix) == 0) result.push_back(entry);
    }
    return result;
}

void clear_journal() {
    lock held(k().mutex);
    k().journal.clear();
}

std::vector<std::string> log_lines() {
    lock held(k().mutex);
    return k().log;
}

void clear_log() {
    lock held(k().mutex);
    k().log.clear();
}

std::string take_debug_output() {
    lock held(k().mutex);
    return std::exchange(k().debug_output, {});
}

bool has_debug_command(const std::string &name) {
    lock held(k().mutex);
    return k().commands.count(name) != 0;
}

std::string debug_help(const std::string &name) {
    lock held(k().mutex);
    auto found = k().commands.find(name);
    return found == k().commands.end() ? "" : found->second.help;
}

int32_t debug(const std::vector<std::string> &words) {
    kern_debug_command function;
    {
        lock held(k().mutex);
        auto found = k().commands.find(words.at(0));
        if (found == k().commands.end()) return -1;
        function = found->second.function;
    }
    std::vector<std::string> copies = words;
    std::vector<char *> argv;
    for (auto &word : copies)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return function(static_cast<int32_t>(words.size()), argv.data());
}

// ---- Faults

void fail_call(int32_t n, unsigned mask) {
    arm(mask, n, n);
}
void fail_from(int32_t n, unsigned mask) {
    arm(mask, n, INT32_MAX);
}
void fail_nothing() {
    lock held(k().mutex);
    k().fault_mask = 0;
}

int32_t refusals() {
    lock held(k().mutex);
    return k().refusals;
}

__attribute__((noinline)) void refused() {
    asm volatile("");
}

// ---- Heap

int32_t heap_blocks() {
    lock held(k().mutex);
    return static_cast<int32_t>(k().heap.size());
}

bool on_heap(const void *block) {
    lock held(k().mutex);
    return k().heap.count(block) != 0;
}

int32_t heap_calls() {
    lock held(k().mutex);
    return k().heap_calls;
}

// ---- Settings and modules, memory map

void provide_settings(const std::string &name, const std::string &text) {
    std::istringstream in(text);
    std::vector<parameter> parsed = parse(in);
    lock held(k().mutex);
    k().files[name] = std::move(parsed);
}

void withdraw_settings(const std::string &name) {
    lock held(k().mutex);
    k().files.erase(name);
}

void provide_module(const std::string &path, const void *table) {
    lock held(k().mutex);
    provided_module &module = k().modules[path];
    module.table = table;
    module.available = true;
}

void withdraw_module(const std::string &path) {
    lock held(k().mutex);
    k().modules[path].available = false;
}

int32_t module_references(const std::string &path) {
    lock held(k().mutex);
    auto found = k().modules.find(path);
    return found == k().modules.end() ? 0 : found->second.references;
}

void set_physical_offset(intptr_t offset) {
    lock held(k().mutex);
    k().physical_offset = offset;
}

void set_most_runs(int32_t runs) {
    lock held(k().mutex);
    k().most_runs = runs;
}

void unmap(const void *address, uint32_t length) {
    lock held(k().mutex);
    k().unmapped[reinterpret_cast<uintptr_t>(address)] = length;
}

}  // namespace test_kernel

// ---- platform/kern.h

using namespace test_kernel;

int32_t kern_sem_create(int32_t count, const char *name) {
    lock held(k().mutex);
    enter(held, "sem_create", -1, name, kThreadLevel, std::to_string(count));
    if (fails(kSemCreate)) return kRefused;
    int32_t id = k().next_sem != -1 ? std::exchange(k().next_sem, -1) : ++k().last_id;
    if (id < 0) return id;
    k().sems.emplace(id, semaphore{name, count, {}});
    return id;
}

int32_t kern_sem_delete(int32_t id) {
    lock held(k().mutex);
    enter(held, "sem_delete", id, sem_name(id), kThreadLevel);
    semaphore *sem = find_sem(id, "sem_delete");
    if (sem == nullptr) return kDeadSemaphore;
    send_away(*sem, kDeadSemaphore, [](const waiter &) { return true; });
    k().sems.erase(id);
    k().changed.notify_all();
    return 0;
}

int32_t kern_sem_acquire(int32_t id) {
    return acquire(id, 1, 0, 0);
}

int32_t kern_sem_acquire_ex(int32_t id, int32_t units, uint32_t flags, int64_t timeout) {
    return acquire(id, units, flags, timeout);
}

int32_t kern_sem_release(int32_t id) {
    return release(id, 1, 0);
}

int32_t kern_sem_release_ex(int32_t id, int32_t units, uint32_t flags) {
    return release(id, units, flags);
}

int32_t kern_sem_set_owner(int32_t id, int32_t team) {
    lock held(k().mutex);
    enter(held, "sem_set_owner", id, sem_name(id), kThreadLevel, std::to_string(team));
    return find_sem(id, "sem_set_owner") == nullptr ? kDeadSemaphore : 0;
}

int32_t kern_thread_spawn(int32_t (*function)(void *), const char *name, int32_t priority, void *argument) {
    lock held(k().mutex);
    enter(held, "thread_spawn", -1, name, kThreadLevel, std::to_string(priority));
    if (fails(kThreadSpawn)) return kRefused;
    int32_t id = ++k().last_id;
    k().threads.emplace(id, thread{name, priority, function, argument});
    return id;
}

int32_t kern_thread_resume(int32_t id) {
    lock held(k().mutex);
    auto found = k().threads.find(id);
    enter(held, "thread_resume", id, found == k().threads.end() ? "" : found->second.name, kThreadLevel);
    if (found == k().threads.end() || found->second.state != thread::kSuspended) {
        k().violations.push_back(line("thread_resume of", id, "which is no suspended thread"));
        return -1;
    }
    found->second.state = thread::kRunning;
    std::thread(run, id, k().generation).detach();
    return 0;
}

// The object of the next three is the caller itself, because what is interesting is who calls.
static std::string own_name() {
    auto found = k().threads.find(self());
    return found == k().threads.end() ? "test" : found->second.name;
}

int32_t kern_thread_self(void) {
    lock held(k().mutex);
    enter(held, "thread_self", self(), own_name(), kAnyLevel, "", false);
    return self();
}

int64_t kern_time_us(void) {
    lock held(k().mutex);
    enter(held, "time", self(), own_name(), kAnyLevel, "", false);
    return k().time;
}

int32_t kern_sleep_us(int64_t microseconds) {
    lock held(k().mutex);
    enter(held, "sleep", self(), own_name(), kThreadLevel, "", false);
    if (microseconds <= 0) return 0;
    thread &t = current(held);
    t.wake = k().time + microseconds;
    block(held, "the clock", thread::kAsleep, [&t] { return t.state != thread::kAsleep; });
    return 0;
}

int32_t kern_thread_info(int32_t id, void *record, uint32_t size) {
    lock held(k().mutex);
    enter(held, "thread_info", id, "", kThreadLevel, line(id, size));
    constexpr uint32_t kSize = 76, kUserAt = 52, kKernelAt = 60;
    if (fails(kThreadInfo)) return kRefused;
    if (size != kSize) return -1;
    memset(record, 0, size);
    memcpy(static_cast<char *>(record) + kUserAt, &k().user_time, sizeof k().user_time);
    memcpy(static_cast<char *>(record) + kKernelAt, &k().kernel_time, sizeof k().kernel_time);
    return 0;
}

int32_t kern_region_create(const char *name, void **address, uint32_t address_spec, uint32_t size,
                           uint32_t lock_mode, uint32_t protection) {
    lock held(k().mutex);
    enter(held, "region_create", -1, name, kThreadLevel, line(address_spec, size, lock_mode, protection));
    if (fails(kRegionCreate)) return kRefused;
    *address = aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage);
    memset(*address, 0xa5, size);
    int32_t id = ++k().last_id;
    k().regions.emplace(id, region{name, *address});
    return id;
}

int32_t kern_region_delete(int32_t id) {
    lock held(k().mutex);
    auto found = k().regions.find(id);
    bool known = found != k().regions.end();
    enter(held, "region_delete", id, known ? found->second.name : "", kThreadLevel);
    if (!known) {
        k().violations.push_back(line("region_delete of", id, "which is no region"));
        return -1;
    }
    __real_free(found->second.address);
    k().regions.erase(found);
    return 0;
}

int32_t kern_memory_lock(void *address, uint32_t length, uint32_t flags) {
    lock held(k().mutex);
    enter(held, "memory_lock", -1, "", kThreadLevel, line(address, length, flags));
    k().wired.emplace(address, length);
    return 0;
}

int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t flags) {
    lock held(k().mutex);
    enter(held, "memory_unlock", -1, "", kThreadLevel, line(address, length, flags));
    auto [first, last] = k().wired.equal_range(address);
    auto found = std::find_if(first, last, [=](const auto &range) { return range.second == length; });
    if (found == last) {
        k().violations.push_back(line("memory_unlock of", address, "which isn't wired"));
        return -1;
    }
    k().wired.erase(found);
    return 0;
}

int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries) {
    lock held(k().mutex);
    enter(held, "memory_map", -1, "", kThreadLevel, line(address, length, entries));
    if (entries <= 0) return -1;
    if (fails(kMemoryMap)) {
        table[0] = {0, 0};
        return kRefused;
    }
    uintptr_t at = reinterpret_cast<uintptr_t>(address);
    for (auto &[start, size] : k().unmapped) {
        if (at < start + size && start < at + length) {
            table[0] = {0, 0};
            return -1;
        }
    }
    int32_t filled = 0;
    entries = std::min(entries, k().most_runs);
    for (; length != 0 && filled < entries; ++filled) {
        uint32_t in_page = std::min(length, kPage - static_cast<uint32_t>(at % kPage));
        table[filled] = {at + static_cast<uintptr_t>(k().physical_offset), in_page};
        at += in_page;
        length -= in_page;
    }
    if (filled == 0) table[0] = {0, 0};
    return filled;
}

void *kern_settings_load(const char *name) {
    lock held(k().mutex);
    enter(held, "settings_load", -1, name, kThreadLevel);
    auto found = k().files.find(name);
    if (fails(kSettings) || found == k().files.end()) return nullptr;
    auto handle = std::make_unique<settings_handle>();
    handle->tree = {static_cast<int32_t>(found->second.size()), build(*handle, found->second)};
    void *result = handle.get();
    k().handles[result] = std::move(handle);
    return result;
}

int32_t kern_settings_unload(void *handle) {
    lock held(k().mutex);
    enter(held, "settings_unload", -1, "", kThreadLevel);
    if (k().handles.erase(handle) != 0) return 0;
    k().violations.push_back(line("settings_unload of", handle, "which is not open"));
    return -1;
}

const char *kern_settings_string(void *handle, const char *key, const char *if_unknown,
                                 const char *if_no_value) {
    lock held(k().mutex);
    enter(held, "settings_string", -1, key, kThreadLevel);
    const settings_parameter *found = find_key(handle, key);
    if (found == nullptr) return if_unknown;
    return found->value_count == 0 ? if_no_value : found->values[0];
}

uint8_t kern_settings_bool(void *handle, const char *key, uint8_t if_unknown, uint8_t if_no_value) {
    lock held(k().mutex);
    enter(held, "settings_bool", -1, key, kThreadLevel);
    const settings_parameter *found = find_key(handle, key);
    if (found == nullptr) return if_unknown;
    if (found->value_count == 0) return if_no_value;
    std::string value = found->values[0];
    return value == "true" || value == "yes" || value == "on" || value == "1";
}

const settings_tree *kern_settings_tree(void *handle) {
    lock held(k().mutex);
    enter(held, "settings_tree", -1, "", kThreadLevel);
    if (fails(kSettings)) return nullptr;
    auto found = k().handles.find(handle);
    if (found != k().handles.end()) return &found->second->tree;
    k().violations.push_back(line("settings_tree of", handle, "which is not open"));
    return nullptr;
}

int32_t kern_module_acquire(const char *path, void **table) {
    lock held(k().mutex);
    enter(held, "module_acquire", -1, path, kThreadLevel);
    auto found = k().modules.find(path);
    if (fails(kModuleAcquire) || found == k().modules.end() || !found->second.available) return kRefused;
    found->second.references++;
    *table = const_cast<void *>(found->second.table);
    return 0;
}

int32_t kern_module_release(const char *path) {
    lock held(k().mutex);
    enter(held, "module_release", -1, path, kThreadLevel);
    auto found = k().modules.find(path);
    if (found == k().modules.end() || found->second.references == 0) {
        k().violations.push_back(line("module_release of", in_quotes(path), "which nobody holds"));
        return -1;
    }
    found->second.references--;
    return 0;
}

int32_t kern_debug_add_command(const char *name, kern_debug_command function, const char *help) {
    lock held(k().mutex);
    enter(held, "debug_add_command", -1, name, kThreadLevel);
    if (fails(kDebugCommand)) return kRefused;
    return k().commands.emplace(name, command{function, help}).second ? 0 : -1;
}

// Removing a command that isn't there is no fault: a refused stop leaves nothing for the next one to
// remove.
int32_t kern_debug_remove_command(const char *name, kern_debug_command function) {
    lock held(k().mutex);
    enter(held, "debug_remove_command", -1, name, kThreadLevel);
    auto found = k().commands.find(name);
    if (found == k().commands.end() || found->second.function != function) return -1;
    k().commands.erase(found);
    return 0;
}

void kern_debug_print(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    lock held(k().mutex);
    k().debug_output += text;
}

void kern_debug_enter(const char *message) {
    lock held(k().mutex);
    enter(held, "debug_enter", -1, message, kAnyLevel);
}

void kern_log(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    lock held(k().mutex);
    enter(held, "log", -1, text, kAnyLevel, "", false);
    k().log.push_back(text);
}

void kern_halt(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    if (__gcov_dump != nullptr) __gcov_dump();
    abort();
}

// ---- The heap, in front of the C library's

extern "C" {

void *__wrap_malloc(size_t size) {
    lock held(k().mutex);
    return heap_refuses("malloc") ? nullptr : note_block(__real_malloc(size), size, true);
}

void *__wrap_calloc(size_t count, size_t size) {
    lock held(k().mutex);
    return heap_refuses("calloc") ? nullptr : note_block(__real_calloc(count, size), count * size, false);
}

char *__wrap_strdup(const char *text) {
    lock held(k().mutex);
    if (heap_refuses("strdup")) return nullptr;
    return static_cast<char *>(note_block(__real_strdup(text), strlen(text) + 1, false));
}

// A block that isn't known was there before the last reset, or was allocated inside a shared library. A
// second free of a known one reaches the C library, which aborts, or the address sanitizer, which tells
// more.
void __wrap_free(void *block) {
    {
        lock held(k().mutex);
        k().heap_calls++;
        if (tInterruptLevel > 0) k().violations.push_back(line("free", block, "at interrupt level"));
        k().heap.erase(block);
    }
    __real_free(block);
}
}
