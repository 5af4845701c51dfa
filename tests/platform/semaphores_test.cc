// SPDX-License-Identifier: MIT
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <vector>

#include "tests/platform/support.h"
#include "tests/support/background.h"

namespace {

class semaphores : public hosted_test {};

constexpr uint32_t kTimed = KERN_SEM_RELATIVE_TIMEOUT;

int32_t try_acquire(int32_t sem, int32_t units = 1) {
    return kern_sem_acquire_ex(sem, units, kTimed, 0);
}

// A thread in an acquire, and its result.
struct sleeper : background {
    explicit sleeper(int32_t sem, int32_t units = 1, uint32_t flags = 0, int64_t timeout = 0)
        : background([=] { return kern_sem_acquire_ex(sem, units, flags, timeout); }) {}
};

TEST_F(semaphores, refuse_what_is_out_of_range_and_keep_their_units) {
    EXPECT_LT(kern_sem_create(-1, "negative"), 0);
    int32_t sem = kern_sem_create(2, "a name that is longer than thirty-one characters");
    for (int32_t units : {0, -1, INT32_MIN}) {
        EXPECT_LT(kern_sem_release_ex(sem, units, KERN_SEM_NO_RESCHEDULE), 0);
        EXPECT_LT(kern_sem_acquire_ex(sem, units, 0, 0), 0);
    }
    EXPECT_LT(kern_sem_release_ex(sem, INT32_MAX - 1, 0), 0);
    EXPECT_EQ(try_acquire(sem, 3), KERN_ERR_WOULD_BLOCK);
    EXPECT_EQ(kern_sem_set_owner(sem, KERN_TEAM), 0);
    hosted_semaphore_info info;
    ASSERT_EQ(hosted_list_semaphores(&info, 1), 1);
    EXPECT_STREQ(info.name, "a name that is longer than thir");
    EXPECT_TRUE(info.id == sem && info.team == KERN_TEAM && info.count == 2);
    EXPECT_EQ(kern_sem_acquire_ex(sem, 2, 0, 0), 0) << "with flags 0 the timeout doesn't apply";
    EXPECT_EQ(try_acquire(sem), KERN_ERR_WOULD_BLOCK);
    EXPECT_EQ(kern_sem_delete(sem), 0);
}

TEST_F(semaphores, serve_in_order_and_never_overtake_the_first_in_line) {
    int32_t sem = kern_sem_create(0, "line");
    const int32_t wanted[] = {1, 3, 1, 2, 1};
    std::vector<std::unique_ptr<sleeper>> line;
    for (int32_t units : wanted) {
        line.push_back(std::make_unique<sleeper>(sem, units));
        ASSERT_TRUE(waiters_become(sem, static_cast<int32_t>(line.size())));
    }
    const int32_t served[] = {1, 1, 1, 2, 3, 3, 4, 5};
    for (int32_t released = 0; released < 8; released++) {
        EXPECT_EQ(kern_sem_release(sem), 0);
        EXPECT_EQ(hosted_count_waiters(sem), 5 - served[released]);
        EXPECT_EQ(try_acquire(sem), KERN_ERR_WOULD_BLOCK);
        for (int32_t i = 0; i < served[released]; i++)
            EXPECT_EQ(line[static_cast<size_t>(i)]->join(), 0);
    }
    EXPECT_EQ(kern_sem_delete(sem), 0);
}

TEST_F(semaphores, who_leaves_the_line_takes_nothing_and_frees_the_way) {
    int32_t sem = kern_sem_create(1, "leavers");
    const int64_t before = kern_time_us();
    sleeper greedy(sem, 5, kTimed, 50000);
    ASSERT_TRUE(waiters_become(sem, 1));
    sleeper modest(sem, 1);
    EXPECT_EQ(modest.join(), 0) << "served when the one in front has timed out";
    EXPECT_EQ(greedy.join(), KERN_ERR_TIMED_OUT);
    EXPECT_GE(kern_time_us() - before, 50000);
    EXPECT_EQ(try_acquire(sem), KERN_ERR_WOULD_BLOCK);
    EXPECT_EQ(kern_sem_delete(sem), 0);
}

TEST_F(semaphores, no_unit_is_lost_between_release_and_timeout) {
    int32_t sem = kern_sem_create(0, "race");
    constexpr int kUnits = 3000;
    std::atomic<int> taken{0};
    run_threads(4, [&](int i) {
        for (int unit = 0; i == 3 && unit < kUnits; unit++) {
            EXPECT_EQ(kern_sem_release_ex(sem, 1, KERN_SEM_NO_RESCHEDULE), 0);
            if (unit % 16 == 0)
                kern_sem_acquire_ex(sem, INT32_MAX, kTimed, 20);  // blocks the head of the line for a while
        }
        for (int64_t timeout = 1; i < 3 && taken < kUnits; timeout = (timeout * 7 + i) % 97) {
            int32_t status = kern_sem_acquire_ex(sem, 1, kTimed, timeout);
            taken += status == 0;
            ASSERT_TRUE(status == 0 || status == KERN_ERR_TIMED_OUT || status == KERN_ERR_WOULD_BLOCK);
        }
    });
    EXPECT_EQ(taken, kUnits);
    EXPECT_EQ(try_acquire(sem), KERN_ERR_WOULD_BLOCK);
    EXPECT_EQ(kern_sem_delete(sem), 0);
}

TEST_F(semaphores, deletion_wakes_everybody_and_the_id_stays_dead) {
    int32_t sem = kern_sem_create(0, "short lived");
    sleeper plain(sem), timed(sem, 2, kTimed, 60000000), interruptible(sem, 1, KERN_SEM_INTERRUPTIBLE);
    ASSERT_TRUE(waiters_become(sem, 3));
    EXPECT_EQ(kern_sem_delete(sem), 0);
    for (sleeper *one : {&plain, &timed, &interruptible})
        EXPECT_EQ(one->join(), KERN_ERR_BAD_SEM);
    EXPECT_EQ(log_, "") << "whoever waited did nothing wrong";
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(kern_sem_acquire(sem), KERN_ERR_BAD_SEM);
        EXPECT_EQ(kern_sem_release(sem), KERN_ERR_BAD_SEM);
    }
    EXPECT_EQ(logged("\"short lived\", was deleted"), 1) << log_;
    EXPECT_EQ(kern_sem_delete(sem), KERN_ERR_BAD_SEM);
    EXPECT_EQ(kern_sem_set_owner(sem, KERN_TEAM), KERN_ERR_BAD_SEM);
    EXPECT_EQ(logged("\"short lived\", was deleted"), 3) << log_;
    for (int32_t id : {0, -1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(kern_sem_acquire(id), KERN_ERR_BAD_SEM);
    // Slots come round again, ids don't.
    for (int i = 0; i < 5000; i++) {
        int32_t next = kern_sem_create(1, "successor");
        ASSERT_NE(next, sem);
        ASSERT_EQ(kern_sem_delete(next), 0);
    }
}

TEST_F(semaphores, make_no_system_call_when_nobody_waits) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer makes system calls of its own";
#endif
    int32_t sem = kern_sem_create(0, "quiet");
    int32_t self = kern_thread_self();
    pid_t child = fork();
    if (child == 0) {
        // In this mode any system call but read, write and exit kills.
        if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) _exit(77);
        int32_t failures = 0;
        for (int i = 0; i < 1000; i++)
            failures += kern_sem_release_ex(sem, 3, KERN_SEM_NO_RESCHEDULE) != 0 ||
                        kern_sem_acquire(sem) != 0 || try_acquire(sem, 2) != 0 || try_acquire(sem) == 0 ||
                        kern_thread_self() != self;
        syscall(SYS_exit, failures == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(kern_sem_delete(sem), 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "the host refuses the strict mode";
    EXPECT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(semaphores, a_signal_ends_an_interruptible_wait_only) {
    ASSERT_EQ(hosted_install_signal(SIGUSR1, nullptr), 0);
    ASSERT_EQ(hosted_install_interrupt(SIGUSR2, [](const siginfo_t *) {}), 0);
    int32_t sem = kern_sem_create(0, "signals");
    for (int round = 0; round < 50; round++) {
        sleeper patient(sem);
        ASSERT_TRUE(waiters_become(sem, 1));
        sleeper nervous(sem, 1, KERN_SEM_INTERRUPTIBLE | kTimed, 60000000);
        ASSERT_TRUE(waiters_become(sem, 2));
        pthread_kill(nervous.handle(), SIGUSR2);
        pthread_kill(patient.handle(), SIGUSR1);
        kern_sleep_us(200);
        EXPECT_EQ(hosted_count_waiters(sem), 2);
        pthread_kill(nervous.handle(), SIGUSR1);
        EXPECT_EQ(nervous.join(), KERN_ERR_INTERRUPTED);
        EXPECT_EQ(kern_sem_release(sem), 0);
        EXPECT_EQ(patient.join(), 0);
    }
    EXPECT_EQ(kern_sem_delete(sem), 0);
    EXPECT_EQ(hosted_install_interrupt(SIGUSR2, nullptr), 0);
    EXPECT_LT(hosted_install_interrupt(SIGKILL, [](const siginfo_t *) {}), 0);
}

std::atomic<int32_t> gTickSem{-1}, gWaitAtInterrupt{0};
std::atomic<int> gTicks{0};

TEST_F(semaphores, interrupts_release_into_whatever_they_interrupt) {
    int32_t sem = kern_sem_create(0, "ticks"), noise = kern_sem_create(1, "noise");
    gTickSem = sem;
    gTicks = 0;
    ASSERT_EQ(hosted_install_interrupt(SIGRTMIN,
                                       [](const siginfo_t *) {
                                           if (kern_sem_release_ex(gTickSem, 1, KERN_SEM_NO_RESCHEDULE) == 0)
                                               gTicks++;
                                           if (!hosted_at_interrupt_level()) abort();
                                       }),
              0);
    constexpr int kWanted = 2000;
    std::atomic<bool> stop{false};
    const auto work = [&] {
        while (!stop) {  // time-outs of 1 usec lead through every critical section of the line
            EXPECT_EQ(kern_sem_acquire(noise), 0);
            kern_sem_acquire_ex(sem, INT32_MAX, kTimed, 1);
            EXPECT_EQ(kern_sem_release(noise), 0);
        }
        return 0;
    };
    background one(work), other(work), consumer([&] {
        for (int i = 0; i < kWanted; i++)
            EXPECT_EQ(kern_sem_acquire(sem), 0);
        return 0;
    });
    while (gTicks < kWanted) {
        pthread_kill(one.handle(), SIGRTMIN);
        pthread_kill(other.handle(), SIGRTMIN);
    }
    consumer.join();
    stop = true;
    one.join(), other.join();
    ASSERT_EQ(hosted_install_interrupt(SIGRTMIN, nullptr), 0);
    int left = 0;
    while (try_acquire(sem) == 0)
        left++;
    EXPECT_EQ(left, gTicks - kWanted);
    EXPECT_EQ(kern_sem_delete(sem) | kern_sem_delete(noise), 0);
}

TEST_F(semaphores, waiting_at_interrupt_level_is_refused) {
    gTickSem = kern_sem_create(0, "never");
    ASSERT_EQ(hosted_install_interrupt(
                  SIGUSR2, [](const siginfo_t *) { gWaitAtInterrupt = kern_sem_acquire(gTickSem); }),
              0);
    testing::internal::CaptureStderr();
    raise(SIGUSR2);
    ASSERT_TRUE(eventually([] { return gWaitAtInterrupt != 0; }));
    EXPECT_EQ(gWaitAtInterrupt, KERN_ERR_NOT_ALLOWED);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("at interrupt level"), std::string::npos);
    ASSERT_EQ(hosted_install_interrupt(SIGUSR2, nullptr), 0);
    EXPECT_EQ(kern_sem_delete(gTickSem), 0);
}

}  // namespace
