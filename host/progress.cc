// SPDX-License-Identifier: MIT
#include "host/progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "platform/kern.h"

namespace {

constexpr int64_t kFirstAfter = 500'000;  // usec: short files show nothing
constexpr int64_t kEvery = 200'000;

}  // namespace

void start_progress(progress_line *line, const char *path) {
    *line = {path, isatty(STDERR_FILENO) == 1, false, kern_time_us() + kFirstAfter};
}

void update_progress(progress_line *line, uint64_t frames, double part) {
    if (!line->enabled) return;
    int64_t now = kern_time_us();
    if (now < line->next_due) return;
    line->next_due = now + kEvery;
    line->shown = true;
    fprintf(stderr, "\r%s: %" PRIu64 " frames", line->path, frames);
    if (part >= 0) fprintf(stderr, ", %.0f %%", part * 100);
    fprintf(stderr, "\033[K");
}

void end_progress(progress_line *line) {
    if (line->shown) fprintf(stderr, "\r\033[K");
    line->shown = false;
}
