// SPDX-License-Identifier: MIT
//
// SIGINT and SIGTERM ask the program to end in order; whoever asks a second time ends it at once. SIGUSR1
// asks a program that runs on and on how it is doing.

#ifndef ZARN_HOST_STOP_SIGNALS_H
#define ZARN_HOST_STOP_SIGNALS_H

// Before the first thread is made: the signals are held back from this thread and from those that it makes.
void block_stop_signals();

// Lets the calling thread, and no other, take the signals. They end its interruptible waits.
void accept_stop_signals();

// Whether one has come.
bool stop_requested();

// From now on each of these signals, and SIGUSR1, adds to this eventfd, so that who polls it comes back. With
// -1 no longer: then the eventfd may go.
void wake_on_signals(int event_fd);

// Whether SIGUSR1 has come since the last call.
bool report_requested();

#endif
