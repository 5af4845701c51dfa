// SPDX-License-Identifier: MIT
//
// `zarn replay`: runs the frames of capture files through the module and the protocols above it.

#ifndef ZARN_HOST_REPLAY_H
#define ZARN_HOST_REPLAY_H

// `argv[0]` is the command's own name. Returns an exit_code.
int run_replay(int argc, char **argv);

#endif
