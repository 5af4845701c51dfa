// SPDX-License-Identifier: MIT
#include "host/stop_signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "platform/hosted/hosted_kernel.h"

namespace {

int gRequests;  // atomic

void on_stop(int signal) {
    if (__atomic_fetch_add(&gRequests, 1, __ATOMIC_RELAXED) != 0) _exit(128 + signal);
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
