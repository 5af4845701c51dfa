// SPDX-License-Identifier: MIT
//
// A settings tree as text on one line that parses to an equal tree, for comparing trees.

#ifndef ZARN_FUZZ_SETTINGS_TEXT_H
#define ZARN_FUZZ_SETTINGS_TEXT_H

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/kern.h"

inline std::string print_word(const std::string &word) {
    std::string text = "\"";
    bool bare = !word.empty() && word.rfind("\xef\xbb\xbf", 0) != 0;  // a mark at the start of a text is lost
    for (const char character : word) {
        const auto byte = static_cast<unsigned char>(character);
        bare = bare && byte > ' ' && byte != 127 && strchr("{};#\"\\", character) == nullptr;
        char escape[5] = {'\\', character};
        const bool plain = byte >= ' ' && byte != 127;
        if (!plain) snprintf(escape, sizeof escape, "\\x%02x", byte);
        if (plain && character != '"' && character != '\\') {
            text += character;
        } else {
            text += character == '\n' ? "\\n" : character == '\t' ? "\\t" : escape;
        }
    }
    return bare ? word : text + '"';
}

inline std::string print_settings(const settings_parameter *parameters, int32_t count) {
    std::string text;
    for (int32_t i = 0; i < count; ++i) {
        if (i > 0) text += "; ";
        text += print_word(parameters[i].name);
        for (int32_t j = 0; j < parameters[i].value_count; ++j)
            text.append(" ").append(print_word(parameters[i].values[j]));
        if (parameters[i].child_count == 0) continue;
        text.append(" { ")
            .append(print_settings(parameters[i].children, parameters[i].child_count))
            .append(" }");
    }
    return text;
}

inline std::string print_settings(const settings_tree &tree) {
    return print_settings(tree.parameters, tree.parameter_count);
}

#endif
