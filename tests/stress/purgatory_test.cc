// SPDX-License-Identifier: MIT

#include "data/purgatory.h"

#include <signal.h>
#include <ucontext.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <utility>

#include "data/zarn_data.h"
#include "module/allocator.h"
#include "tests/support/stress.h"

namespace {

// Memory that counts its frees and is spoiled by them.
struct element {
    static constexpr uint32_t kBytes = 96;
    uint8_t memory[kBytes] = {};
    std::atomic<int> freed = 0;
};

std::atomic<int> gFrees;

void free_element(void *ext_arg, void *memory) {
    auto *owner = static_cast<element *>(ext_arg);
    memset(memory, 0xdd, element::kBytes);
    owner->freed++;
    gFrees++;
}

// A buffer over an element of its own, in two pieces.
zarn_data_t *new_packet(element *e, bool interrupt_safe) {
    zarn_data_t *data = new_zarn_data();
    append_zarn_data(data, e->memory, 40, nullptr);
    append_zarn_data(data, e->memory + 40, element::kBytes - 40, nullptr);
    uint16_t flags = interrupt_safe ? FREE_INTERRUPT_SAFE : 0;
    EXPECT_EQ(add_free_element(data, e->memory, e, zarn_free_func_from_ext(free_element), flags), 0);
    return data;
}

// Buffers on their way from the threads to the interrupts.
constexpr int kSlots = 64;
zarn_data_t *gSlots[kSlots];
std::atomic<uint32_t> gInterrupts, gInterruptDeletions;

void on_interrupt(const siginfo_t *) {
    uint32_t start = gInterrupts++;
    for (uint32_t i = 0; i < 4; ++i) {
        zarn_data_t *data = __atomic_exchange_n(&gSlots[(start + i) % kSlots], nullptr, __ATOMIC_ACQ_REL);
        if (data == nullptr) continue;
        isafe_delete_zarn_data(data);
        gInterruptDeletions++;
    }
}

pthread_t gPurgatory;
std::atomic<bool> gKnowsPurgatory;

// Two threads make packets, share them and delete what they hold by either function, while interrupts hit them and the
// purgatory's thread 20000 times a second and delete clones of the same packets.
TEST_F(stress_test, InterruptsDeleteWhatThreadsShare) {
    const int packets = stress_rounds(20000);
    constexpr int kThreads = 2;
    gFrees = 0;
    std::deque<element> elements(static_cast<size_t>(packets * kThreads));
    for (int i = 0; i < 9; ++i) {
        zarn_data_t *data = new_zarn_data();
        auto learn_thread = [](void *) { gPurgatory = pthread_self(), gKnowsPurgatory = true; };
        if (i == 0) add_free_element(data, data, nullptr, learn_thread, 0);
        isafe_delete_zarn_data(data);
    }
    while (!gKnowsPurgatory)
        std::this_thread::yield();

    const int signal = SIGRTMIN + 3;
    ASSERT_EQ(hosted_install_interrupt(signal, on_interrupt), 0);
    pthread_t threads[kThreads + 1] = {};
    threads[kThreads] = gPurgatory;
    std::atomic<int> ready{0}, working{kThreads};
    std::atomic<bool> pulsing{true};
    run_threads(kThreads + 1, [&](int who) {
        if (who == kThreads) {
            while (ready != kThreads)
                std::this_thread::yield();
            for (int sent = 0; working != 0; ++sent) {
                pthread_kill(threads[sent % 3], signal);
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
            pulsing = false;
            return;
        }
        threads[who] = pthread_self();
        ready++;
        dice die(who + 1);
        for (int i = 0; i < packets; ++i) {
            zarn_data_t *data = new_packet(&elements[static_cast<size_t>(who * packets + i)], die.roll(2));
            for (uint32_t clones = die.roll(4); clones != 0; --clones) {
                zarn_data_t *clone = new_zarn_data(), *empty = nullptr;
                uint32_t offset = die.roll(element::kBytes);
                EXPECT_EQ(clone_zarn_data(clone, data, offset, die.roll(element::kBytes - offset)), 0);
                if (!__atomic_compare_exchange_n(&gSlots[die.roll(kSlots)], &empty, clone, false,
                                                 __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
                    isafe_delete_zarn_data(clone);
            }
            if (die.roll(8) == 0) {
                EXPECT_EQ(disassociate_zarn_data(data, 10, 50), 0);
            }
            uint8_t bytes[element::kBytes], expected[element::kBytes] = {};
            copy_from_zarn_data(data, 0, bytes, sizeof bytes);
            EXPECT_EQ(memcmp(bytes, expected, sizeof bytes), 0);
            die.roll(2) ? delete_zarn_data(data) : isafe_delete_zarn_data(data);
        }
        working--;
        while (pulsing)  // no interrupt may look for a thread that is gone
            std::this_thread::yield();
    });
    ASSERT_EQ(hosted_install_interrupt(signal, [](const siginfo_t *) {}), 0);

    for (zarn_data_t *&slot : gSlots) {
        if (slot != nullptr) delete_zarn_data(std::exchange(slot, nullptr));
    }
    ASSERT_EQ(uninit_data_purgatory(), 0);  // releases what still lies there
    ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
    EXPECT_EQ(gFrees, packets * kThreads);
    for (element &e : elements)
        ASSERT_EQ(e.freed, 1);
    EXPECT_GT(gInterruptDeletions, 0u) << "of " << gInterrupts << " interrupts";
}

// Steps the purgatory's thread through its own code, one instruction at a time, and holds it behind a number of them, or
// in front of its acquire.
std::atomic<int> gStepsLeft;
std::atomic<bool> gHeld, gAtAcquire, gGoOn;

void step(int, siginfo_t *, void *context) {
    auto &registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    auto instruction = static_cast<uintptr_t>(registers[sizeof(void *) == 8 ? 16 : 14]);  // REG_RIP, REG_EIP
    gAtAcquire = instruction == reinterpret_cast<uintptr_t>(kern_sem_acquire_ex);
    bool goes_on = gStepsLeft-- > 0 && !gAtAcquire;
    registers[REG_EFL] = (registers[REG_EFL] & ~0x100) | (goes_on ? 0x100 : 0);  // the trap flag
    if (goes_on) return;
    gHeld = true;
    while (!gGoOn)
        std::this_thread::yield();
}

// The thread is held at every single instruction from a free function to the acquire of its sleep. Buffers are deleted
// and the stop comes meanwhile; then the thread goes on, and must neither sleep for good nor leave a buffer behind.
TEST_F(stress_test, AStopFindsTheThreadAtEveryInstruction) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "most of the instructions would be the sanitizer's, which must not be held";
#endif
    // A thread that finds its semaphore dead, because the stop returned before it had left, makes the kernel log it.
    std::string log;
    hosted_set_log([](void *to, const char *text) { *static_cast<std::string *>(to) += text; }, &log);
    ASSERT_EQ(uninit_data_purgatory(), 0);
    const int32_t others = hosted_count_objects().threads;
    std::deque<element> elements;
    gFrees = 0;
    struct sigaction action = {}, before;
    action.sa_sigaction = step;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    ASSERT_EQ(sigaction(SIGTRAP, &action, &before), 0);
    int steps = 0;
    for (gAtAcquire = false; !gAtAcquire; ++steps) {
        gHeld = gGoOn = false;
        gStepsLeft = steps;
        ASSERT_EQ(init_data_purgatory(0), 0);
        zarn_data_t *first = new_zarn_data();
        add_free_element(
            first, first, nullptr, [](void *) { raise(SIGTRAP); }, 0);
        isafe_delete_zarn_data(first);
        while (!gHeld)
            std::this_thread::yield();
        if (steps % 2) isafe_delete_zarn_data(new_packet(&elements.emplace_back(), false));
        std::thread stop([] { EXPECT_EQ(uninit_data_purgatory(), 0); });
        for (int i = 0; i < 100 || __atomic_load_n(&gPurgy.running, __ATOMIC_ACQUIRE) != 0; ++i)
            std::this_thread::yield();
        gGoOn = true;
        stop.join();
        ASSERT_EQ(gFrees, static_cast<int>(elements.size())) << "step " << steps;
        ASSERT_TRUE(hosted_wait_for_threads(others, 5000000));
    }
    EXPECT_EQ(log, "");
    hosted_set_log([](void *, const char *) {}, nullptr);
    ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
    EXPECT_GT(steps, 50) << "the thread wasn't held on its way";
    ASSERT_EQ(sigaction(SIGTRAP, &before, nullptr), 0);
}

}  // namespace
