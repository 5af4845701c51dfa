// SPDX-License-Identifier: MIT

#include "diagnostics/profiler.h"

#include <gtest/gtest.h>
#include <zarn/zarn_profiler.h>

#include <algorithm>
#include <map>

#include "tests/support/background.h"
#include "tests/support/fixture.h"

using namespace std::string_literals;
using namespace test_kernel;
using lines = std::vector<std::string>;

namespace {

constexpr int32_t kOne = 11, kOther = 22;  // threads
const lines kCommandNames = {"prof_kern", "prof_real", "prof_func"};

class profiler_test : public kernel_test {
 protected:
    void TearDown() override {
        uninit_profiler();
        EXPECT_EQ(gLock, kProfilerNotStarted);
        EXPECT_EQ(gNumInPad, 1024u);
        EXPECT_TRUE(gID == 0 && gPad == nullptr && gPending == nullptr && gFinished == nullptr);
        kernel_test::TearDown();
    }

    void enter(const std::string &suffix, int64_t at, int32_t thread = kOne) {
        as_thread me(thread);
        set_time(at);
        _enter_prof_func("p", suffix.c_str(), PROF_RECORD);
    }
    void leave(const std::string &suffix, int64_t at, int32_t thread = kOne) {
        as_thread me(thread);
        set_time(at);
        _exit_prof_func("p", suffix.c_str(), PROF_RECORD);
    }
    void measure(const std::string &suffix, int64_t kernel, int64_t real) {
        set_thread_times(0, 0);
        enter(suffix, 100);
        set_thread_times(7, kernel);
        leave(suffix, 100 + real);
    }

