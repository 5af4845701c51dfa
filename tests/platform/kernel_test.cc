// SPDX-License-Identifier: MIT
//
// Threads, time, memory, debugger, log and halt of the hosted kernel.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
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
    // Another thread is told the same, in the ticks of the host.
    const int32_t self = kern_thread_self();
    std::thread([&] { EXPECT_EQ(kern_thread_info(self, record + 1, 76), 0); }).join();
    memcpy(before, record + 1 + 52, sizeof before);
    EXPECT_NEAR(static_cast<double>(before[0]), static_cast<double>(times[0]), 20000);
    EXPECT_NEAR(static_cast<double>(before[1]), static_cast<double>(times[1]), 20000);
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

// One file of four pages, mapped in two places; behind the first lies nothing.
struct two_views {
    two_views() {
        file = memfd_create("two views", 0);
        EXPECT_EQ(ftruncate(file, static_cast<off_t>(4 * page)), 0);
        first = static_cast<char *>(mmap(nullptr, 5 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        munmap(first + 4 * page, page);
        mmap(first, 4 * page, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
        second = static_cast<char *>(mmap(nullptr, 4 * page, PROT_READ, MAP_SHARED, file, 0));
    }
    ~two_views() {
        munmap(first, 4 * page);
        munmap(second, 4 * page);
        close(file);
    }
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    int file;
    char *first, *second;
};

uintptr_t map_byte(const void *address) {
    memory_run run;
    EXPECT_EQ(kern_memory_map(address, 1, &run, 1), 1);
    EXPECT_EQ(run.size, 1u);
    return run.address;
}

TEST_F(memory, has_the_same_physical_address_wherever_it_is_mapped_or_else_its_own) {
    two_views views;
    const size_t page = views.page;
    bool hidden = false;
    for (size_t i = 0; i < 4 * page; i += page / 2) {
        uintptr_t one = map_byte(views.first + i), other = map_byte(views.second + i);
        EXPECT_EQ(one % page, i % page);
        if (one == other) continue;
        hidden = true;
        EXPECT_EQ(one, reinterpret_cast<uintptr_t>(views.first + i));
        EXPECT_EQ(other, reinterpret_cast<uintptr_t>(views.second + i));
    }
    EXPECT_LE(logged("memory maps show virtual addresses"), hidden ? 2 : 0);

    constexpr size_t kMost = 600;  // with many pages some lie together
    const size_t many = kMost * page - page / 2;
    void *block = mmap(nullptr, kMost * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memset(block, 1, kMost * page);
    const std::tuple<char *, size_t, int32_t> cases[] = {
        {views.first + 100, page, 4},   {views.first + page - 1, 2, 4},
        {views.first, 4 * page, 4},     {static_cast<char *>(block) + 100, many, kMost},
        {views.first + 2, 3 * page, 1},  // may be too few
    };
    for (const auto &[start, length, entries] : cases) {
        SCOPED_TRACE(length);
        memory_run runs[kMost];
        int32_t filled = kern_memory_map(start, static_cast<uint32_t>(length), runs, entries);
        ASSERT_TRUE(filled > 0 && filled <= entries);
        size_t at = 0;
        for (int32_t i = 0; i < filled; at += runs[i++].size) {
            EXPECT_EQ(runs[i].address, map_byte(start + at));
            // What lies together is one run, but for pages whose address isn't known.
            if (i == 0 || runs[i - 1].address + runs[i - 1].size != runs[i].address) continue;
            EXPECT_EQ(runs[i].address, reinterpret_cast<uintptr_t>(start + at));
        }
        EXPECT_TRUE(at == length || (entries == 1 && at < length));
    }
    munmap(block, kMost * page);
    for (uint32_t length : {0u, static_cast<uint32_t>(4 * page + 1), UINT32_MAX}) {
        memory_run run = {1, 1};
        EXPECT_LE(kern_memory_map(views.first, length, &run, 1), 0);
        EXPECT_EQ(run.size, 0u);
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLocksForReal = false;  // the sanitizers' mlock does nothing
#else
constexpr bool kLocksForReal = true;
#endif

size_t wired_bytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == "VmLck:" && status >> word) return std::stoul(word) * 1024;
    return 0;
}

TEST_F(memory, stays_wired_until_the_last_lock_of_a_page_goes) {
    two_views views;
    const uint32_t page = static_cast<uint32_t>(views.page);
    auto expect_wired = [&](size_t pages, int32_t ranges) {
        EXPECT_EQ(hosted_count_objects().locked_ranges, ranges);
        EXPECT_EQ(wired_bytes(), kLocksForReal ? pages * page : 0);
    };
    auto lock = [&](uint32_t from, uint32_t to) {
        return kern_memory_lock(views.first + from, to - from, 0);
    };
    auto unlock = [&](uint32_t from, uint32_t to) {
        return kern_memory_unlock(views.first + from, to - from, 0);
    };
    const std::pair<uint32_t, uint32_t> most = {5, 3 * page}, last = {2 * page - 1, 3 * page + 1};
    for (auto [from, to] : {most, last, most, {8, 8}})
        EXPECT_EQ(lock(from, to), 0);
    expect_wired(4, 4);
    EXPECT_EQ(unlock(most.first, most.second), 0);
    expect_wired(4, 3);
    EXPECT_EQ(unlock(most.first, most.second) | unlock(8, 8), 0);
    expect_wired(3, 1);
    // A lock that fails has no effect, nor has its unlock, and whoever unlocks more than that is told.
    EXPECT_LT(lock(0, 4 * page + 1), 0);
    if (kLocksForReal) {
        mprotect(views.first, page, PROT_NONE);
        EXPECT_LT(lock(0, 4 * page), 0);
        EXPECT_LT(unlock(0, 4 * page), 0);
    }
    EXPECT_LT(unlock(0, 4 * page + 1), 0);
    expect_wired(3, 1);
    EXPECT_TRUE(hosted_log_objects() == 1 && logged("aren't locked") == 0);
    EXPECT_EQ(unlock(last.first, last.second), 0);
    expect_wired(0, 0);
    EXPECT_LT(unlock(last.first, last.second), 0);
    EXPECT_EQ(logged("aren't locked"), 1);
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
