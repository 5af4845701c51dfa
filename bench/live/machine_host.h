// SPDX-License-Identifier: MIT
//
// The machine's own stack as a host behind a TAP device, with plain servers for echo and discard.

#ifndef ZARN_BENCH_LIVE_MACHINE_HOST_H
#define ZARN_BENCH_LIVE_MACHINE_HOST_H

#include <sys/types.h>

#include <string>

// Starts a process that is the host `address`, with the length of its prefix, on the wire that ends in the
// device `tap`, which it makes here. The host has a namespace and a TAP device of its own, and a loop in the
// process carries the frames between the two. Ends when it is killed. Returns when the host serves; -1 when
// it can't.
pid_t start_machine_host(const std::string &tap, const std::string &address);

#endif
