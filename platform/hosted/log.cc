// SPDX-License-Identifier: MIT
//
// The kernel's log, its halt, and the count of all that is alive.

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr size_t kLongestLine = 4096;

using log_sink = void (*)(void *context, const char *text);

hosted::lock gLog;
// Under gLog.
log_sink gSink;
void *gSinkContext;

void write_to_stderr(const char *text) {
    for (size_t left = strlen(text); left > 0;) {
        ssize_t written = write(STDERR_FILENO, text, left);
        if (written <= 0) return;  // nobody listens, and there is no one else to tell
        text += written;
        left -= static_cast<size_t>(written);
    }
}

void log_text(const char *text) {
    hosted::guard held(gLog);
    if (gSink && !hosted_at_interrupt_level())
        gSink(gSinkContext, text);
    else
        write_to_stderr(text);
}

}  // namespace

void kern_log(const char *format, ...) {
    char text[kLongestLine];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    log_text(text);
}

void kern_halt(const char *format, ...) {
    char text[kLongestLine];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    write_to_stderr("kernel: halted: ");
    write_to_stderr(text);
    abort();
}

void hosted_set_log(void (*sink)(void *context, const char *text), void *context) {
    hosted::guard held(gLog);
    gSink = sink;
    gSinkContext = context;
}

hosted_counts hosted_count_objects() {
    hosted_counts counts = {};
    counts.semaphores = hosted::count_semaphores();
    counts.threads = hosted::count_threads();
    counts.debug_commands = hosted::count_debug_commands();
    hosted::count_memory(&counts);
    hosted::count_modules(&counts);
    return counts;
}

int32_t hosted_log_objects() {
    return hosted::log_semaphores() + hosted::log_threads() + hosted::log_regions() +
           hosted::log_locked_ranges() + hosted::log_modules() + hosted::log_debug_commands();
}

namespace hosted {

void complain(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (hosted_at_interrupt_level())
        kern_log("kernel: %s (at interrupt level)\n", text);
    else
        kern_log("kernel: %s (thread %d, \"%s\")\n", text, kern_thread_self(), thread_name());
}

}  // namespace hosted
