// SPDX-License-Identifier: MIT
//
// c_client DIRECTORY SETTINGS: runs the client on the hosted kernel, with the modules that lie in DIRECTORY and
// these settings, and looks whether it left anything behind. cxx_client is the same, compiled as C++.

#include <cstdio>

#include "platform/hosted/hosted_kernel.h"
#include "platform/hosted/settings.h"

extern "C" int run_client(void);

int main(int argc, char **argv) {
    if (argc != 3 || hosted_set_module_directory(argv[1]) != 0 ||
        hosted_set_settings_file("zarn.conf", argv[2]) != 0) {
        fprintf(stderr, "usage: %s DIRECTORY SETTINGS\n", argv[0]);
        return 2;
    }
    int failures = run_client();
    int32_t left = hosted_log_objects();
    if (left != 0) fprintf(stderr, "%d objects left\n", static_cast<int>(left));
    return failures != 0 || left != 0;
}
