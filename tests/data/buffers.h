// SPDX-License-Identifier: MIT
//
// What tests of buffers have in common: a note of each free, and buffers as text.

#ifndef ZARN_TESTS_DATA_BUFFERS_H
#define ZARN_TESTS_DATA_BUFFERS_H

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
