// SPDX-License-Identifier: MIT
//
// Threads, time, memory, debugger, log and halt of the hosted kernel.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "tests/platform/support.h"

namespace {

class threads : public hosted_test {};

std::atomic<int32_t> gRan, gMayEnd, gInterrupts;

int32_t run(void *argument) {
    gRan = kern_thread_self();
    EXPECT_EQ(argument, &gRan);
    eventually([] { return gMayEnd != 0; });
    return -3;
}

TEST_F(threads, wait_for_their_resume_and_go_when_they_return) {
    for (int32_t priority : {5, 20}) {  // the second one is real time where the process may
        gRan = gMayEnd = 0;
        int32_t thread = kern_thread_spawn(run, "a thread with a rather long name", priority, &gRan);
        hosted_thread_info list[8], *info = list;
        for (int32_t count = hosted_list_threads(list, 8); info->id != thread; info++)
            ASSERT_LT(info, list + count);
        EXPECT_STREQ(info->name, "a thread with a rather long nam");
        EXPECT_TRUE(info->priority == priority && info->spawned && info->suspended);
        kern_sleep_us(2000);
        EXPECT_EQ(gRan, 0);
        EXPECT_EQ(kern_thread_resume(thread), 0);
        EXPECT_TRUE(eventually([=] { return gRan == thread; }));
        EXPECT_LT(kern_thread_resume(thread), 0);
        gMayEnd = 1;
        EXPECT_TRUE(hosted_wait_for_threads(0, 10000000));
        EXPECT_LT(kern_thread_resume(thread), 0);
        unsigned char record[76];
        EXPECT_LT(kern_thread_info(thread, record, 76), 0);
    }
    EXPECT_EQ(logged("runs already"), 2);
    EXPECT_EQ(logged("resume: no thread"), 2);
}

TEST_F(threads, tell_their_times_which_never_go_back) {
    int64_t times[2], before[2] = {}, start = -1;
    unsigned char record[80];
    EXPECT_LT(kern_thread_info(kern_thread_self(), record, 80), 0);
    do {
        EXPECT_EQ(kern_thread_info(kern_thread_self(), record + 1, 76), 0);
        memcpy(times, record + 1 + 52, sizeof times);
        ASSERT_TRUE(times[0] >= before[0] && times[1] >= before[1]);
        memcpy(before, times, sizeof times);
        if (start < 0) start = times[0] + times[1];
    } while (times[0] + times[1] < start + 20000);
}

TEST_F(threads, sleep_long_enough_in_spite_of_interrupts) {
    ASSERT_EQ(hosted_install_interrupt(SIGUSR2, [](const siginfo_t *) { gInterrupts++; }), 0);
    std::thread sleeper([] {
        int64_t before = kern_time_us();
        EXPECT_EQ(kern_sleep_us(30000), 0);
        EXPECT_GE(kern_time_us() - before, 30000);
    });
    for (int i = 0; i < 10; i++, kern_sleep_us(1000))
        pthread_kill(sleeper.native_handle(), SIGUSR2);
    sleeper.join();
    EXPECT_GE(gInterrupts, 1);
    ASSERT_EQ(hosted_install_interrupt(SIGUSR2, nullptr), 0);
}

class memory : public hosted_test {};

TEST_F(memory, regions_come_and_go) {
    void *address = nullptr;
    int32_t region = kern_region_create("test", &address, 4, 0x50000, 3, 3);
    ASSERT_GE(region, 0);
    memset(address, 0xa5, 0x50000);
    EXPECT_EQ(hosted_count_objects().regions, 1);
    EXPECT_EQ(kern_region_delete(region), 0);
    EXPECT_LT(kern_region_delete(region), 0);
    EXPECT_EQ(logged("no region"), 1);
    EXPECT_LT(kern_region_create("elsewhere", &address, 1, 4096, 3, 3), 0);
}

TEST_F(memory, maps_to_itself_page_by_page_where_it_is_mapped) {
    uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void *block = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    uintptr_t base = reinterpret_cast<uintptr_t>(block);
    ASSERT_EQ(munmap(reinterpret_cast<void *>(base + 3 * page), page), 0);
    struct {
        uintptr_t offset, length;
        int32_t entries, filled;
    } const cases[] = {{100, page, 4, 2},   {page - 1, 2, 4, 2}, {0, 3 * page, 4, 3},
                       {0, 3 * page, 2, 2}, {page, 0, 4, 0},     {0, 3 * page + 1, 4, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.offset << " " << c.length);
        memory_run runs[4] = {{1, 1}};
        int32_t filled = kern_memory_map(reinterpret_cast<void *>(base + c.offset),
                                         static_cast<uint32_t>(c.length), runs, c.entries);
        EXPECT_EQ(filled < 0 ? -1 : filled, c.filled);
        EXPECT_TRUE(c.filled > 0 || runs[0].size == 0);
        uintptr_t at = base + c.offset;
        for (int32_t i = 0; i < filled; at += runs[i++].size)
            EXPECT_EQ(runs[i].address, at);
        EXPECT_TRUE(filled <= 0 || filled == c.entries || at == base + c.offset + c.length);
    }
    EXPECT_EQ(kern_memory_lock(block, static_cast<uint32_t>(3 * page), 0), 0);
    EXPECT_LT(kern_memory_lock(block, static_cast<uint32_t>(3 * page + 1), 0), 0);
    EXPECT_EQ(hosted_count_objects().locked_ranges, 1);
    EXPECT_EQ(kern_memory_unlock(block, static_cast<uint32_t>(3 * page), 0), 0);
    EXPECT_LT(kern_memory_unlock(block, 1, 0), 0);
    EXPECT_EQ(logged("nothing is locked"), 1);
    munmap(block, 3 * page);
}

class debugger : public hosted_test {};

int32_t print_arguments(int32_t argc, char **argv) {
    for (int32_t i = 0; i < argc; i++)
        kern_debug_print("<%s>", argv[i]);
    kern_debug_print(" %Ld %ld", static_cast<long long>(INT64_MIN), -1L);
    return argv[argc] == nullptr ? argc : -1;
}

TEST_F(debugger, runs_commands_by_name) {
    EXPECT_EQ(kern_debug_add_command("show", print_arguments, "shows"), 0);
    EXPECT_LT(kern_debug_add_command("show", print_arguments, "again"), 0);
    EXPECT_LT(kern_debug_add_command("two words", print_arguments, ""), 0);
    std::string output;
    auto append = [](void *context, const char *text) { *static_cast<std::string *>(context) += text; };
    EXPECT_EQ(hosted_run_debug_command(" show 5\tall ", append, &output), 3);
    EXPECT_EQ(output, "<show><5><all> -9223372036854775808 -1");
    EXPECT_EQ(hosted_run_debug_command("sho", append, &output), KERN_ERR_NOT_FOUND);
    EXPECT_EQ(hosted_run_debug_command(" ", append, &output), KERN_ERR_BAD_VALUE);
    EXPECT_LT(kern_debug_remove_command("show", nullptr), 0);
    EXPECT_EQ(kern_debug_remove_command("show", print_arguments), 0);
    EXPECT_LT(kern_debug_remove_command("show", print_arguments), 0);
    kern_debug_enter("by a test\n");
    EXPECT_EQ(logged("by a test\n"), 1);
}

TEST(halt, prints_its_message_and_stops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(kern_halt("at %ld of %s\n", 7L, "nine"), "halted: at 7 of nine");
}

}  // namespace
