// SPDX-License-Identifier: MIT
//
// What a protocol module's file tells without being loaded. Nothing of it runs: the file is read as the
// dynamic linker and the module loader would read it, whichever of the two widths it was built for.

#ifndef ZARN_HOST_MODULE_CHECK_H
#define ZARN_HOST_MODULE_CHECK_H

#include <cstddef>
#include <string>
#include <vector>

struct module_verdict {
    std::string target;               // "i386" or "x86-64", empty when the file is no shared object of these
    std::vector<std::string> names;   // of the records that could be read
    std::vector<std::string> faults;  // why the module can't serve; none when it can
};

// Looks at the bytes of a file, which may be anything. `stem` is the file's name without ".so": the loader
// expects a record of that name in it.
module_verdict check_module(const void *bytes, size_t size, const std::string &stem);

#endif
