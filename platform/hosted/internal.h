// SPDX-License-Identifier: MIT
//
// What the sources of the hosted kernel share with each other: critical sections, the kernel's own lock,
// futexes, and the one place for what cannot fail.

#ifndef ZARN_PLATFORM_HOSTED_INTERNAL_H
#define ZARN_PLATFORM_HOSTED_INTERNAL_H

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

// How many interrupts have come to this thread.
uint32_t interrupts_seen();

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
