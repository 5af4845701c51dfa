// SPDX-License-Identifier: MIT
//
// What tests of buffers have in common: a note of each free, buffers as text, and whether one is sound.

#ifndef ZARN_TESTS_DATA_BUFFERS_H
#define ZARN_TESTS_DATA_BUFFERS_H

#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "data/zarn_data.h"

// What the free functions below have been called with, in order: the extra argument and the element.
inline std::vector<std::pair<void *, void *>> gFreed;

inline void note_free(void *element) {
    gFreed.emplace_back(nullptr, element);
}
inline void note_other_free(void *element) {
    gFreed.emplace_back(nullptr, element);
}
inline void note_free_ext(void *ext_arg, void *element) {
    gFreed.emplace_back(ext_arg, element);
}
inline const zarn_free_func kNoteFreeExt = zarn_free_func_from_ext(note_free_ext);

// The bytes with a bar behind each node: "abc|de|" are two.
inline std::string pieces_of(const zarn_data_t *data) {
    std::string pieces;
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next)
        pieces.append(static_cast<const char *>(node->base), node->len).append("|");
    return pieces;
}

inline std::vector<free_descriptor *> descriptors_of(const zarn_data_t *data) {
    std::vector<free_descriptor *> held;
    for (const mem_node *node = data->freelist; node != nullptr; node = node->next)
        held.push_back(static_cast<free_descriptor *>(node->base));
    return held;
}

// Null when the buffer is sound, otherwise what is wrong. The caller owns the buffer; one that went through
// `isafe_delete_zarn_data` is no longer anybody's to look at.
inline const char *zarn_data_fault(const zarn_data_t *data) {
    std::set<const mem_node *> taken;  // of the pools, and not met on a list yet
    for (const mem_node_pool *pool = data->nodepools;; pool = pool->next) {
        if (pool == nullptr) return "the chain of pools ends before first_pool";
        const bool last = pool == &data->first_pool;
        const int32_t nodes = last ? FIRST_POOL_NODES : NODE_POOL_NODES;
        if (pool->n < 0 || pool->n > nodes) return "the count of a pool is out of range";
        for (int32_t i = pool->n; i < nodes; ++i)
            taken.insert(reinterpret_cast<const mem_node *>(pool + 1) + i);
        if (last && pool->next != nullptr) return "first_pool has a successor";
        if (last) break;
    }
    uint64_t sum = 0;
    for (const mem_node *node = data->datalist; node != nullptr; sum += node->len, node = node->next) {
        if (taken.erase(node) == 0) return "a piece's node is linked twice, or none of this buffer's";
        if (node->base == nullptr && node->len != 0) return "a piece of data has no address";
    }
    if (sum != data->length) return "the length is not the sum of the pieces";
    for (const mem_node *node = data->freelist; node != nullptr; node = node->next) {
        if (taken.erase(node) == 0) return "a descriptor's node is linked twice, or none of this buffer's";
        const auto *descriptor = static_cast<const free_descriptor *>(node->base);
        if (descriptor == nullptr || descriptor->func == nullptr || descriptor->first_used >= FREE_ELEMENTS ||
            __atomic_load_n(&descriptor->ref_count, __ATOMIC_RELAXED) < 1)
            return "a descriptor is missing, without its function or an element, or released";
    }
    return nullptr;
}

// Memory of a test, as long as the test runs.
struct scratch {
    char *operator()(const std::string &text) { return texts.emplace_back(text).data(); }
    zarn_data_t *buffer(const std::vector<std::string> &pieces, zarn_free_func free_func = nullptr) {
        zarn_data_t *data = new_zarn_data();
        for (const std::string &piece : pieces)
            append_zarn_data(data, (*this)(piece), static_cast<uint32_t>(piece.size()), free_func);
        return data;
    }
    std::deque<std::string> texts;
};

#endif
