// SPDX-License-Identifier: MIT
#include "host/places.h"

#include <filesystem>

namespace {

// `built` beside the program if it is there, else `installed`; both are relative to the program's directory.
std::string find_place(const char *built, const char *installed) {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path beside = program.parent_path() / built;
    if (std::filesystem::exists(beside, error)) return beside.string();
    return (program.parent_path() / installed).lexically_normal().string();
}

}  // namespace

std::string default_module_directory() {
    return find_place("modules", ZARN_INSTALLED_MODULES);
}

std::string default_settings_file() {
    return find_place("zarn.conf", ZARN_INSTALLED_SETTINGS);
}
