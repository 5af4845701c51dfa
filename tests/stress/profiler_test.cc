// SPDX-License-Identifier: MIT

#include "diagnostics/profiler.h"

#include <zarn/zarn_profiler.h>

#include "tests/support/stress.h"

namespace {

// All threads make the first call together, in every round again, and bracket under common names and one of
// their own, nested and in recursion.
TEST_F(stress_test, BracketsOfManyThreadsAddUpFromTheFirstOn) {
    constexpr int kThreads = 4, kBrackets = 20;
    const hosted_counts before = hosted_count_objects();
    for (int round = 0; round < stress_rounds(50); ++round) {
        run_threads(kThreads, [&](int i) {
            const std::string own = std::to_string(i);
            for (int n = 0; n < kBrackets; ++n) {
                for (const char *name : {"shared", "shared", own.c_str()})
                    _enter_prof_func("stress", name, PROF_RECORD);
                for (const char *name : {"shared", own.c_str(), "shared"})
                    _exit_prof_func("stress", name, PROF_RECORD);
            }
        });
        ASSERT_EQ(hosted_count_objects().semaphores, before.semaphores + 1) << "of all that were created";
        ASSERT_EQ(hosted_count_objects().debug_commands, before.debug_commands + 3);
        ASSERT_EQ(skiplist_count(gPending), 0);
        ASSERT_EQ(load_pad(), kThreads + 1u);
        for (int i = 0; i <= kThreads; ++i)
            ASSERT_EQ(gPad[i].count,
                      gPad[i].name == std::string("stress:shared") ? 2 * kThreads * kBrackets : kBrackets);
        uninit_profiler();
        ASSERT_EQ(hosted_count_objects().debug_commands, before.debug_commands);
    }
}

}  // namespace
