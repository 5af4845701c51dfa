// SPDX-License-Identifier: MIT
//
// The table by position, and the module's start and stop as the loader asks for them.

#include "module/zarn_util.h"

#include <zarn/zarn_util.h>

#include <algorithm>
#include <cstring>

#include "data/purgatory.h"
#include "data/zarn_data.h"
#include "module/allocator.h"
#include "module/incremental_checksum.h"
#include "module/masked.h"
#include "module/notify.h"
#include "module/settings_utils.h"
#include "module/tallylock.h"
#include "roster/zarn_endpoint.h"
#include "roster/zarn_roster.h"
#include "sync/zarn_fifo.h"
#include "sync/zarn_rwlock.h"
#include "sync/zarn_timer.h"
#include "tests/support/failures.h"
#include "tests/support/fixture.h"

extern "C" const void *const modules[];

namespace {

using lines = std::vector<std::string>;
using operation = void (*)();

template <typename Function>
operation op(Function *function) {
    return reinterpret_cast<operation>(function);
}

const operation kMissing = nullptr;  // the position of a service that the module doesn't have
void any_operation() {}              // not reachable but through the table

// By position; the names of the record's members are pinned to their positions where it is declared.
const operation kTable[] = {op(new_zarn_data),
                            op(delete_zarn_data),
                            op(isafe_delete_zarn_data),
                            op(add_free_element),
                            op(copy_zarn_data),
                            op(clone_zarn_data),
                            op(coalesce_zarn_data),
                            op(prepend_zarn_data),
                            op(append_zarn_data),
                            op(insert_zarn_data),
                            op(trim_zarn_data),
                            kMissing,
                            op(get_zarn_data_iovecs),
                            op(count_zarn_data_iovecs),
                            op(copy_from_zarn_data),
                            op(map_to_zarn_data),
                            op(disassociate_zarn_data),
                            op(get_zarn_data_checksum),
                            op(copy_and_checksum_data),
                            op(get_zarn_checksum),
                            op(incremental_checksum),
                            kMissing,
                            kMissing,
                            op(zarn_create_tallylock),
                            op(zarn_delete_tallylock),
                            op(zarn_lock_tallylock),
                            op(zarn_unlock_tallylock),
                            op(create_zarn_timer),
                            op(delete_zarn_timer),
                            op(zarn_set_timer_hook),
                            op(zarn_set_timer),
                            op(zarn_cancel_timer),
                            op(zarn_timer_appointment),
                            op(create_rwlock),
                            op(delete_rwlock),
                            op(read_lock),
                            op(read_unlock),
                            op(write_lock),
                            op(write_unlock),
                            op(upgrade_to_write),
                            op(downgrade_to_read),
                            op(create_zarn_fifo),
                            op(delete_zarn_fifo),
                            op(enqueue_zarn_fifo_data),
                            op(dequeue_zarn_fifo_data),
                            op(clear_zarn_fifo),
                            op(zarn_masked_cmp),
                            op(zarn_masked_copy),
                            op(get_outbound_protos),
                            op(get_inbound_proto),
                            op(get_family_ref),
                            op(release_family_ref),
                            op(get_config_int32),
                            op(get_config_bool),
                            op(zarn_falloc),
                            op(zarn_zalloc),
                            op(zarn_malloc),
                            op(zarn_free),
                            op(new_mempool),
                            op(delete_mempool),
                            op(mp_alloc),
                            op(mp_free),
                            kMissing,
                            kMissing,
                            kMissing,
                            kMissing,
                            kMissing,
                            op(any_operation),
                            op(any_operation),
                            op(ep_new_endpoint),
                            op(ep_delete_endpoint),
                            op(ep_spawn_endpoint),
                            op(ep_dequeue_endpoint),
                            op(ep_ready_endpoint),
                            op(ep_set_backlog),
                            op(ep_notify_endpoint),
                            op(zarn_notify)};

// Everything that is made and unmade, with the traffic on the semaphores left out.
lines changes() {
    lines result;
    for (const std::string &line : test_kernel::journal()) {
        if (!line.starts_with("sem_acquire") && !line.starts_with("sem_release") &&
            !line.starts_with("sem_set_owner"))
            result.push_back(line);
    }
    test_kernel::clear_journal();
    return result;
}

lines started() {
    return {"debug_add_command \"zarn_data\"",
            "region_create \"zarn_mempool\" 4 " + std::to_string(kRegionBytes) + " 3 3",
            "sem_create \"delete_zarn_timer\" 0",
            "sem_create \"zarntimerlock\" 0",
            "thread_spawn \"zarn_timer\" 20",
            "thread_resume \"zarn_timer\"",
            "debug_add_command \"zarn_timer\"",
            "sem_create \"zarn_data purgatory\" 0",
            "thread_spawn \"zarn_data purgatory\" 5",
            "thread_resume \"zarn_data purgatory\"",
            "sem_create \"module roster\" 0"};
}

// Each service's part of the stop, in the order of the start.
const lines kStops[] = {
    {"region_delete \"zarn_mempool\""},
    {"sem_create \"timer exit sync\" 0", "sem_delete \"timer exit sync\"", "sem_delete \"zarntimerlock\"",
     "sem_delete \"delete_zarn_timer\"", "debug_remove_command \"zarn_timer\""},
    {"sem_delete \"zarn_data purgatory\""}};

// What stopping the first `services` of them does, the last first.
lines stopped(size_t services) {
    lines result;
    while (services > 0) {
        --services;
        result.insert(result.end(), kStops[services].begin(), kStops[services].end());
    }
    result.push_back("debug_remove_command \"zarn_data\"");
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

TEST_F(zarn_util_test, TheLoaderFindsOneRecordWithEveryOperationInItsPosition) {
    auto *util = static_cast<const zarn_util_module_t *>(modules[0]);
    EXPECT_EQ(modules[1], nullptr);
    EXPECT_STREQ(util->head.name, "network/zarn_util");
    EXPECT_EQ(util->head.flags, 0u);
    EXPECT_EQ(util->head.std_ops, std_ops);

    constexpr size_t kOperations = 77;
    ASSERT_EQ(std::size(kTable), kOperations);
    operation words[3 + kOperations];
    static_assert(sizeof words == sizeof *util);
    memcpy(words, util, sizeof words);
    for (size_t position = 1; position <= kOperations; ++position) {
        operation expected = kTable[position - 1], found = words[2 + position];
        if (expected == op(any_operation)) {
            ASSERT_NE(found, nullptr);
            found();
        } else {
            EXPECT_EQ(found, expected) << "position " << position;
        }
    }
    EXPECT_EQ(test_kernel::journal(), lines());
}

TEST_F(zarn_util_test, OtherOperationsOfTheLoaderDoNothing) {
    for (int32_t other : {0, 3, -1, INT32_MAX})
        EXPECT_EQ(std_ops(other), -1);
    EXPECT_EQ(test_kernel::journal(), lines());
}

TEST_F(zarn_util_test, ServicesStartInOrderAndStopInReverseAndCanStartAgain) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(std_ops(MODULE_START), 0);
        EXPECT_EQ(changes(), started());
        EXPECT_EQ(test_kernel::debug_help("zarn_data"), "dump a zarn_data_t");
        EXPECT_EQ(blocks_out(), "");
        EXPECT_EQ(start_or_stop(MODULE_STOP), 0);
        lines expected = stopped(std::size(kStops));
        expected.insert(expected.begin(), "sem_delete \"module roster\"");
        EXPECT_EQ(changes(), expected);
        EXPECT_EQ(test_kernel::leftovers(), "");
    }
}

