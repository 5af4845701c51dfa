// SPDX-License-Identifier: MIT
//
// The line that tells, on a terminal, how far a long file has come. It stands on stderr and leaves nothing
// behind.

#ifndef ZARN_HOST_PROGRESS_H
#define ZARN_HOST_PROGRESS_H

#include <cstdint>

struct progress_line {
    const char *path;
    bool enabled;      // stderr is a terminal
    bool shown;        // a line stands there
    int64_t next_due;  // on the clock of kern_time_us
};

void start_progress(progress_line *line, const char *path);

// Shows the line when it is time to. `part` is how much of the file is done, from 0 to 1, or below 0 when
// nobody knows.
void update_progress(progress_line *line, uint64_t frames, double part);

// Wipes the line.
void end_progress(progress_line *line);

#endif
