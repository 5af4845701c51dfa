// SPDX-License-Identifier: MIT
//
// A protocol that doesn't let itself be unloaded while a node of it stands.

#include <zarn/module.h>

static int32_t gNodes;

static int32_t std_ops(int32_t op) {
    return op == MODULE_STOP && __atomic_load_n(&gNodes, __ATOMIC_SEQ_CST) != 0 ? -1 : 0;
}

static int32_t init_protocol(proto_node *node) {
    node->data = (uintptr_t)node;
    __atomic_add_fetch(&gNodes, 1, __ATOMIC_SEQ_CST);
    return 0;
}

static int32_t uninit_protocol(proto_node *node) {
    if (node->data == (uintptr_t)node) __atomic_sub_fetch(&gNodes, 1, __ATOMIC_SEQ_CST);
    node->data = 0;
    return 0;
}

static const protocol_module gProtocol = {{PROTOCOL_NAME, 0, std_ops}, init_protocol, uninit_protocol};
const void *const modules[] = {&gProtocol, 0};
