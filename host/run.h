// SPDX-License-Identifier: MIT
//
// What every command has in common that runs the protocols: how they are set up, and the looks at what is
// left of them.

#ifndef ZARN_HOST_RUN_H
#define ZARN_HOST_RUN_H

#include <array>
#include <string>

#include "host/heap_meter.h"

#define RUN_OPTIONS_HELP                                                                                \
    "  --conf FILE    the settings (default: zarn.conf beside the program, or where it is installed)\n" \
    "  --modules DIR  where the modules lie (default: the directory modules beside the program)\n"
#define RUN_LOG_HELP \
    "  --log          show all of the kernel's log on stderr, not only what is out of the ordinary\n"

struct run_options {
    std::string settings;  // empty: what the program comes with
    std::string modules;   // likewise
    bool log = false;
};

// Readies the kernel for the modules: before the first of them is loaded and before the first thread is made.
// The modules read the settings when they need them; a file with a mistake is better refused at once. An exit
// code, with what is wrong on stderr unless it is kExitOk.
int prepare_run(const run_options &options, const char *command);

// Whether all blocks are back in their pools; says so on stderr when they are not.
bool pools_are_full(const std::array<pool_state, kPools> &pools);

// Whether the kernel is as empty as before the first module was loaded; likewise.
bool kernel_is_empty();

#endif
