// SPDX-License-Identifier: MIT
//
// `zarn attach`: runs the protocols as a host on the network of a TAP device, and serves echo and discard
// there.

#ifndef ZARN_HOST_ATTACH_H
#define ZARN_HOST_ATTACH_H

// `argv[0]` is the command's own name. Returns an exit_code.
int run_attach(int argc, char **argv);

#endif
