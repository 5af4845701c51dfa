// SPDX-License-Identifier: MIT
//
// Where the lines for the debugger come from: a terminal, with editing and a history, or a script.
//
// The terminal is opened a second time, with streams of its own: no thread that was stopped in the middle of
// reading or writing the standard ones has a lock on these.

#ifndef ZARN_HOST_LINE_SOURCE_H
#define ZARN_HOST_LINE_SOURCE_H

#include <histedit.h>
#include <termios.h>

#include <cstdio>
#include <string>

struct line_source {
    FILE *output;      // where answers go
    FILE *terminal;    // null for a script
    EditLine *editor;  // the same
    History *history;
    bool takes_signal_keys;
    termios before;  // how the terminal was when they were last taken
};

// Opens the terminal that stdin is, or takes stdin as a script. False when there is no terminal that can be
// opened.
bool open_lines(line_source *source, bool script);

// Gives the terminal back as it was. The history is gone.
void close_lines(line_source *source);

// The next line, without its end. False at the end of the input. On a terminal Ctrl-C starts the line anew,
// and no key raises a signal from the first line on until `end_lines`.
bool read_line(line_source *source, std::string *line);
void end_lines(line_source *source);

#endif
