// SPDX-License-Identifier: MIT
//
// What every module of the stack shares with the kernel's module loader.
//
// A module is one shared object that exports the symbol `modules`: an array of pointers to module records,
// ended by a null pointer. A record starts with a `module_head`; the operations of the module follow. The
// loader hands clients the address of the record itself, so the order of what follows the head is the
// module's call interface.
//
//     static const my_module_t my_module = {{"network/mine", 0, my_std_ops}, ...};
//     const void *const modules[] = {&my_module, 0};

#ifndef ZARN_MODULE_H
#define ZARN_MODULE_H

#include <stdint.h>

#include <zarn/zarn_endpoint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The argument of `std_ops`.
#define MODULE_START 1  // before the first acquire succeeds; a result other than 0 makes that acquire fail
#define MODULE_STOP 2  // after the last release; a result other than 0 keeps the module mapped and in service

typedef struct module_head {
    const char *name;                // the path under which clients ask for the module
    uint32_t flags;                  // 0
    int32_t (*std_ops)(int32_t op);  // called by the loader only, never twice at the same time
} module_head;

// A protocol module: the head, then the two operations that every protocol must provide, then its own.
typedef struct protocol_module {
    module_head head;

    // Called with the node that stands for this protocol on the chain of a new endpoint. The protocols named
    // after this one in the settings are already running and can be reached through `node->next`. The kernel
    // thread that creates the endpoint calls, perhaps with the lock of a listening parent held. Returns 0,
    // anything else makes the creation fail.
    int32_t (*init_protocol)(proto_node *node);

    // Called with the node that is going; it is released behind the call. The result is ignored.
    int32_t (*uninit_protocol)(proto_node *node);
} protocol_module;

// Acquires the module `path`, loading and starting it if need be, and stores the address of its record in
// `*table`. Returns 0, or a negative status with `*table` untouched. Blocks. Every success is paired with one
// release.
int32_t kern_module_acquire(const char *path, void **table);

// Gives one reference back. With the last one the module is stopped and unloaded. Blocks.
int32_t kern_module_release(const char *path);

#ifdef __cplusplus
}
#endif

#endif
