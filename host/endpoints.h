// SPDX-License-Identifier: MIT
//
// What the program's clients of endpoints have in common: the keys of the stacks, and two steps of each life.

#ifndef ZARN_HOST_ENDPOINTS_H
#define ZARN_HOST_ENDPOINTS_H

#include "examples/modules/sample_protocol.h"

constexpr int32_t kStreams = 1, kDatagrams = 2;  // key1 of the "out" stacks
constexpr int32_t kTcpProtocol = 6, kUdpProtocol = 17;

// What the protocol on top can do. Null for one whose endpoints can do nothing.
inline const sample_endpoint_operations *endpoint_operations(const zarn_endpoint_t *ep) {
    if (ep->top_module->head.flags != SAMPLE_PROTOCOL_FLAGS) return nullptr;
    return reinterpret_cast<const sample_protocol_module *>(ep->top_module)->endpoints;
}

// Deletes an endpoint of the caller's own, and gives back the reference on the family that came with it.
inline void delete_endpoint(const zarn_util_module_t *util, zarn_endpoint_t *ep) {
    const int32_t family = static_cast<int32_t>(ep->family);
    util->ep_delete_endpoint(ep);
    util->release_family_ref(family);
}

#endif
