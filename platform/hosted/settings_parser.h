// SPDX-License-Identifier: MIT
//
// The text of a settings file, and the tree that it stands for.
//
//     # comments run to the end of the line
//     progress_report 5
//     domains {
//         2 { in { 1 icmp ; 6 tcp }
//             out { 1 { 6 tcp ipv4 } } }
//     }
//
// - A parameter is a name, any number of values, and perhaps a block of further parameters in braces. A
//   newline or ';' ends it, and so does a '}', be it that of its own block or that of the block around it. So
//   a block opens on the line of its parameter.
// - Names and values are words. A bare word is made of any characters but blanks, control characters and
//   { } ; # " \ . A word in double quotes may hold all of them: \" \\ \n \t and \xHH stand for characters. A
//   quoted word ends on its line and is never joined to another word. No word holds a byte of 0.
// - Lines end with a newline, or with a carriage return and a newline. A byte order mark at the start is
//   passed over. Bytes above 127 are ordinary characters.
// - Blocks stand inside one another at most kSettingsDepth deep. Nothing else is limited but by memory.
//
// Thread level; the functions share nothing, so any number of threads may call them.

#ifndef ZARN_PLATFORM_HOSTED_SETTINGS_PARSER_H
#define ZARN_PLATFORM_HOSTED_SETTINGS_PARSER_H

#include <cstddef>

#include "platform/kern.h"

namespace hosted {

constexpr size_t kSettingsDepth = 256;

// A parsed file. The caller gives it back with delete_parsed_settings.
struct parsed_settings {
    settings_tree tree;  // points into the three arrays
    settings_parameter *parameters;
    const char **values;
    char *words;
};

// The first mistake of a text.
struct settings_fault {
    size_t line;        // from 1; 0 when memory ran out, which has no place in the text
    size_t column;      // from 1, in characters
    char expected[80];  // what should stand there, to go behind the word "expected"
};

// Parses `length` bytes at `text`, which may be anything. Null at the first mistake, or when memory runs out;
// then `*fault` says what is wrong.
parsed_settings *parse_settings(const char *text, size_t length, settings_fault *fault);
void delete_parsed_settings(parsed_settings *parsed);

}  // namespace hosted

#endif
