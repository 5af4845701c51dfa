// SPDX-License-Identifier: MIT
//
// A protocol module that needs nothing of the source tree. With zarn installed, one line makes it and puts it
// where the loader looks:
//
//     cc -shared -fPIC $(pkg-config --cflags zarn) -o $(pkg-config --variable=moduledir zarn)/network/hello.so hello.c
//
// and one line in the section of a family in zarn.conf makes it the top of a stack: out { 9 { 253 hello } }

#include <zarn/platform/kern.h>
#include <zarn/zarn_util.h>

static zarn_util_module_t *gUtil;

static int32_t std_ops(int32_t op) {
    switch (op) {
        case MODULE_START:
            return kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&gUtil);
        case MODULE_STOP:
            return kern_module_release(ZARN_UTIL_MODULE_NAME);
        default:
            return -1;
    }
}

// Each endpoint gets an empty buffer of its own.
static int32_t init_protocol(proto_node *node) {
    zarn_data_t *received = gUtil->new_zarn_data();
    if (received == NULL) return -1;
    node->data = (uintptr_t)received;
    kern_log("hello: an endpoint of family %u\n", (unsigned)node->endpoint->family);
    return 0;
}

static int32_t uninit_protocol(proto_node *node) {
    zarn_data_t *received = (zarn_data_t *)node->data;
    kern_log("hello: goodbye after %u bytes\n", (unsigned)received->length);
    gUtil->delete_zarn_data(received);
    return 0;
}

static const protocol_module gHello = {{"network/hello", 0, std_ops}, init_protocol, uninit_protocol};

const void *const modules[] = {&gHello, NULL};
