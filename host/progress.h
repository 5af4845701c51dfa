// SPDX-License-Identifier: MIT
//
// The line that tells, on a terminal, how far a long file has come. It stands on stderr and leaves nothing
// behind. The timer thread prints it; the thread that reads the file notes how far it is.

#ifndef ZARN_HOST_PROGRESS_H
#define ZARN_HOST_PROGRESS_H

#include <zarn/zarn_util.h>

#include <cstdint>

struct progress_line {
    zarn_util_module_t *util;
    zarn_timer_t *timer;  // null: stderr is no terminal, and nothing is shown
    const char *path;
    bool shown;        // a line stands there; the timer thread's own until the timer is deleted
    uint32_t frames;   // atomic
    int32_t permille;  // atomic; how much of the work is done, -1 when nobody knows
};

// `path` has to stay. Shows nothing when stderr is no terminal.
void start_progress(progress_line *line, zarn_util_module_t *util, const char *path);

// `part` is how much of the work is done, from 0 to 1, or below 0 when nobody knows.
void note_progress(progress_line *line, uint64_t frames, double part);

// Wipes the line.
void end_progress(progress_line *line);

#endif
