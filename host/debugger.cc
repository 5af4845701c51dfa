// SPDX-License-Identifier: MIT
#include "host/debugger.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "host/exit_codes.h"
#include "host/heap_meter.h"
#include "host/line_source.h"
#include "platform/hosted/hosted_kernel.h"

namespace {

constexpr int64_t kPatience = 1'000'000;  // usec

const zarn_util_module_t *gUtil;

// The prompt; gLines is used with the other threads stopped.
bool gHasPrompt;
line_source gLines;
std::thread gQuitThread;
int32_t gQuitSem;  // a unit for each SIGQUIT
bool gLeaves;      // atomic

void print_to(void *stream, const char *text) {
    fputs(text, static_cast<FILE *>(stream));
}

// All entries that `list` has.
template <typename Info>
std::vector<Info> list_all(int32_t (*list)(Info *table, int32_t capacity)) {
    std::vector<Info> table;
    for (int32_t count; (count = list(table.data(), static_cast<int32_t>(table.size()))) >= 0;) {
        bool all = static_cast<size_t>(count) <= table.size();
        table.resize(static_cast<size_t>(count));
        if (all) break;
    }
    return table;
}

std::vector<hosted_thread_info> list_running_threads() {
    std::vector<hosted_thread_info> threads = list_all(hosted_list_threads);
    int32_t self = kern_thread_self();
    std::erase_if(threads, [=](const auto &thread) { return thread.stopped || thread.id == self; });
    return threads;
}

// The commands

int32_t print_help(int32_t, char **) {
    hosted_list_debug_commands(
        [](void *, const char *name, const char *help) { kern_debug_print("  %-12s %s\n", name, help); },
        nullptr);
    kern_debug_print(
        "At the prompt:\n"
        "  %-12s %s\n"
        "  %-12s %s\n",
        "continue", "let the threads go on; so does the end of the input", "quit",
        "let them go on, and end the program in order");
    return 0;
}

std::string describe_state(const hosted_thread_info &thread) {
    std::string state = "runs";
    if (thread.id == kern_thread_self())
        state = "in the debugger";
    else if (thread.suspended)
        state = "not resumed yet";
    else if (thread.waits_for != 0)
        state = "waits for semaphore " + std::to_string(thread.waits_for);
    else if (thread.sleeps)
        state = "sleeps";
    else if (thread.stopped)
        state = "stopped";
    if (thread.id != kern_thread_self() && !thread.stopped) state += ", could not be stopped";
    return state;
}

int32_t print_threads(int32_t, char **) {
    std::vector<hosted_thread_info> threads = list_all(hosted_list_threads);
    std::reverse(threads.begin(), threads.end());  // the oldest first
    kern_debug_print("%10s  %-31s %8s %12s %12s  %s\n", "thread", "name", "priority", "user usec",
                     "kernel usec", "state");
    for (const hosted_thread_info &thread : threads) {
        unsigned char record[76] = {};
        int64_t user = 0, kernel = 0;
        if (kern_thread_info(thread.id, record, sizeof(record)) == 0) {
            memcpy(&user, record + 52, sizeof(user));
            memcpy(&kernel, record + 60, sizeof(kernel));
        }
        kern_debug_print("%10" PRId32 "  %-31s %8" PRId32 " %12" PRId64 " %12" PRId64 "  %s\n", thread.id,
                         thread.name, thread.priority, user, kernel, describe_state(thread).c_str());
    }
    return 0;
}

int32_t print_semaphores(int32_t, char **) {
    kern_debug_print("%10s  %-31s %10s %8s %5s  %s\n", "semaphore", "name", "count", "waiters", "team",
                     "thread that took it last");
    for (const hosted_semaphore_info &sem : list_all(hosted_list_semaphores))
        kern_debug_print("%10" PRId32 "  %-31s %10" PRId32 " %8" PRId32 " %5" PRId32 "  %s\n", sem.id,
                         sem.name, sem.count, sem.waiters, sem.team,
                         sem.holder != 0 ? std::to_string(sem.holder).c_str() : "-");
    return 0;
}

int32_t print_modules(int32_t, char **) {
    kern_debug_print("%10s  %s\n", "references", "module");
    for (const hosted_module_info &module : list_all(hosted_list_modules))
        kern_debug_print("%10" PRId32 "  %s%s\n", module.references, module.path,
                         module.owner != 0 ? ", starts or stops" : "");
    return 0;
}

int32_t print_pools(int32_t, char **) {
    if (size_t running = list_running_threads().size(); running != 0) {
        kern_debug_print("%zu threads could not be stopped, and blocks can't be counted while they run\n",
                         running);
        return -1;
    }
    kern_debug_print("%-8s %10s %10s %10s %14s\n", "pool", "block size", "blocks", "out", "heap instead");
    for (const pool_state &pool : peek_pools(gUtil))
        kern_debug_print("%-8s %10" PRIu32 " %10" PRIu32 " %10" PRIu32 " %14" PRIu64 "\n", pool.name,
                         pool.block_size, pool.blocks, pool.out, pool.fall_backs);
    return 0;
}

struct built_in {
    const char *name;
    kern_debug_command run;
    const char *help;
};

constexpr built_in kBuiltIn[] = {
    {"help", print_help, "this list"},
    {"threads", print_threads, "threads, their times and what they wait for"},
    {"semaphores", print_semaphores, "semaphores, who waits and who took a unit last and gave none back"},
    {"modules", print_modules, "loaded modules and how many hold them"},
    {"pools", print_pools, "blocks of the pools that are out"},
};

// False for a command that nobody has registered.
bool run_line(const char *line, FILE *output) {
    return hosted_run_debug_command(line, print_to, output) != KERN_ERR_NOT_FOUND;
}

// The prompt

void prompt(const char *message, int32_t) {
    FILE *output = gLines.output;
    std::string why = message;
    if (!why.empty() && why.back() == '\n') why.pop_back();
    int32_t self = kern_thread_self();
    for (const hosted_thread_info &thread : list_all(hosted_list_threads))
        if (thread.id == self)
            fprintf(output, "\nIn the kernel debugger, by thread %" PRId32 ", \"%s\": %s\n", self,
                    thread.name, why.c_str());
    for (const hosted_thread_info &thread : list_running_threads())
        fprintf(output, "thread %" PRId32 ", \"%s\", could not be stopped and goes on\n", thread.id,
                thread.name);
    if (gLines.terminal != nullptr) fputs("'help' lists the commands, 'continue' leaves.\n", output);
    for (std::string line; fflush(output), read_line(&gLines, &line);) {
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos) continue;
        std::string word = line.substr(start, line.find_first_of(" \t", start) - start);
        if (word == "quit") kill(getpid(), SIGINT);
        if (word == "quit" || word == "continue") break;
        if (!run_line(line.c_str(), output))
            fprintf(output, "There is no command '%s'; 'help' lists them.\n", word.c_str());
    }
    end_lines(&gLines);
}

