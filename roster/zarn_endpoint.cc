// SPDX-License-Identifier: MIT

#include "roster/zarn_endpoint.h"

#include <zarn/module.h>

#include "module/allocator.h"
#include "module/tallylock.h"
#include "platform/kern.h"
#include "roster/zarn_roster.h"

// Pushes one protocol on the chain and lets it set itself up. Meanwhile the chain's head is still the
// protocol below. Returns 0, or -1 with the chain as before.
static int32_t add_proto_node(zarn_endpoint_t *ep, const protocol_module *module) {
    auto *node = (proto_node *)zarn_malloc(sizeof(proto_node));
    if (node == nullptr) {
        kern_log("zarn_util:add_proto_node: calloc failed\n");
        return -1;
    }
    node->endpoint = ep;
    node->module = module;
    node->data = 0;
    node->next = ep->protocols;
    if (node->next != nullptr) node->next->prev = node;
    node->prev = nullptr;
    if (module->init_protocol(node) != 0) {
        kern_log("zarn_util:add_proto_node: error initializing protocol\n");
        // The `prev` below now dangles; the teardown that follows goes by `next` alone.
        zarn_free(node);
        return -1;
    }
    ep->protocols = node;
    return 0;
}

int32_t ep_new_endpoint(zarn_endpoint_t **out, int32_t family, int32_t key1, int32_t key2) {
    int32_t status = -1;
    void **tables;
    int32_t count;
    auto *ep = (zarn_endpoint_t *)zarn_malloc(sizeof(zarn_endpoint_t));
    if (ep == nullptr) goto failed;
    if (zarn_create_tallylock(&ep->lock, "ep lock") < 0) goto free_endpoint;

    ep->inherited_blob.data = ep->inherited_blob.storage;
    ep->own_blob.data = ep->own_blob.storage;
    ep->family = (uint32_t)family;
    ep->key1 = (uint32_t)key1;
    ep->key2 = (uint32_t)key2;
    ep->tuning_a = {0, 1, EP_TIMEOUT_FOREVER};
    ep->tuning_b = {0, 1, EP_TIMEOUT_FOREVER};

    status = get_outbound_protos(0, family, key1, key2, &tables, &count);
    if (status != 0) goto delete_lock;
    for (int32_t i = count - 1; i >= 0; --i) {
        status = add_proto_node(ep, (const protocol_module *)tables[i]);
        if (status != 0) goto take_down_chain;
    }
    ep->top_module = ep->protocols->module;
    *out = ep;
    return 0;

take_down_chain:
    while (proto_node *node = ep->protocols) {
        ep->protocols = node->next;
        node->module->uninit_protocol(node);
        zarn_free(node);
    }
    release_family_ref(family);
delete_lock:
    zarn_delete_tallylock(&ep->lock);
free_endpoint:
    zarn_free(ep);
failed:
    *out = nullptr;
    return status;
}

static void delete_children(zarn_endpoint_t *child) {
    while (child != nullptr) {
        zarn_endpoint_t *following = child->next;
        delete_child(child);
        child = following;
    }
}

void delete_child(zarn_endpoint_t *child) {
    const auto family = (int32_t)child->family;
    ep_delete_endpoint(child);
    release_family_ref(family);
}

void ep_delete_endpoint(zarn_endpoint_t *ep) {
    // From here on spawn, dequeue and ready leave the child lists alone, so the walks need no lock.
    zarn_lock_tallylock(&ep->lock);
    ep->room = kRoomClosed;
    zarn_unlock_tallylock(&ep->lock);

    delete_children(ep->pending_head);
    delete_children(ep->ready_head);
    while (proto_node *node = ep->protocols) {
        proto_node *following = node->next;
        node->module->uninit_protocol(node);
        ep->protocols = following;
        zarn_free(node);
    }
    if (ep->lock.sem >= 0) zarn_delete_tallylock(&ep->lock);
    zarn_free(ep);
}
