// SPDX-License-Identifier: MIT
#include "host/run.h"

#include <cinttypes>
#include <cstdio>

#include "diagnostics/profiler.h"
#include "host/exit_codes.h"
#include "host/kernel_log.h"
#include "host/places.h"
#include "host/stop_signals.h"
#include "platform/hosted/hosted_kernel.h"
#include "platform/hosted/settings.h"
#include "platform/kern.h"

namespace {

// As before the first module was loaded.
bool kernel_is_empty() {
    hosted_counts counts = hosted_count_objects();
    if (counts.modules == 0 && counts.module_references == 0 && counts.semaphores == 0 &&
        counts.threads == 0 && counts.regions == 0 && counts.locked_ranges == 0 &&
        counts.debug_commands == 0) {
        return true;
    }
    fprintf(stderr, "zarn: the modules have left something behind:\n");
    hosted_log_objects();
    return false;
}

}  // namespace

const char *take_run_option(int found, const char *value, run_options *options) {
    switch (found) {
        case kRunModules:
            options->modules = value;
            return nullptr;
        case kRunConf:
            options->settings = value;
            return nullptr;
        case kRunProfile:
            options->profile = true;
            return nullptr;
        case kRunLog:
            options->log = true;
            return nullptr;
        case kRunDebug:
            options->debugger.enter = true;
            return nullptr;
        case kRunCommand:
            if (!add_debug_command(&options->debugger, value)) return "--command needs a command";
            return nullptr;
        default:
            return "unknown or ambiguous option";
    }
}

int prepare_run(const run_options &options, const char *command) {
    const std::string modules = options.modules.empty() ? default_module_directory() : options.modules;
    const std::string settings = options.settings.empty() ? default_settings_file() : options.settings;
    block_stop_signals();
    show_kernel_log(options.log);
    const char *what = hosted_set_module_directory(modules.c_str()) != 0              ? "module directory"
                       : hosted_set_settings_file("zarn.conf", settings.c_str()) != 0 ? "settings file"
                                                                                      : nullptr;
    if (what != nullptr) {
        fprintf(stderr, "zarn %s: the path of the %s is too long; try 'zarn %s --help'\n", command, what,
                command);
        return kExitUsage;
    }
    void *loaded = kern_settings_load("zarn.conf");  // the log tells what is wrong
    if (loaded == nullptr) return kExitInput;
    kern_settings_unload(loaded);
    return kExitOk;
}

bool pools_are_full(const std::array<pool_state, kPools> &pools) {
    bool full = true;
    for (const pool_state &pool : pools) {
        if (pool.out == 0) continue;
        fprintf(stderr, "zarn: %" PRIu32 " blocks of the %s pool were not given back\n", pool.out, pool.name);
        full = false;
    }
    return full;
}

void print_profile(FILE *to) {
    std::string text;
    const auto append = [](void *all, const char *part) { *static_cast<std::string *>(all) += part; };
    hosted_run_debug_command("prof_real", append, &text);
    if (!text.empty()) fprintf(to, "\nprofile, usec, each with what runs inside of it:\n%s", text.c_str());
}

int run_protocols(const run_options &options, const std::function<int(protocol_stack *stack)> &work) {
    if (options.profile) hosted_force_setting("profile", "yes");
    protocol_stack stack;
    if (!load_protocol_stack(&stack)) return kExitModule;
    stack.profile = options.profile;
    int code = kExitModule;
    if (install_heap_meter(stack.util, options.profile ? sizeof(profiler_record) : 0) != 0) {
        fprintf(stderr, "zarn: the heap calls of the module can't be counted\n");
    } else if (start_debugger(stack.util, options.debugger) != 0) {
        code = kExitInput;
    } else {
        code = work(&stack);
        stop_debugger();
    }
    if (!unload_protocol_stack(&stack) || !kernel_is_empty()) code = kExitFault;
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "zarn: can't write the report\n");
        if (code == kExitOk) code = kExitInput;
    }
    return code;
}
