// SPDX-License-Identifier: MIT
//
// Any bytes as a settings file: refused at a place inside the text, or parsed to a tree that survives being
// written and read again.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/settings_text.h"
#include "platform/hosted/settings_parser.h"

static void require(bool holds, const char *what) {
    if (holds) return;
    fprintf(stderr, "settings_fuzz: %s\n", what);
    abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto *text = reinterpret_cast<const char *>(data);
    hosted::settings_fault fault{};
    hosted::parsed_settings *parsed = hosted::parse_settings(text, size, &fault);
    if (parsed == nullptr) {
        size_t lines = 1;
        for (size_t i = 0; i < size; ++i)
            lines += text[i] == '\n';
        require(fault.line >= 1 && fault.line <= lines, "the fault lies in no line of the text");
        require(fault.column >= 1 && fault.column <= size + 1, "the fault lies in no column of the text");
        require(fault.expected[0] != '\0', "the fault says nothing");
        return 0;
    }
    const std::string written = print_settings(parsed->tree);
    hosted::parsed_settings *again = hosted::parse_settings(written.data(), written.size(), &fault);
    require(again != nullptr, "a written tree is refused");
    require(print_settings(again->tree) == written, "a written tree reads differently");
    hosted::delete_parsed_settings(again);
    hosted::delete_parsed_settings(parsed);
    return 0;
}
