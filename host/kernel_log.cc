// SPDX-License-Identifier: MIT
#include "host/kernel_log.h"

#include <cstdio>
#include <string>

#include "platform/hosted/hosted_kernel.h"

namespace {

std::string gHeld;  // the kernel calls the sink with one line at a time

void keep(void *, const char *text) {
    gHeld += text;
}

}  // namespace

void hold_kernel_log() {
    hosted_set_log(keep, nullptr);
}

void release_kernel_log(bool print) {
    hosted_set_log(nullptr, nullptr);
    if (print) fputs(gHeld.c_str(), stderr);
    gHeld.clear();
}
