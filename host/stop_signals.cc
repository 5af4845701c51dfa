// SPDX-License-Identifier: MIT
#include "host/stop_signals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/hosted/hosted_kernel.h"

namespace {

int gRequests;      // to stop; atomic
int gReports;       // SIGUSR1 that nobody has looked at; atomic
int gEventFd = -1;  // atomic

void wake() {
    const int saved = errno, event_fd = __atomic_load_n(&gEventFd, __ATOMIC_RELAXED);
    if (event_fd >= 0) eventfd_write(event_fd, 1);
    errno = saved;
}

void on_stop(int signal) {
    if (__atomic_fetch_add(&gRequests, 1, __ATOMIC_RELAXED) != 0) _exit(128 + signal);
    wake();
}

void on_report(int) {
    __atomic_store_n(&gReports, 1, __ATOMIC_RELAXED);
    wake();
}

void mask_stop_signals(int how) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

void block_stop_signals() {
    mask_stop_signals(SIG_BLOCK);
}

void accept_stop_signals() {
    hosted_install_signal(SIGINT, on_stop);
    hosted_install_signal(SIGTERM, on_stop);
    mask_stop_signals(SIG_UNBLOCK);
}

bool stop_requested() {
    return __atomic_load_n(&gRequests, __ATOMIC_RELAXED) != 0;
}

void wake_on_signals(int event_fd) {
    __atomic_store_n(&gEventFd, event_fd, __ATOMIC_RELAXED);
    if (event_fd >= 0) hosted_install_signal(SIGUSR1, on_report);
}

bool report_requested() {
    return __atomic_exchange_n(&gReports, 0, __ATOMIC_RELAXED) != 0;
}
