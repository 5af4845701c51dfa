// SPDX-License-Identifier: MIT
//
// Protocol modules that write down what happens to them, settings in one line, and the roster started and
// stopped around each test.

#ifndef ZARN_TESTS_ROSTER_ROSTER_FIXTURE_H
#define ZARN_TESTS_ROSTER_ROSTER_FIXTURE_H

#include <zarn/module.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "roster/zarn_roster.h"
#include "tests/support/fixture.h"

using lines = std::vector<std::string>;

// Settings with a line for each part between semicolons: "in {; 6 alpha; }".
inline void provide_zarn_conf(std::string text) {
    std::replace(text.begin(), text.end(), ';', '\n');
    test_kernel::provide_settings("zarn.conf", text);
}

inline void provide_domains(const std::string &text) {
    provide_zarn_conf("domains {;" + text + ";}");
}

// What the protocols have been told, and what they do.
class protocols {
 public:
    static inline std::string refusing;  // the one whose init fails
    static inline int32_t nodes;         // that stand

    // Provides modules under "network/" and these names.
    static void provide(const lines &names) {
        for (const std::string &name : names) {
            entry &made = all_.emplace_back();
            made.path = ("network/" + name).substr(0, 127);
            made.record = {{made.path.c_str(), 0, nullptr}, init, uninit};
            test_kernel::provide_module(made.path, &made.record);
        }
    }

    static std::string name_of(const void *table) {
        return std::string(static_cast<const module_head *>(table)->name).substr(8);
    }

    // "init gamma", "init beta refused", "uninit gamma", "uninit gamma 7" where the node's data was set to 7.
    static lines take_trace() { return std::exchange(trace_, {}); }

    static void reset() {
        EXPECT_EQ(std::exchange(nodes, 0), 0) << "protocols that were not told of their end";
        take_trace();
        all_.clear();
        refusing.clear();
    }

 private:
    struct entry {
        protocol_module record;
        std::string path;
    };

    static int32_t init(proto_node *node) {
        EXPECT_EQ(node->endpoint->protocols, node->next);
        EXPECT_EQ(node->endpoint->top_module, nullptr);
        EXPECT_EQ(node->data, 0u);
        node->data = 1;
        const bool refuses = name_of(node->module) == refusing;
        trace_.push_back("init " + name_of(node->module) + (refuses ? " refused" : ""));
        nodes += !refuses;
        return refuses ? -1 : 0;
    }

    static int32_t uninit(proto_node *node) {
        --nodes;
        trace_.push_back("uninit " + name_of(node->module) +
                         (node->data != 1 ? " " + std::to_string(node->data) : ""));
        return -1;  // means nothing
    }

    static inline std::deque<entry> all_;
    static inline lines trace_;
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
        lines result = test_kernel::log_lines();
        std::erase_if(result, [](auto &line) { return line.find("found sections") != std::string::npos; });
        test_kernel::clear_log();
        return result;
    }
};

#endif
