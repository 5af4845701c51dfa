// SPDX-License-Identifier: MIT
//
// What the program's exit status tells; `zarn --help` prints the same.

#ifndef ZARN_HOST_EXIT_CODES_H
#define ZARN_HOST_EXIT_CODES_H

enum exit_code {
    kExitOk = 0,
    kExitInput = 1,   // an input could not be read to its end, or holds what the program can't use
    kExitUsage = 2,   // the command line makes no sense
    kExitModule = 3,  // a module can't be loaded
    kExitFault = 4,   // a fault of a module or of the program: something was not given back, or done wrong
};

#endif