void on_quit(const siginfo_t *) {
    kern_sem_release_ex(gQuitSem, 1, KERN_SEM_NO_RESCHEDULE);
}

void serve_quit() {
    pthread_setname_np(pthread_self(), "debugger");
    kern_thread_self();
    while (kern_sem_acquire(gQuitSem) == 0 && !__atomic_load_n(&gLeaves, __ATOMIC_ACQUIRE))
        kern_debug_enter("SIGQUIT\n");
}

}  // namespace

bool add_debug_command(debugger_options *options, const char *line) {
    if (line[strspn(line, " \t\n")] == '\0') return false;
    options->commands.push_back(line);
    return true;
}

int32_t start_debugger(const zarn_util_module_t *util, const debugger_options &options) {
    gUtil = util;
    gHasPrompt = open_lines(&gLines, options.enter);
    if (options.enter && !gHasPrompt) {
        fprintf(stderr, "zarn: the terminal can't be opened for the debugger\n");
        return -1;
    }
    for (const built_in &command : kBuiltIn)
        kern_debug_add_command(command.name, command.run, command.help);
    if (!gHasPrompt) return 0;
    gQuitSem = kern_sem_create(0, "SIGQUIT");
    gLeaves = false;
    gQuitThread = std::thread(serve_quit);
    hosted_set_debug_entry(prompt);
    hosted_install_interrupt(SIGQUIT, on_quit);
    return 0;
}

void enter_debugger(const debugger_options &options) {
    if (options.enter) kern_debug_enter("--debug\n");
}

int run_debug_commands(const debugger_options &options) {
    int code = kExitOk;
    if (options.commands.empty()) return code;
    hosted_stop_threads(kPatience);
    for (const char *line : options.commands) {
        if (run_line(line, stdout)) continue;
        fprintf(stderr, "zarn: the kernel debugger has no command '%s'; --command help lists them\n", line);
        code = kExitInput;
    }
    hosted_continue_threads();
    return code;
}

void stop_debugger() {
    if (gHasPrompt) {
        hosted_install_interrupt(SIGQUIT, nullptr);
        hosted_set_debug_entry(nullptr);
        __atomic_store_n(&gLeaves, true, __ATOMIC_RELEASE);
        kern_sem_release(gQuitSem);
        gQuitThread.join();
        kern_sem_delete(gQuitSem);
        close_lines(&gLines);
    }
    for (const built_in &command : kBuiltIn)
        kern_debug_remove_command(command.name, command.run);
}
