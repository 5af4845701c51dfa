// SPDX-License-Identifier: MIT
//
// The module's start and stop as the loader asks for them.

#include "module/zarn_util.h"

#include <zarn/zarn_profiler.h>
#include <zarn/zarn_util.h>

#include <algorithm>
#include <set>

#include "diagnostics/profiler.h"
#include "module/allocator.h"
#include "sync/zarn_timer.h"
#include "tests/support/failures.h"
#include "tests/support/fixture.h"

extern "C" const void *const modules[];

namespace {

using lines = std::vector<std::string>;

// Everything that is made and unmade, with the traffic on the semaphores left out.
lines changes() {
    lines result = test_kernel::journal();
    std::erase_if(result, [](const std::string &line) {
        return line.starts_with("sem_acquire") || line.starts_with("sem_release") ||
               line.starts_with("sem_set_owner");
    });
    test_kernel::clear_journal();
    return result;
}

// What starts each service, with the debugger's command in front, and what stops it.
struct stage {
    lines start, stop;
};
const stage kStages[] = {
    {{"debug_add_command \"zarn_data\""}, {"debug_remove_command \"zarn_data\""}},
    {{"region_create \"zarn_mempool\" 4 " + std::to_string(kRegionBytes) + " 3 3"},
     {"region_delete \"zarn_mempool\""}},
    {{"sem_create \"addr_cache\" 0"}, {"sem_delete \"addr_cache\""}},
    {{"sem_create \"delete_zarn_timer\" 0", "sem_create \"zarntimerlock\" 0",
      "thread_spawn \"zarn_timer\" 20", "thread_resume \"zarn_timer\"", "debug_add_command \"zarn_timer\""},
     {"sem_create \"timer exit sync\" 0", "sem_delete \"timer exit sync\"", "sem_delete \"zarntimerlock\"",
      "sem_delete \"delete_zarn_timer\"", "debug_remove_command \"zarn_timer\""}},
    {{"sem_create \"zarn_data purgatory\" 0", "thread_spawn \"zarn_data purgatory\" 5",
      "thread_resume \"zarn_data purgatory\""},
     {"sem_delete \"zarn_data purgatory\""}},
    {{"sem_create \"module roster\" 0"}, {"sem_delete \"module roster\""}}};
constexpr size_t kWheel = 3;

lines started() {
    lines result;
    for (const stage &each : kStages)
        result.insert(result.end(), each.start.begin(), each.start.end());
    return result;
}

// What stopping the first `stages` does. The command goes last, all others go the last first.
lines stopped(size_t stages) {
    lines result;
    while (stages > 0) {
        const lines &stop = kStages[--stages].stop;
        result.insert(result.end(), stop.begin(), stop.end());
    }
    return result;
}

class zarn_util_test : public kernel_test {
 protected:
    void TearDown() override {
        gMP = {};
        kernel_test::TearDown();
    }

    // Stopping waits for the timer thread, which sleeps on a clock that only a test moves.
    int32_t start_or_stop(int32_t op) {
        test_kernel::running_clock clock;
        return std_ops(op);
    }
};

TEST_F(zarn_util_test, TheLoaderFindsOneRecordThatStartsAndStopsAndDoesNothingElse) {
    auto *util = static_cast<const zarn_util_module_t *>(modules[0]);
    EXPECT_EQ(modules[1], nullptr);
    EXPECT_STREQ(util->head.name, "network/zarn_util");
    EXPECT_EQ(util->head.std_ops, std_ops);
    for (int32_t other : {0, 3, -1, INT32_MAX})
        EXPECT_EQ(std_ops(other), -1) << "an operation that the loader doesn't have";
    EXPECT_EQ(test_kernel::journal(), lines());
    ASSERT_EQ(std_ops(MODULE_START), 0);
    EXPECT_EQ(changes(), started());
    EXPECT_EQ(test_kernel::debug_help("zarn_data"), "dump a zarn_data_t");
    EXPECT_EQ(start_or_stop(MODULE_STOP), 0);
    EXPECT_EQ(changes(), stopped(std::size(kStages)));
}

// Every failure in turn, of the start or of the stop behind it.
TEST_F(zarn_util_test, AFailedStartStopsExactlyWhatStandsAndGivesMinusOne) {
    std::set<size_t> stages_begun;
    bool commands_only = false, profiles = false;
    const auto start_and_stop = [&] {
        const int32_t status = start_or_stop(MODULE_START);
        const bool refused = test_kernel::refusals() != 0 && !commands_only;
        ASSERT_EQ(status, refused ? -1 : 0);
        if (profiles && !refused) {
            _enter_prof_func("start", "stop", PROF_RECORD);
            _enter_prof_func("never", "left", PROF_RECORD);
            _exit_prof_func("start", "stop", PROF_RECORD);
        }
        EXPECT_EQ(refused ? 0 : start_or_stop(MODULE_STOP), 0);
        test_kernel::fail_nothing();

        // The start as far as it came, what the failing service takes back itself, and the stop of those
        // before it.
        const lines all = changes(), steps = started();
        const auto split = std::mismatch(all.begin(), all.end(), steps.begin(), steps.end()).first;
        size_t begun = 0;
        for (auto left = split - all.begin(); begun < std::size(kStages) && left > 0; ++begun)
            left -= static_cast<ptrdiff_t>(kStages[begun].start.size());
        stages_begun.insert(begun);
        // The wheel goes on turning when it can't be waited for, and can be stopped later.
        const bool turns = test_kernel::sem_count("zarntimerlock") >= 0;
        if (turns) {
            test_kernel::running_clock clock;
            uninit_zarn_timers();
            EXPECT_EQ(changes(), kStages[kWheel].stop);
        }
        if (!turns && !profiles) {
            const lines stops = stopped(refused ? begun - 1 : begun);
            ASSERT_GE(static_cast<size_t>(all.end() - split), stops.size());
            EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(stops.size()), all.end()), stops);
        }
        EXPECT_EQ(test_kernel::leftovers(), "");
    };
    sweep_failures(start_and_stop);
    EXPECT_EQ(stages_begun.size(), std::size(kStages) - 1) << "each in which something can fail";
    commands_only = true;
    sweep_failures(start_and_stop, test_kernel::kDebugCommand);
    commands_only = false, profiles = true;
    sweep_failures(start_and_stop);
}

}  // namespace
