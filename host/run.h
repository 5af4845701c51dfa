// SPDX-License-Identifier: MIT
//
// What every command has in common that runs the protocols: options, how they are set up, and the looks at
// what is left of them.

#ifndef ZARN_HOST_RUN_H
#define ZARN_HOST_RUN_H

#include <getopt.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>

#include "host/debugger.h"
#include "host/heap_meter.h"
#include "host/protocol_stack.h"

// Lines of a usage text. RUN_LOG_HELP comes last of a command's own options but for --help.
#define RUN_OPTIONS_HELP                                                                                \
    "  --conf FILE    the settings (default: zarn.conf beside the program, or where it is installed)\n" \
    "  --modules DIR  where the modules lie (default: the directory modules beside the program)\n"
#define RUN_LOG_HELP \
    "  --log          show all of the kernel's log on stderr, not only what is unusual\n" DEBUGGER_HELP

// Their rows for getopt_long; a command's own values are below these.
enum { kRunModules = 512, kRunConf, kRunProfile, kRunLog, kRunDebug, kRunCommand };
#define RUN_OPTIONS                                                                                       \
    {"modules", required_argument, nullptr, kRunModules}, {"conf", required_argument, nullptr, kRunConf}, \
        {"profile", no_argument, nullptr, kRunProfile}, {"log", no_argument, nullptr, kRunLog},           \
        {"debug", no_argument, nullptr, kRunDebug}, {                                                     \
        "command", required_argument, nullptr, kRunCommand                                                \
    }

struct run_options {
    std::string settings;  // empty: what the program comes with
    std::string modules;   // likewise
    bool log = false;
    bool profile = false;
    debugger_options debugger;
};

// Takes one of these options. Null, or what is wrong with it.
const char *take_run_option(int found, const char *value, run_options *options);

// Readies the kernel for the modules: before the first of them is loaded and before the first thread is made.
// The modules read the settings when they need them; a file with a mistake is better refused at once. An exit
// code, with what is wrong on stderr unless it is kExitOk.
int prepare_run(const run_options &options, const char *command);

// Loads the modules, starts the debugger, has `work` done, which returns an exit code, and takes all of it
// away again. Returns the exit code of all together; what is wrong stands on stderr.
int run_protocols(const run_options &options, const std::function<int(protocol_stack *stack)> &work);

// Prints what the profiler has measured. As good as nothing else is to happen meanwhile.
void print_profile(FILE *to);

// Whether all blocks are back in their pools; says so on stderr when they are not.
bool pools_are_full(const std::array<pool_state, kPools> &pools);

#endif
