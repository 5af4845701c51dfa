// SPDX-License-Identifier: MIT
//
// What tests of buffers have in common: memory that remembers how often it was freed, and buffers as text.

#ifndef ZARN_TESTS_DATA_BUFFERS_H
#define ZARN_TESTS_DATA_BUFFERS_H

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "data/zarn_data.h"
#include "tests/support/zarn_data_fault.h"

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

// The bytes as the nodes give them.
inline std::string bytes_of(const zarn_data_t *data) {
    std::string bytes;
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next) {
        if (node->len != 0) bytes.append(static_cast<const char *>(node->base), node->len);
    }
    return bytes;
}

// The same with a bar behind each node: "abc|de|" are two nodes.
inline std::string pieces_of(const zarn_data_t *data) {
    std::string pieces;
    for (const mem_node *node = data->datalist; node != nullptr; node = node->next)
        pieces += std::string(static_cast<const char *>(node->base), node->len) + '|';
    return pieces;
}

inline free_descriptor *descriptor_of(const mem_node *node) {
    return static_cast<free_descriptor *>(node->base);
}

inline std::vector<free_descriptor *> descriptors_of(const zarn_data_t *data) {
    std::vector<free_descriptor *> held;
    for (const mem_node *node = data->freelist; node != nullptr; node = node->next)
        held.push_back(descriptor_of(node));
    return held;
}

// Nodes that can be taken before a new pool is needed.
inline int32_t nodes_left(const zarn_data_t *data) {
    return data->nodepools->n;
}

inline void leave_nodes(zarn_data_t *data, int32_t left) {
    while (nodes_left(data) > left)
        take_node(data);
}

// Memory of a test, as long as the test runs.
class scratch {
 public:
    char *operator()(std::string text) { return texts_.emplace_back(std::move(text)).data(); }

    // A new buffer with these pieces, each a node; memory and free function as the test says.
    zarn_data_t *buffer(const std::vector<std::string> &pieces, zarn_free_func free_func = nullptr) {
        zarn_data_t *data = new_zarn_data();
        for (const std::string &piece : pieces)
            append_zarn_data(data, (*this)(piece), static_cast<uint32_t>(piece.size()), free_func);
        return data;
    }

 private:
    std::deque<std::string> texts_;
};

#endif