    // What the log has got since the last time.
    lines logged() {
        lines result = log_lines();
        clear_log();
        return result;
    }
    std::map<std::string, profiler_record> finished() {
        std::map<std::string, profiler_record> result;
        auto copy = [](void *item, void *to) {
            const auto *record = static_cast<profiler_record *>(item);
            (*static_cast<decltype(result) *>(to))[record->name] = *record;
            return 0;
        };
        if (gFinished != nullptr) skiplist_for_each(gFinished, copy, &result);
        return result;
    }
    // The suffixes that a command prints, in order.
    std::string report(const lines &words) {
        EXPECT_EQ(debug(words), 0);
        std::string text = take_debug_output(), result;
        for (size_t at = 0; (at = text.find("Function: p:", at)) != std::string::npos;)
            result += text[at += 12];
        return result;
    }
};

TEST_F(profiler_test, FlagsSayWhatHappensAtAPointAndNamesAreCut) {
    _enter_prof_func("a", "b", 0);
    _exit_prof_func("a", "b", 0);
    EXPECT_EQ(journal().size() + logged().size(), 0u);
    _enter_prof_func("a", "b", PROF_LOG | PROF_BREAK);
    _exit_prof_func("a", "b", PROF_LOG | PROF_BREAK);
    EXPECT_EQ(logged(), (lines{"PROF_IN: a:b\n", "PROF_OUT: a:b\n"}));
    EXPECT_EQ(journal(),
              (lines{"debug_enter \"PROF_IN profile point\n\"", "debug_enter \"PROF_OUT profile point\n\""}));
    for (size_t length : {1021, 1022, 1023, 3000}) {
        const std::string text(length, 'x');
        for (const auto &[prefix, suffix] : {std::pair(text, "y"s), {"y", text}}) {
            const std::string name = (prefix + ":" + suffix).substr(0, 1023);
            _enter_prof_func(prefix.c_str(), suffix.c_str(), PROF_LOG | PROF_RECORD);
            _exit_prof_func(prefix.c_str(), suffix.c_str(), PROF_RECORD);
            EXPECT_EQ(logged()[0], "PROF_IN: " + name + "\n");
            EXPECT_EQ(finished().count(name), 1u);
        }
    }
}

TEST_F(profiler_test, TheFirstRecordedStartMakesEverythingInOrder) {
    leave("early", 50);
    EXPECT_EQ(logged(), lines{"profiler couldn't acquire profiler sem in finish\n"});
    clear_journal();
    set_thread_times(5, 6);
    stopping_point second("time", kOne);  // the clock is read before the record is made
    background starter([&] { return enter("x", 1000), 0; });
    second.wait();
    EXPECT_EQ(heap_blocks(), 0);
    second.go_on();
    starter.join();
    EXPECT_EQ(logged(), lines{"initializing profiler\n"});
    EXPECT_EQ(journal(), (lines{"thread_info \"\" 11 76", "sem_create \"profiler sem\" 1",
                                "sem_set_owner \"profiler sem\" 2", "debug_add_command \"prof_kern\"",
                                "debug_add_command \"prof_real\"", "debug_add_command \"prof_func\"",
                                "sem_acquire \"profiler sem\" 1 1", "thread_info \"\" 11 76",
                                "sem_release \"profiler sem\" 1 2"}));
    EXPECT_EQ(debug_help("prof_kern"), "profiler stats sorted by kernel time");
    for (const std::string &name : kCommandNames)
        EXPECT_EQ(report({name}), "") << "nothing is finished";
}

// The wait for the lock is part of neither end's real time. At the finish it is part of the thread's times.
TEST_F(profiler_test, TheProfilersOwnWorkIsNotMeasured) {
    measure("x", 0, 0);
    ASSERT_EQ(kern_sem_acquire(gLock), 0);
    set_thread_times(10, 20);
    background starter([&] { return enter("y", 500), 0; });
    wait_until_blocked("profiler sem");
    set_thread_times(100, 200);
    set_time(5000);
    kern_sem_release(gLock);
    starter.join();
    ASSERT_EQ(kern_sem_acquire(gLock), 0);
    background finisher([&] { return leave("y", 5060), 0; });
    wait_until_blocked("profiler sem");
    set_time(9000);
    set_thread_times(107, 209);
    kern_sem_release(gLock);
    finisher.join();
    const profiler_record y = finished()["p:y"];
    EXPECT_TRUE(y.real == 60 && y.user == 7 && y.kernel == 9);
}

TEST_F(profiler_test, BracketsOfOneNamePairByThreadAndFirstInFirstOut) {
    // Neighbours in the order, on both sides, must not be taken.
    enter("w", 1);
    enter("y", 1);
    for (int i = 0; i < 40; ++i)
        enter("x", 1, i % 2 != 0 ? kOne - 1 : kOne + 1);
    enter("x", 1000, kOther);
    enter("x", 1100);
    EXPECT_EQ(skiplist_count(gPending), 44);
    leave("z", 1);
    leave("x", 1, 99);
    EXPECT_EQ(logged(), (lines{"initializing profiler\n", "profiler couldn't find record to update\n",
                               "profiler couldn't find record to update\n"}));
    enter("x", 1300);
    leave("x", 2000);  // with 1100
    const profiler_record first = finished()["p:x"];
    EXPECT_EQ(first.real, 900);
    leave("x", 4000, kOther);  // with 1000
    leave("x", 8000);          // with 1300
    const profiler_record sum = finished()["p:x"];
    EXPECT_EQ(sum.real, 900 + 3000 + 6700);
    EXPECT_EQ(sum.count, 3);
    EXPECT_TRUE(sum.thread == kOne && sum.id == first.id) << "those of the first finished";
    EXPECT_EQ(finished().size(), 1u);
    EXPECT_EQ(skiplist_count(gPending), 42);
    EXPECT_EQ(logged(), lines());
    gID = INT32_MAX - 1;  // the last one: ids never reach the key's
    for (int i = 0; i < 3; ++i)
        enter("x", 10, kOther);
    EXPECT_EQ(gID, 2);
    for (int i = 0; i < 3; ++i)
        leave("x", 20, kOther);
    EXPECT_EQ(finished()["p:x"].count, 6);
}

TEST_F(profiler_test, ThePadGrowsWithTheNamesAndOnlyWithThem) {
    for (const auto &[names, room] : {std::pair{1023, 1024u}, {1024, 1536u}, {1535, 1536u}, {1536, 2304u}}) {
        for (int i = gFinished != nullptr ? skiplist_count(gFinished) : 0; i < names; ++i)
            measure(std::to_string(i), i, i);
        EXPECT_EQ(gNumInPad, room);
        measure("0", 1, 1);
        EXPECT_EQ(gNumInPad, room);
        EXPECT_EQ(load_pad(), static_cast<uint32_t>(names));
    }
    gNumInPad = 3;  // whatever the list holds
    EXPECT_EQ(load_pad(), 3u);
    gNumInPad = 2304;
}

// The failures of a start, by the call that fails: what is told, and whether a finish finds a record.
TEST_F(profiler_test, AFailedStartTellsAndIsTriedAgain) {
    const std::string initializing = "initializing profiler\n";
    const struct {
        unsigned kind;
        int32_t call;
        lines told, journal;
        bool pending;
    } cases[] = {
        {kHeap, 1, {}, {}, false},
        {kThreadInfo, 1, {"profiler couldn't get thread info for tid 11\n"}, {}, false},
        {kHeap, 2, {initializing}, {"debug_enter \"profiler couldn't alloc pad space\n\""}, true},
        {kHeap, 3, {initializing, "profiler couldn't create pending list\n"}, {}, false},
        {kHeap, 4, {initializing, "profiler couldn't create finished list\n"}, {}, false},
        {kHeap, 5, {initializing}, {}, false},       // the list's node
        {kThreadInfo, 2, {initializing}, {}, true},  // the second sampling
    };
    for (const auto &[kind, call, told, entered, pending] : cases) {
        SCOPED_TRACE(testing::Message() << kind << ' ' << call);
        fail_call(call, kind);
        enter("x", 100);
        fail_nothing();
        EXPECT_EQ(logged(), told);
        EXPECT_EQ(journal("debug_enter"), entered);
        EXPECT_EQ(load_pad(), 0u) << "without a pad or a list";
        if (gLock != kProfilerNotStarted) {
            EXPECT_EQ(report({"prof_real"}), "");
            leave("x", 200);
            EXPECT_EQ(logged(), pending ? lines() : lines{"profiler couldn't find record to update\n"});
            EXPECT_EQ(sem_count(gLock), 1);
        }
        measure("x", 1, 50);  // the next one puts everything right
        EXPECT_EQ(finished()["p:x"].real, pending ? 150 : 50);
        EXPECT_EQ(report({"prof_func"}), "x");
        uninit_profiler();
        EXPECT_EQ(leftovers(), "");
        clear_log();
        clear_journal();
    }
}

TEST_F(profiler_test, AFinishThatFailsTellsAndKeepsOrDropsTheRecord) {
    enter("x", 100);
    clear_log();
    fail_call(1, kThreadInfo);
    leave("x", 200);
    fail_nothing();
    EXPECT_EQ(logged(), lines{"profiler couldn't get thread info for thread 11\n"});
    EXPECT_EQ(skiplist_count(gPending), 0);
    enter("x", 100);
    fail_call(1, kHeap);  // the node of the finished list
    leave("x", 200);
    fail_nothing();
    EXPECT_EQ(skiplist_count(gPending) + skiplist_count(gFinished), 0);

    // A signal ends the wait at either end.
    enter("x", 300);
    ASSERT_EQ(kern_sem_acquire(gLock), 0);
    for (bool start : {true, false}) {
        background waiter([&] { return start ? (enter("y", 400), 0) : (leave("x", 400), 0); });
        wait_until_blocked("profiler sem");
        EXPECT_EQ(interrupt_waiters("profiler sem"), 1);
        waiter.join();
        EXPECT_EQ(logged(), lines{std::string("profiler couldn't acquire profiler sem in ") +
                                  (start ? "start\n" : "finish\n")});
    }
    EXPECT_EQ(kern_sem_release(gLock), 0);
    leave("x", 500);
    EXPECT_EQ(finished()["p:x"].real, 200) << "the record stayed where it was";

    for (int i = 1; i < 1023; ++i)
        measure(std::to_string(i), 1, 1);
    enter("last", 0);
    fail_call(2, kHeap);  // behind the node: the larger pad
    clear_journal();
    leave("last", 1);
    fail_nothing();
    EXPECT_EQ(journal("debug_enter"), lines{"debug_enter \"profiler couldn't reallocate pad space\n\""});
    EXPECT_EQ(gPad, nullptr);
    EXPECT_EQ(report({"prof_real"}), "");
    measure("x", 1, 1);
    EXPECT_EQ(load_pad(), 1024u);
    EXPECT_EQ(gNumInPad, 1536u);
}

TEST_F(profiler_test, ASemaphoreThatCannotBeHadIsOneOfTwoFailures) {
    const lines tried = {"initializing profiler\n", "profiler couldn't create profiler sem\n"};
    for (int i = 0; i < 2; ++i) {
        clear_journal();
        set_next_sem(kProfilerNotStarted);
        enter("x", 1);
        EXPECT_EQ(logged(), tried);
        EXPECT_EQ(journal("debug_add_command").size(), 3u) << "each time";
    }
    EXPECT_EQ(report({"prof_kern"}), "") << "the command is there, the lists are not";
    uninit_profiler();
    EXPECT_EQ(leftovers(), "") << "no command either";
    set_next_sem(test_kernel::kRefused);
    const std::string refused = "profiler couldn't acquire profiler sem in start\n";
    for (const lines &told : {lines{"initializing profiler\n", refused}, {refused}}) {
        enter("x", 1);
        EXPECT_EQ(logged(), told);
    }
    EXPECT_EQ(gLock, kRefused);
}

TEST_F(profiler_test, OneOfTwoFirstStartsWins) {
    for (bool second_fails : {false, true}) {
        stopping_point window("sem_create", "profiler sem");  // the first has seen that nobody has started
        background loser([&] { return enter("x", 100, kOther), 0; });
        window.wait();
        enter("x", 100);
        const int32_t winner = gLock;
        if (second_fails) set_next_sem(-7);
        window.go_on();
        loser.join();
        EXPECT_EQ(gLock, winner);
        EXPECT_EQ(journal("sem_delete").size(), second_fails ? 0u : 1u);
        EXPECT_EQ(journal("debug_add_command").size(), 3u);
        EXPECT_EQ(skiplist_count(gPending), 2);
        leave("x", 150);
        uninit_profiler();  // with the other's record pending
        EXPECT_EQ(leftovers(), "");
        clear_journal();
    }
}

TEST_F(profiler_test, ReportsSortAllAndPrintAsManyAsAsked) {
    // a to j: kernel times go up, real times down.
    for (int i = 0; i < 10; ++i)
        measure(std::string(1, static_cast<char>('a' + i)), 100 + i, 1000 - i);
    EXPECT_EQ(report({"prof_kern"}), "jihgfedcba");
    EXPECT_EQ(report({"prof_kern", "3"}), "jih");
    for (const std::string all : {"99", "10", "-1", "4294967296"})
        EXPECT_EQ(report({"prof_real", all}), "abcdefghij") << all;
    EXPECT_EQ(report({"prof_real", "0"}) + report({"prof_real", "x"}), "");
    EXPECT_EQ(report({"prof_func", "9"}), "abcdefghi");
    EXPECT_EQ(report({"prof_kern"}), "jihgfedcba") << "the list is as it was";

    EXPECT_EQ(debug({"prof_kern", "1"}), 0);
    EXPECT_EQ(take_debug_output(), "Function: p:j\nkernel: 109; real 991; last thread: 11\n\n");

    profiler_record a = {}, b = {};
    constexpr int64_t kTurn = int64_t{1} << 31;  // where the sign of the difference turns over
    for (const auto &[difference, sign] : {std::pair(2 * kTurn, 0), {kTurn + 1, -1}, {kTurn - 1, 1}}) {
        b.real = b.kernel = difference;
        EXPECT_TRUE(std::clamp(real_cmp(&a, &b), -1, 1) == sign &&
                    std::clamp(kernel_cmp(&a, &b), -1, 1) == sign);
    }
}

}  // namespace
