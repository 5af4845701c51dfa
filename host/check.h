// SPDX-License-Identifier: MIT
//
// `zarn check`: looks at protocol modules without running them.

#ifndef ZARN_HOST_CHECK_H
#define ZARN_HOST_CHECK_H

// `argv[0]` is the command's own name. Returns an exit_code.
int run_check(int argc, char **argv);

#endif
