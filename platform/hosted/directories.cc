// SPDX-License-Identifier: MIT
//
// Where this kernel looks for modules and settings. Set by the program, usually once before anything is
// loaded.

#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr size_t kLongest = 4096;

hosted::lock gDirectories;
// Under gDirectories.
char gModules[kLongest] = ".";
char gSettings[kLongest] = ".";

int32_t set(char *directory, const char *path) {
    if (!path || !path[0] || strlen(path) >= kLongest) return KERN_ERR_BAD_VALUE;
    hosted::guard held(gDirectories);
    hosted::copy_name(directory, kLongest, path);
    return 0;
}

size_t get(const char *directory, char *path, size_t size) {
    hosted::guard held(gDirectories);
    if (size > 0) hosted::copy_name(path, size, directory);
    return strlen(directory);
}

}  // namespace

int32_t hosted_set_module_directory(const char *path) {
    return set(gModules, path);
}

int32_t hosted_set_settings_directory(const char *path) {
    return set(gSettings, path);
}

size_t hosted_settings_directory(char *path, size_t size) {
    return get(gSettings, path, size);
}

namespace hosted {

bool copy_module_directory(char *path, size_t size) {
    return get(gModules, path, size) < size;
}

}  // namespace hosted
