// SPDX-License-Identifier: MIT
//
// The kernel debugger of the program: commands that look at the kernel and at the module, beside those that
// modules bring, and a prompt for them.
//
// - kern_debug_enter and SIGQUIT open the prompt, on the thread that enters or on one for SIGQUIT. All other
//   threads stand still until it is left.
// - Lines come from the standard input if that is a terminal. Otherwise nothing enters and SIGQUIT ends the
//   program, unless the lines are to come from it all the same, as a script; then the output goes to stdout.
// - A command that runs without the prompt finds the other threads stopped, too.

#ifndef ZARN_HOST_DEBUGGER_H
#define ZARN_HOST_DEBUGGER_H

#include <zarn/zarn_util.h>

#include <vector>

struct debugger_options {
    bool enter = false;                  // at the start; lines come from the standard input whatever it is
    std::vector<const char *> commands;  // to be run at the end
};

// The options as usage texts tell them.
#define DEBUGGER_HELP                                                                         \
    "  --debug        enter the kernel debugger at the start; its commands come from stdin\n" \
    "  --command LINE run a command of the kernel debugger at the end; may be given again\n"

// False for a line that has no command in it.
bool add_debug_command(debugger_options *options, const char *line);

// Brings the commands and, where lines can come from somewhere, the prompt. To be called when the module is
// loaded and before there is much to stop. Returns 0, or below 0 with a line on stderr.
int32_t start_debugger(const zarn_util_module_t *util, const debugger_options &options);

// Opens the prompt if the options say so, and comes back when it is left.
void enter_debugger(const debugger_options &options);

// Runs the commands of the options, with their output on stdout. Returns an exit_code: that of an input if a
// command isn't known, which is told on stderr.
int run_debug_commands(const debugger_options &options);

// Takes all of it away. Before the module goes, on the thread that has started the debugger.
void stop_debugger();

#endif
