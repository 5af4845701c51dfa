// SPDX-License-Identifier: MIT
//
// Where the program finds what it comes with: beside itself in a build folder, and once installed in the
// places that the installation has for it. Nothing depends on the directory that it is called in.

#ifndef ZARN_HOST_PLACES_H
#define ZARN_HOST_PLACES_H

#include <string>

// The directory that has network/zarn_util.so in it.
std::string default_module_directory();

// The settings file that is used when none is named.
std::string default_settings_file();

#endif
