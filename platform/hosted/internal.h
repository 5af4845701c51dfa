// SPDX-License-Identifier: MIT
//
// What the sources of the hosted kernel share with each other: critical sections, the kernel's own lock,
// futexes, and the one place for what cannot fail.

#ifndef ZARN_PLATFORM_HOSTED_INTERNAL_H
#define ZARN_PLATFORM_HOSTED_INTERNAL_H

#include <sys/types.h>

#include <cstdint>

#include "platform/hosted/hosted_kernel.h"

namespace hosted {

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
constexpr bool kThreadSanitizer = false;
#endif

// Prints the operation and the error number on stderr and aborts. For what fails only if the kernel itself is
// broken.
[[noreturn]] void broken(const char *operation, int error);

inline void must(int error, const char *operation) {
    if (error != 0) [[unlikely]]
        broken(operation, error);
}

// A critical section of the kernel on this thread: interrupts that arrive inside are held back until the
// outermost one ends. Costs two writes to thread-local memory.
void enter_section();
void leave_section();

class section {
 public:
    section() { enter_section(); }
    ~section() { leave_section(); }
    section(const section &) = delete;
    section &operator=(const section &) = delete;
};

// Whether this thread is at thread level and outside of all critical sections.
bool at_open_thread_level();

// How many interrupts have come to this thread, requests to stand still among them.
uint32_t interrupts_seen();
void note_interrupt();

// `word` is what a signal changes from any other value to `poked` when it meets this thread, or null.
void set_poke(uint32_t *word);
constexpr uint32_t kPoked = 1u << 30;

// Sleeps while `*word` is `value`, at most until `deadline` (usec of kern_time_us, KERN_TIMEOUT_FOREVER for
// no end). 0 or EAGAIN when it is worth to look again, ETIMEDOUT, EINTR.
int futex_wait(uint32_t *word, uint32_t value, int64_t deadline);
void futex_wake(uint32_t *word, int count);

// The kernel's own lock, for tables that change seldom. Short, and it may be taken at interrupt level: inside
// the guard the thread is in a critical section, so no handler ever waits for the thread that it interrupted.
class lock {
 public:
    void take();
    void give();

 private:
    uint32_t word_ = 0;  // 0 free, 1 held, 2 held and somebody may sleep
};

class guard {
 public:
    explicit guard(lock &held) : held_(held) { held_.take(); }
    ~guard() { held_.give(); }
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;

 private:
    section section_;
    lock &held_;
};

inline void relax() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

// How a thread stands to the one that stops the others: platform/hosted/stop.cc.
struct stop_place {
    uint32_t word;  // atomic
    // Written by the thread before it says in `word` that it stands still.
    uintptr_t at;  // the instruction that was interrupted
    bool waits;    // in a wait of the kernel's own, or for input or time
};

// Calls `visit` for every thread in the list but the calling one. None of them leaves the list meanwhile, and
// none that comes does more than join it before the end.
void visit_other_threads(void (*visit)(void *context, pid_t host_id, stop_place *place), void *context);
// The calling thread's.
stop_place *own_stop_place();

// Called under the list's lock by a thread that joins the list; true: it calls stand_still behind that.
bool stop_at_birth(stop_place *place);
void stand_still(stop_place *place);
bool stands_still(const stop_place *place);
// Called under the list's lock by a thread that leaves it: nobody would let it go any more.
void stop_no_more(stop_place *place);

// The signal that asks a thread to stop. It must not meet a thread in the handler of another signal.
int stop_signal();

// Notes whether this thread is in a wait of the kernel's own, and returns what was noted before.
bool set_waiting(bool waiting);

// Whether it is the calling thread that has stopped the others.
bool others_are_stopped();

// Calls `visit` with an address in the code of each module that is in service.
void visit_module_code(void (*visit)(void *context, const void *code), void *context);

// What this thread waits for, for listings: a semaphore, kSleeps, or 0.
constexpr int32_t kSleeps = -1;
void note_wait(int32_t waits_for);

// The id of the calling thread, 0 if it has none yet. At any level.
int32_t known_thread_id();

// Cuts what doesn't fit; the result always ends.
void copy_name(char *dest, size_t size, const char *source);

// The shared object that holds `address`, by its base; 0 for none.
uintptr_t image_of(const void *address);
// Waits until no spawned thread whose function lies in this shared object is left; false after `timeout`
// usec.
bool wait_for_threads_of(uintptr_t image, int64_t timeout);

// Bad use of the kernel: one line "kernel: ...", with the calling thread.
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

int32_t count_semaphores();
int32_t count_threads();
void count_memory(hosted_counts *counts);
void count_modules(hosted_counts *counts);
int32_t count_debug_commands();
int32_t log_semaphores();
int32_t log_threads();
int32_t log_regions();
int32_t log_locked_ranges();
int32_t log_modules();
int32_t log_debug_commands();
bool copy_module_directory(char *path, size_t size);
const char *thread_name();

}  // namespace hosted

#endif
