// SPDX-License-Identifier: MIT
//
// What every module of the stack shares with the kernel's module loader, and what every protocol module
// provides.
//
// A module is one shared object that exports the symbol `modules`: an array of pointers to module records,
// ended by a null pointer. A record starts with a `module_head`; the operations of the module follow. The
// loader hands clients the address of the record itself, so the order of what follows the head is the
// module's call interface.
//
//     static const protocol_module mine = {{"network/mine", 0, mine_std_ops}, mine_init, mine_uninit};
//     const void *const modules[] = {&mine, 0};

#ifndef ZARN_MODULE_H
#define ZARN_MODULE_H

#include <stddef.h>
#include <stdint.h>

#include <zarn/zarn_endpoint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The argument of `std_ops`.
#define MODULE_START 1  // before the first acquire succeeds; a result other than 0 makes that acquire fail
#define MODULE_STOP 2  // after the last release; a result other than 0 keeps the module mapped and in service

typedef struct module_head {
    const char *name;  // the path under which clients ask for the module; what it is released by, too
    uint32_t flags;    // 0, or what modules of one kind know each other by; the loader doesn't read it

    // Called by the loader only, never twice at the same time. It answers any other value of `op` with -1.
    // The roster's lock may be held around the call, so it must not call get_outbound_protos,
    // get_inbound_proto, get_family_ref, release_family_ref, or any ep_ operation.
    int32_t (*std_ops)(int32_t op);
} module_head;

// A protocol module: the head, the two operations that every protocol must provide, then its own. zarn.conf
// names it without "network/", by at most 119 characters.
//
// Either operation runs on a thread that may block, with the lock of a listener held if the endpoint is that
// listener's child: it must not call an operation on the listener.
typedef struct protocol_module {
    module_head head;

    // Called with the node that stands for this protocol on the chain of a new endpoint. The protocols named
    // after this one in the settings are already running and can be reached through `node->next`;
    // `node->endpoint` has its family and keys, but no `top_module` yet. Keeps what it needs in `node->data`.
    // Returns 0; anything else fails the endpoint's creation, without a call of `uninit_protocol` for this
    // node.
    int32_t (*init_protocol)(proto_node *node);

    // Called with the node that is going, children first, then the protocols in the order of the settings.
    // The node is released behind the call. The result is ignored.
    int32_t (*uninit_protocol)(proto_node *node);
} protocol_module;

// Acquires the module `path`, loading and starting it if need be, and stores the address of its record in
// `*table`. Returns 0, or a negative status with `*table` untouched. Blocks. Every success is paired with one
// release.
int32_t kern_module_acquire(const char *path, void **table);

// Gives one reference back. With the last one the module is stopped and unloaded. Blocks.
int32_t kern_module_release(const char *path);

// Adds to the kernel's log; the format is that of printf, and the text brings its own end of line. Thread
// level.
void kern_log(const char *format, ...);

#ifdef __cplusplus
}

// Words 4 and 5 of the record, behind the three of the head.
static_assert(sizeof(module_head) == 3 * sizeof(void *));
static_assert(offsetof(protocol_module, init_protocol) == 3 * sizeof(void *));
static_assert(offsetof(protocol_module, uninit_protocol) == 4 * sizeof(void *));
#endif

#endif
