// SPDX-License-Identifier: MIT
//
// Stopping all other threads, wherever they are, and entering the debugger.

#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/platform/support.h"

namespace {

class stop : public hosted_test {};

std::atomic<int32_t> gEnd;
std::atomic<uint32_t> gSteps[8];
int32_t gLock, gNobody;
int gPipe[2];
FILE *gStream;
pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;

// What threads are busy with when they are to stop.
void (*const kWork[])() = {
    [] {},
    [] {
        for (size_t size = 16; size < 1 << 14; size *= 3)
            free(memset(malloc(size), 1, size));
    },
    [] { fprintf(gStream, "%d", 1), fflush(gStream), kern_log("%d\n", 1); },
    [] { kern_sem_acquire(gLock), kern_sem_release(gLock); },
    [] { kern_sem_acquire(gLock), kern_sem_release(gLock); },
    [] { kern_sleep_us(100); },
    [] { kern_sem_acquire(gNobody); },
    [] {
        char byte;
        while (read(gPipe[0], &byte, 1) != 0)  // under the thread sanitizer a signal ends it
            EXPECT_EQ(errno, EINTR);
    },
};

int32_t work(void *step) {
    auto index = static_cast<std::atomic<uint32_t> *>(step) - gSteps;
    while (!gEnd) {
        kWork[index]();
        for (int i = 0; i < 500; i++)  // some time in code that a thread can stop in
            gSteps[index]++;
    }
    return 0;
}

TEST_F(stop, holds_threads_wherever_they_are_and_leaves_the_caller_all_it_needs) {
    gEnd = 0;
    gLock = kern_sem_create(1, "lock"), gNobody = kern_sem_create(0, "nobody");
    ASSERT_EQ(pipe(gPipe), 0);
    ASSERT_NE(gStream = fopen("/dev/null", "w"), nullptr);
    mallopt(M_ARENA_MAX, 1);  // one lock for all
    hosted_set_log([](void *, const char *) {}, nullptr);
    std::map<int32_t, size_t> threads;
    for (size_t i = 0; i < std::size(kWork); i++) {
        int32_t thread = kern_thread_spawn(work, "worker", 10, &gSteps[i]);
        threads[thread] = i;
        kern_thread_resume(thread);
    }
    EXPECT_TRUE(eventually([] { return std::all_of(gSteps, gSteps + 6, [](auto &s) { return s > 0; }); }));
    EXPECT_TRUE(waiters_become(gNobody, 1));
    int32_t idle = kern_thread_spawn(work, "idle", 10, &gSteps[0]);
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(hosted_stop_threads(10'000'000), 0);
        EXPECT_EQ(hosted_stop_threads(0), KERN_ERR_NOT_ALLOWED);
        uint32_t before[8];
        std::copy(gSteps, gSteps + 8, before);
        std::thread born([&] { kern_thread_self(), gSteps[7]++; });
        for (size_t size = 1; size < 1 << 18; size *= 2)
            free(memset(malloc(size), 1, size));
        fprintf(gStream, "%d", 2), kern_log("%d\n", 2), hosted_count_objects();
        kern_sleep_us(1000);
        EXPECT_TRUE(std::equal(before, before + 8, gSteps));
        hosted_thread_info list[16];
        int32_t count = hosted_list_threads(list, 16), self = kern_thread_self();
        for (const auto &info : std::vector<hosted_thread_info>(list, list + count)) {
            EXPECT_EQ(info.stopped, info.id != self) << info.id;
            EXPECT_EQ(info.suspended, info.id == idle);
            auto worker = threads.find(info.id);
            int32_t waits_for = worker != threads.end() && worker->second == 6 ? gNobody : 0;
            EXPECT_TRUE(info.waits_for == waits_for || info.waits_for == gLock);
        }
        hosted_continue_threads();
        born.join();
        EXPECT_TRUE(eventually(
            [&] { return std::equal(before, before + 6, gSteps, [](auto b, auto &a) { return a != b; }); }));
    }
    gEnd = 1;
    close(gPipe[1]), kern_sem_release(gNobody), kern_thread_resume(idle);
    EXPECT_TRUE(hosted_wait_for_threads(0, 10'000'000));
    hosted_set_log(nullptr, nullptr);
    close(gPipe[0]), fclose(gStream), kern_sem_delete(gLock), kern_sem_delete(gNobody);
}

TEST_F(stop, leaves_a_thread_running_that_waits_for_a_lock_of_the_library) {
    pthread_mutex_lock(&gMutex);
    std::atomic<int32_t> there = 0;
    std::thread stuck([&] {
        there = kern_thread_self();
        pthread_mutex_lock(&gMutex), pthread_mutex_unlock(&gMutex);
    });
    EXPECT_TRUE(eventually([&] { return there != 0; }));
    kern_sleep_us(20'000);
    EXPECT_EQ(hosted_stop_threads(20'000), 1);
    pthread_mutex_unlock(&gMutex);
    stuck.join();
    hosted_continue_threads();
}

std::string gEntries;
std::atomic<int32_t> gInside;

void on_entry(const char *message, int32_t running) {
    EXPECT_EQ(gInside++ + running, 0);
    kern_debug_enter("nested\n");
    kern_sleep_us(2000);
    gEntries += message;
    gInside--;
}

TEST_F(stop, lets_one_thread_at_a_time_into_the_debugger) {
    hosted_set_debug_entry(on_entry);
    auto enter = +[](void *) {
        for (int i = 0; i < 5; i++)
            kern_debug_enter("here\n");
        return 0;
    };
    for (int i = 0; i < 3; i++)
        kern_thread_resume(kern_thread_spawn(enter, "entering", 10, nullptr));
    EXPECT_TRUE(hosted_wait_for_threads(0, 30'000'000));
    ASSERT_EQ(hosted_install_interrupt(SIGUSR2, [](const siginfo_t *) { kern_debug_enter("above\n"); }), 0);
    raise(SIGUSR2);
    hosted_install_interrupt(SIGUSR2, nullptr);
    hosted_set_debug_entry(nullptr);
    kern_debug_enter("nobody\n");
    EXPECT_EQ(gEntries.size(), 15 * strlen("here\n"));
    EXPECT_EQ(logged("entered: nested\n"), 15);
    EXPECT_EQ(logged("entered: nobody\n"), 1);
    EXPECT_EQ(hosted_install_interrupt(SIGRTMAX, nullptr), KERN_ERR_BAD_VALUE);
}

TEST_F(stop, tells_who_holds_a_semaphore) {
    auto holder = [](int32_t sem) {
        hosted_semaphore_info only = {};
        EXPECT_TRUE(hosted_list_semaphores(&only, 1) == 1 && only.id == sem);
        return only.holder;
    };
    int32_t sem = kern_sem_create(1, "held"), self = kern_thread_self(), other = 0;
    EXPECT_EQ(holder(sem), 0);
    kern_sem_acquire(sem);
    EXPECT_EQ(holder(sem), self);
    std::thread next([&] { other = kern_thread_self(), kern_sem_acquire(sem); });
    EXPECT_TRUE(waiters_become(sem, 1));
    kern_sem_release(sem);
    next.join();
    EXPECT_EQ(holder(sem), other);
    kern_sem_release(sem);  // by somebody else: the other one is still the last that took it
    EXPECT_EQ(holder(sem), other);
    kern_sem_delete(sem);
}

}  // namespace
