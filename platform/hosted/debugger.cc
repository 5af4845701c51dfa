// SPDX-License-Identifier: MIT
//
// The debugger: a table of commands that the program and the tests run by name.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr size_t kLongestText = 4096;
constexpr int32_t kMostArguments = 32;
constexpr int64_t kStopPatience = 1'000'000;  // usec

struct command {
    char *name;
    char *help;
    kern_debug_command function;
    command *next;
};

struct output_sink {
    void (*print)(void *context, const char *text);
    void *context;
};

hosted::lock gCommands;
// Under gCommands.
command *gFirst;
int32_t gCount;

hosted::lock gRunning;  // held while a command runs, but for one that runs with the others stopped
void (*gEntered)(const char *message, int32_t running);  // atomic

// Where this thread's kern_debug_print goes; set while it runs a command.
thread_local const output_sink *tOutput;

command **find_locked(const char *name) {
    command **link = &gFirst;
    while (*link && strcmp((*link)->name, name) != 0)
        link = &(*link)->next;
    return link;
}

void free_command(command *gone) {
    free(gone->name);
    free(gone->help);
    free(gone);
}

}  // namespace

int32_t kern_debug_add_command(const char *name, kern_debug_command function, const char *help) {
    if (!name || !name[0] || strpbrk(name, " \t\n") || !function) return KERN_ERR_BAD_VALUE;
    command *added = static_cast<command *>(malloc(sizeof(command)));
    if (!added) return KERN_ERR_NO_MEMORY;
    *added = {strdup(name), strdup(help ? help : ""), function, nullptr};
    int32_t status = added->name && added->help ? 0 : KERN_ERR_NO_MEMORY;
    if (status == 0) {
        hosted::guard held(gCommands);
        command **link = find_locked(name);
        if (*link) {
            status = KERN_ERR_NAME_TAKEN;
        } else {
            *link = added;
            gCount++;
        }
    }
    if (status == KERN_ERR_NAME_TAKEN)
        hosted::complain("debugger: the command \"%s\" is there already", name);
    if (status < 0) free_command(added);
    return status;
}

int32_t kern_debug_remove_command(const char *name, kern_debug_command function) {
    if (!name) return KERN_ERR_BAD_VALUE;
    command *gone = nullptr;
    {
        hosted::guard held(gCommands);
        command **link = find_locked(name);
        if (*link && (*link)->function == function) {
            gone = *link;
            *link = gone->next;
            gCount--;
        }
    }
    if (!gone) return KERN_ERR_NOT_FOUND;
    free_command(gone);
    return 0;
}

void kern_debug_print(const char *format, ...) {
    char text[kLongestText];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (tOutput && tOutput->print)
        tOutput->print(tOutput->context, text);
    else
        kern_log("%s", text);
}

void kern_debug_enter(const char *message) {
    kern_log("kernel: debugger entered: %s", message ? message : "\n");
    if (!__atomic_load_n(&gEntered, __ATOMIC_ACQUIRE)) return;
    int32_t running = hosted_stop_threads(kStopPatience);
    if (running < 0) return;
    // It may have gone while this thread waited for its turn.
    if (auto *entered = __atomic_load_n(&gEntered, __ATOMIC_ACQUIRE)) entered(message, running);
    hosted_continue_threads();
}

void hosted_set_debug_entry(void (*entered)(const char *message, int32_t running)) {
    __atomic_store_n(&gEntered, entered, __ATOMIC_RELEASE);
}

int32_t hosted_run_debug_command(const char *line, void (*output)(void *context, const char *text),
                                 void *context) {
    char *text = strdup(line);
    if (!text) return KERN_ERR_NO_MEMORY;
    char *arguments[kMostArguments + 1] = {};
    int32_t count = 0;
    char *rest = nullptr;
    for (char *word = strtok_r(text, " \t\n", &rest); word && count < kMostArguments;
         word = strtok_r(nullptr, " \t\n", &rest))
        arguments[count++] = word;

    kern_debug_command function = nullptr;
    if (count > 0) {
        hosted::guard held(gCommands);
        command *found = *find_locked(arguments[0]);
        if (found) function = found->function;
    }
    int32_t status = count == 0 ? KERN_ERR_BAD_VALUE : KERN_ERR_NOT_FOUND;
    if (function) {
        output_sink sink = {output, context};
        const output_sink *before = tOutput;
        // A command may run another one. And one that was stopped half-way must not keep the debugger
        // waiting.
        bool takes_turn = !before && !hosted::others_are_stopped();
        if (takes_turn) gRunning.take();
        tOutput = &sink;
        status = function(count, arguments);
        tOutput = before;
        if (takes_turn) gRunning.give();
    }
    free(text);
    return status;
}

void hosted_list_debug_commands(void (*visit)(void *context, const char *name, const char *help),
                                void *context) {
    hosted::guard held(gCommands);
    for (command *at = gFirst; at; at = at->next)
        visit(context, at->name, at->help);
}

namespace hosted {

int32_t count_debug_commands() {
    guard held(gCommands);
    return gCount;
}

int32_t log_debug_commands() {
    guard held(gCommands);
    for (command *at = gFirst; at; at = at->next)
        kern_log("kernel: debugger command \"%s\"\n", at->name);
    return gCount;
}

}  // namespace hosted
