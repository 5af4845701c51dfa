// SPDX-License-Identifier: MIT
//
// `zarn conf`: checks a settings file and tells what the module makes of it.

#ifndef ZARN_HOST_CONF_H
#define ZARN_HOST_CONF_H

// `argv[0]` is the command's own name. Returns an exit_code.
int run_conf(int argc, char **argv);

#endif
