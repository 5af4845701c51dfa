// SPDX-License-Identifier: MIT
//
// The interrupt level: signal handlers that the kernel holds back while their thread is inside a critical
// section.
//
// A critical section sets a mark in thread-local memory; no signal mask changes, so it costs no system call.
// An interrupt that finds the mark keeps its siginfo, blocks all interrupts in the context that it returns
// to, and returns. The end of the section finds what was kept, runs it and restores the mask. So at most one
// interrupt is kept, and the rest wait in the queue of the host, where nothing is lost. (A thread sanitizer
// delivers signals late and ignores the changed context; for it a few more can be kept.)

#include <errno.h>
#include <pthread.h>
#include <ucontext.h>

#include "platform/hosted/internal.h"

namespace {

constexpr int kSignals = 65;
constexpr int kMostKept = 16;

using interrupt_handler = void (*)(const siginfo_t *info);
using signal_handler = void (*)(int signal);

interrupt_handler gInterrupts[kSignals];  // atomic
signal_handler gSignals[kSignals];        // atomic

// Of this thread; the handlers that change these run on the same thread.
thread_local volatile int tSections;
thread_local volatile int tLevel;
thread_local volatile int tKept;
thread_local volatile uint32_t tSeen;
thread_local uint32_t *volatile tPoke;
thread_local siginfo_t tKeptInfo[kMostKept];
thread_local sigset_t tMaskBefore;

void serve(const siginfo_t *info) {
    interrupt_handler handler = __atomic_load_n(&gInterrupts[info->si_signo], __ATOMIC_ACQUIRE);
    if (handler) handler(info);
}

// Runs what was kept, at interrupt level, until nothing is left.
void serve_kept() {
    while (tKept > 0) {
        siginfo_t info = tKeptInfo[0];
        for (int i = 1; i < tKept; i++)
            tKeptInfo[i - 1] = tKeptInfo[i];
        tKept = tKept - 1;
        serve(&info);
    }
}

void keep(const siginfo_t *info, void *context) {
    if (tKept == kMostKept) hosted::broken("keeping an interrupt", info->si_signo);
    sigset_t *mask = &static_cast<ucontext_t *>(context)->uc_sigmask;
    if (tKept == 0) tMaskBefore = *mask;
    tKeptInfo[tKept] = *info;
    tKept = tKept + 1;
    for (int signal = 1; signal < kSignals; signal++)
        if (__atomic_load_n(&gInterrupts[signal], __ATOMIC_RELAXED)) sigaddset(mask, signal);
}

void on_interrupt(int, siginfo_t *info, void *context) {
    int error = errno;
    hosted::note_interrupt();
    if (!hosted::at_open_thread_level()) {
        keep(info, context);
    } else {
        tLevel = 1;
        serve(info);
        serve_kept();
        tLevel = 0;
    }
    errno = error;
}

void on_signal(int signal) {
    int error = errno;
    signal_handler handler = __atomic_load_n(&gSignals[signal], __ATOMIC_ACQUIRE);
    if (handler) handler(signal);
    // The word belongs to this thread and can't go while its handler runs; a verdict that is there already
    // stays.
    if (uint32_t *word = tPoke) {
        uint32_t value = __atomic_load_n(word, __ATOMIC_RELAXED);
        while (value < hosted::kPoked &&
               !__atomic_compare_exchange_n(word, &value, value | hosted::kPoked, false, __ATOMIC_RELAXED,
                                            __ATOMIC_RELAXED)) {
        }
    }
    errno = error;
}

bool is_free(int signal) {
    return signal > 0 && signal < kSignals && signal != hosted::stop_signal();
}

int32_t install(int signal, const struct sigaction *action) {
    return sigaction(signal, action, nullptr) == 0 ? 0 : KERN_ERR_BAD_VALUE;
}

// Everything but what the processor raises itself.
void fill_mask(sigset_t *mask) {
    sigfillset(mask);
    constexpr int kRaised[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS};
    for (int signal : kRaised)
        sigdelset(mask, signal);
}

}  // namespace

namespace hosted {

void enter_section() {
    tSections = tSections + 1;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

void leave_section() {
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    tSections = tSections - 1;
    // Whatever was kept so far is seen here. An interrupt from now on runs at once if nothing is kept, and
    // else joins it.
    if (tSections == 0 && tKept > 0 && tLevel == 0) [[unlikely]] {
        tLevel = 1;
        serve_kept();
        tLevel = 0;
        must(pthread_sigmask(SIG_SETMASK, &tMaskBefore, nullptr), "restoring the signal mask");
    }
}

bool at_open_thread_level() {
    return tSections == 0 && tLevel == 0 && tKept == 0;
}

uint32_t interrupts_seen() {
    return tSeen;
}

void note_interrupt() {
    tSeen = tSeen + 1;
}

void set_poke(uint32_t *word) {
    tPoke = word;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

}  // namespace hosted

int32_t hosted_install_interrupt(int signal, void (*handler)(const siginfo_t *info)) {
    if (!is_free(signal)) return KERN_ERR_BAD_VALUE;
    interrupt_handler before = __atomic_exchange_n(&gInterrupts[signal], handler, __ATOMIC_ACQ_REL);
    struct sigaction action = {};
    if (handler) {
        action.sa_sigaction = on_interrupt;
        // Under the thread sanitizer a sleeping thread gets its signals only when the system call comes back.
        action.sa_flags = SA_SIGINFO | (hosted::kThreadSanitizer ? 0 : SA_RESTART);
        fill_mask(&action.sa_mask);
    } else {
        action.sa_handler = SIG_IGN;
    }
    int32_t status = install(signal, &action);
    if (status < 0) __atomic_store_n(&gInterrupts[signal], before, __ATOMIC_RELEASE);
    return status;
}

int32_t hosted_install_signal(int signal, void (*handler)(int signal)) {
    if (!is_free(signal)) return KERN_ERR_BAD_VALUE;
    __atomic_store_n(&gSignals[signal], handler, __ATOMIC_RELEASE);
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, hosted::stop_signal());
    return install(signal, &action);
}

bool hosted_at_interrupt_level() {
    return tLevel > 0;
}
