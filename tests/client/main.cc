// SPDX-License-Identifier: MIT
//
// c_client DIRECTORY: runs the client in C on the hosted kernel, with the modules that lie in DIRECTORY,
// and looks whether it left anything behind.

#include <cstdio>

#include "platform/hosted/hosted_kernel.h"

extern "C" int run_client(void);

int main(int argc, char **argv) {
    if (argc != 2 || hosted_set_module_directory(argv[1]) != 0) {
        fprintf(stderr, "usage: c_client DIRECTORY\n");
        return 2;
    }
    int failures = run_client();
    int32_t left = hosted_log_objects();
    if (left != 0) fprintf(stderr, "%d objects left\n", static_cast<int>(left));
    return failures != 0 || left != 0;
}
