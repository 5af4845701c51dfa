// SPDX-License-Identifier: MIT
#include "host/progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

namespace {

constexpr int64_t kFirstAfter = 500'000;  // usec: short files show nothing
constexpr int64_t kEvery = 200'000;

void show_progress(zarn_timer_t *timer, void *argument) {
    progress_line *line = static_cast<progress_line *>(argument);
    int32_t permille = __atomic_load_n(&line->permille, __ATOMIC_RELAXED);
    fprintf(stderr, "\r%s: %" PRIu32 " frames", line->path, __atomic_load_n(&line->frames, __ATOMIC_RELAXED));
    if (permille >= 0) fprintf(stderr, ", %" PRId32 " %%", permille / 10);
    fprintf(stderr, "\033[K");
    line->shown = true;
    line->util->zarn_set_timer(timer, kEvery, 1);
}

}  // namespace

void start_progress(progress_line *line, zarn_util_module_t *util, const char *path) {
    *line = {util, nullptr, path, false, 0, -1};
    if (isatty(STDERR_FILENO) != 1) return;
    line->timer = util->create_zarn_timer(show_progress, line);
    if (line->timer != nullptr) util->zarn_set_timer(line->timer, kFirstAfter, 0);
}

void note_progress(progress_line *line, uint64_t frames, double part) {
    __atomic_store_n(&line->frames, static_cast<uint32_t>(frames), __ATOMIC_RELAXED);
    __atomic_store_n(&line->permille, part < 0 ? -1 : static_cast<int32_t>(part * 1000), __ATOMIC_RELAXED);
}

void end_progress(progress_line *line) {
    if (line->timer == nullptr) return;
    line->util->delete_zarn_timer(line->timer);  // waits until its hook neither runs nor will
    if (line->shown) fprintf(stderr, "\r\033[K");
}