// How many services are up when the start has come as far as `steps` lines of `started`, the last one refused.
size_t services_up(ptrdiff_t steps) {
    return steps <= 2 ? 0 : steps <= 6 ? 1 : steps <= 9 ? 2 : 3;
}

TEST_F(zarn_util_test, AFailedStartStopsExactlyWhatStandsAndGivesMinusOne) {
    std::vector<size_t> services_stopped;
    auto start = [&] {
        int32_t status = start_or_stop(MODULE_START);
        bool refused = test_kernel::refusals() != 0;
        test_kernel::fail_nothing();
        EXPECT_EQ(status, refused ? -1 : 0);
        lines all = changes();
        if (!refused) {
            EXPECT_EQ(all, started());
            EXPECT_EQ(start_or_stop(MODULE_STOP), 0);
        } else {
            // The start as far as it came, what the failing service takes back itself, and then the stop of
            // those in front of it.
            lines steps = started();
            auto split = std::mismatch(all.begin(), all.end(), steps.begin(), steps.end()).first;
            size_t services = services_up(split - all.begin());
            lines stops = stopped(services);
            ASSERT_GE(static_cast<size_t>(all.end() - split), stops.size());
            EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(stops.size()), all.end()), stops);
            services_stopped.push_back(services);
        }
        EXPECT_EQ(test_kernel::leftovers(), "");
        test_kernel::clear_journal();
    };
    sweep_failures(test_kernel::fail_call, start);
    for (size_t services : {0, 1, 2, 3})
        EXPECT_NE(std::count(services_stopped.begin(), services_stopped.end(), services), 0) << services;
    // The stop of the wheel needs a semaphore, so those don't fail behind the first.
    sweep_failures(test_kernel::fail_from, start, test_kernel::kEverything & ~test_kernel::kSemCreate);
}

TEST_F(zarn_util_test, ARefusedStopKeepsEverythingButTheDebuggerCommand) {
    static const int kRecord = 0;
    test_kernel::provide_module("network/low", &kRecord);
    test_kernel::provide_settings("zarn.conf", R"(
        domains {
            2 {
                in {
                    6 low
                }
                out {
                    1 {
                        6 low
                    }
                }
            }
        })");
    ASSERT_EQ(std_ops(MODULE_START), 0);
    void **tables;
    int32_t count;
    ASSERT_EQ(get_outbound_protos(0, 2, 1, 6, &tables, &count), 0);
    changes();

    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(std_ops(MODULE_STOP), -1);
        EXPECT_EQ(changes(), lines{"debug_remove_command \"zarn_data\""});
        EXPECT_FALSE(test_kernel::has_debug_command("zarn_data"));
        EXPECT_TRUE(test_kernel::has_debug_command("zarn_timer"));
    }
    test_kernel::wait_until_asleep("zarn_timer");
    test_kernel::wait_until_blocked("zarn_data purgatory");
    void *block = zarn_falloc(16);
    EXPECT_FALSE(test_kernel::on_heap(block));
    zarn_free(block);
    void *table = nullptr;
    EXPECT_EQ(get_inbound_proto(2, 6, &table), 0);
    EXPECT_EQ(table, &kRecord);

    EXPECT_EQ(release_family_ref(2), 0);
    EXPECT_EQ(start_or_stop(MODULE_STOP), 0);
}

}  // namespace
