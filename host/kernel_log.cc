// SPDX-License-Identifier: MIT
#include "host/kernel_log.h"

#include <cstdio>
#include <cstring>

#include "platform/hosted/hosted_kernel.h"

namespace {

// Parts of lines that tell of an ordinary start.
constexpr const char *kRoutine[] = {
    "zarn_timers : wheel Size",  "runs without its real-time priority",       "found sections - in = ",
    "zarn_util: loading stack ", "zarn_util: free_family_cache(): unloading", "initializing profiler"};

void print_line(void *, const char *text) {
    for (const char *part : kRoutine)
        if (strstr(text, part) != nullptr) return;
    fputs(text, stderr);
}

}  // namespace

void show_kernel_log(bool all) {
    hosted_set_log(all ? nullptr : print_line, nullptr);
}
