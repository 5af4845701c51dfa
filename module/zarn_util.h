// SPDX-License-Identifier: MIT
//
// The life of the module: what the loader calls, and the start and stop of the services behind it.

#ifndef ZARN_MODULE_ZARN_UTIL_H
#define ZARN_MODULE_ZARN_UTIL_H

#include <stdint.h>

extern "C" {

// MODULE_START runs `init_util`, MODULE_STOP `uninit_util`; any other value does nothing and gives -1.
int32_t std_ops(int32_t op);
}

// Registers the debugger command and starts all services. 0, or -1 with nothing left running.
int32_t init_util();

// 0 when everything is down, -1 when the module is still in use: then only the debugger command is gone.
int32_t uninit_util();

// Starts the services in order. 0, or the status of the one that failed, with those before it stopped again.
int32_t init_pools();

// Stops the services in reverse order. The result is that of the last to go.
int32_t uninit_pools();

#endif
