// SPDX-License-Identifier: MIT
//
// Protocol modules that write down what happens to them, settings in one line, and the roster started and
// stopped around each test.

#ifndef ZARN_TESTS_ROSTER_ROSTER_FIXTURE_H
#define ZARN_TESTS_ROSTER_ROSTER_FIXTURE_H

#include <zarn/module.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "roster/zarn_roster.h"
#include "tests/support/fixture.h"

using lines = std::vector<std::string>;

// The statuses as the log prints them: eight digits on both widths.
#define NO_MEMORY_TEXT "80000000"
#define BAD_VALUE_TEXT "80000005"
#define NO_FAMILY_TEXT "80007015"
#define DUPLICATE_TEXT "80007025"

// `text` with a line for each part between semicolons: "in {; 6 alpha; }".
inline std::string settings_lines(std::string text) {
    std::replace(text.begin(), text.end(), ';', '\n');
    return text;
}

// Makes `text` the contents of `domains`.
inline void provide_domains(const std::string &text) {
    test_kernel::provide_settings("zarn.conf", settings_lines("domains {;" + text + ";}"));
}

// What the protocols have been told, and what they do.
class protocols {
 public:
    static inline std::string refusing;  // the one whose init fails
    static inline bool tracing = true;
    static inline bool watch_data = false;  // "uninit alpha 20": with the node's data

    // Provides modules under "network/" and these names.
    static void provide(const lines &names) {
        for (const std::string &name : names) {
            entry &made = all_.emplace_back();
            made.path = ("network/" + name).substr(0, 127);
            made.record = {{made.path.c_str(), 0, nullptr}, init, uninit};
            test_kernel::provide_module(made.path, &made.record);
        }
    }

    static const void *record(const std::string &name) {
        for (const entry &each : all_)
            if (each.path == "network/" + name) return &each.record;
        return nullptr;
    }

    static std::string name_of(const void *table) {
        return std::string(static_cast<const module_head *>(table)->name).substr(8);
    }

    // "init gamma", "init beta refused", "uninit gamma", since the last call.
    static lines take_trace() {
        std::lock_guard held(mutex_);
        return std::exchange(trace_, {});
    }

    static int32_t nodes() { return __atomic_load_n(&nodes_, __ATOMIC_SEQ_CST); }

    static void reset() {
        take_trace();
        all_.clear();
        refusing.clear();
        tracing = true;
        watch_data = false;
        EXPECT_EQ(nodes(), 0) << "protocols that were not told of their end";
        nodes_ = 0;
    }

 private:
    struct entry {
        protocol_module record;
        std::string path;
    };

    static void note(const std::string &line) {
        std::lock_guard held(mutex_);
        if (tracing) trace_.push_back(line);
    }

    static int32_t init(proto_node *node) {
        std::string line = std::string("init ").append(name_of(node->module));
        EXPECT_EQ(node->endpoint->protocols, node->next);
        EXPECT_EQ(node->endpoint->top_module, nullptr);
        EXPECT_EQ(node->data, 0u);
        node->data = 1;
        if (name_of(node->module) == refusing) {
            note(line + " refused");
            return -1;
        }
        __atomic_add_fetch(&nodes_, 1, __ATOMIC_SEQ_CST);
        note(line);
        return 0;
    }

    static int32_t uninit(proto_node *node) {
        __atomic_sub_fetch(&nodes_, 1, __ATOMIC_SEQ_CST);
        std::string line = std::string("uninit ").append(name_of(node->module));
        if (watch_data) line.append(" ").append(std::to_string(node->data));
        note(line);
        return -1;  // means nothing
    }

    static inline std::deque<entry> all_;
    static inline std::mutex mutex_;
    static inline lines trace_;
    static inline int32_t nodes_ = 0;
};

class roster_test : public module_test {
 protected:
    void SetUp() override {
        module_test::SetUp();
        ASSERT_EQ(init_roster(), 0);
        test_kernel::clear_journal();
    }

    void TearDown() override {
        test_kernel::fail_nothing();
        EXPECT_EQ(uninit_roster(), 0);
        protocols::reset();
        module_test::TearDown();
    }

    // What has been logged since the last call, without the line that gives addresses.
    static lines take_log() {
        lines result;
        for (const std::string &line : test_kernel::log_lines())
            if (line.find("found sections") == std::string::npos) result.push_back(line);
        test_kernel::clear_log();
        return result;
    }
};

#endif
