// SPDX-License-Identifier: MIT
//
// A network namespace of this process's own, TAP devices in it, and the machine's own tools.

#ifndef ZARN_TESTS_LIVE_NETWORK_H
#define ZARN_TESTS_LIVE_NETWORK_H

#include <string>

// Moves the calling thread, and what it starts from then on, into a new namespace. Returns an empty text, or
// why that can't be: no root, no /dev/net/tun, or one of `tools`, names with blanks between, is missing.
std::string enter_own_network(const std::string &tools);

// A new TAP device, which goes when the descriptor is closed. Does not block; -1 with errno set.
int open_tap(const std::string &name);

// What crosses the device `name` of this namespace, whole frames in and out. Does not block; -1 with errno
// set.
int open_packets(const std::string &name);

// Runs a shell's command and waits for it.
struct tool_result {
    int code;         // the exit status, or 128 and the signal that ended it
    std::string out;  // and what went to the standard error
};
tool_result run_tool(const std::string &command);

#endif
