// SPDX-License-Identifier: MIT

#include "roster/zarn_roster.h"

#include <zarn/status.h>

#include <thread>

#include "tests/roster/roster_fixture.h"

namespace {

constexpr const char *kDropped = "zarn_util: free_family_cache(): unloading address family 1a\n";

class zarn_roster_test : public roster_test {
 protected:
    void SetUp() override {
        roster_test::SetUp();
        protocols::provide({"alpha", "beta", "gamma", "delta"});
        provide_domains(
            "1a {; in {; 6 alpha; -7 gamma; }; dl {; 800 {; 0 beta; 1; }; };"
            "out {; 1 {; 6 alpha gamma; 17 delta beta gamma; }; 2 {; -1 delta; }; }; }");
    }

    // The modules of a stack, or its status.
    static std::string look_up(int32_t key1, int32_t key2, uint8_t dl = 0, int32_t family = 26) {
        void *nothing = nullptr, **tables = &nothing;
        int32_t count = -77;
        const int32_t status = get_outbound_protos(dl, family, key1, key2, &tables, &count);
        if (status != 0) {
            EXPECT_TRUE(tables == &nothing && count == -77);
            if (status == ERR_NO_STACK) return "no stack";
            return status == ERR_NO_FAMILY ? "no family" : std::to_string(status);
        }
        std::string names;
        for (int32_t i = 0; i < count; ++i)
            names += (i != 0 ? " " : "") + protocols::name_of(tables[i]);
        return names;
    }

    static void release(int references) {
        for (int i = 0; i < references; ++i)
            EXPECT_EQ(release_family_ref(26), 0);
    }

    // "+alpha", "-alpha": what was acquired and released since the last call.
    static std::string take_module_calls() {
        std::string result;
        for (const std::string &call : test_kernel::journal("module_"))
            result += (call[7] == 'a' ? "+" : "-") +
                      call.substr(call.find('/') + 1, call.size() - 2 - call.find('/')) + ' ';
        test_kernel::clear_journal();
        return result;
    }
};

TEST_F(zarn_roster_test, loads_a_stack_once_and_everything_goes_with_the_last_reference) {
    EXPECT_EQ(look_up(1, 6), "alpha gamma");
    EXPECT_EQ(take_log(), lines{"zarn_util: loading stack 1a 1 1 6\n"});
    EXPECT_EQ(take_module_calls(), "+alpha +gamma ");

    const int32_t heap_calls = test_kernel::heap_calls();
    EXPECT_EQ(look_up(1, 6), "alpha gamma");
    EXPECT_EQ(test_kernel::heap_calls(), heap_calls);
    EXPECT_EQ(test_kernel::journal(), lines{});
    EXPECT_EQ(look_up(2, 99), "delta");
    EXPECT_EQ(get_family_ref(26), 0);
    take_module_calls();
    take_log();
    release(3);
    EXPECT_EQ(uninit_roster(), -1);
    EXPECT_EQ(
        take_log(),
        lines{
            "zarn_util: uninit_roster() called with family 26 still loaded (1 references outstanding)!!!\n"});
    EXPECT_EQ(take_module_calls(), "");
    release(1);
    EXPECT_EQ(take_module_calls(), "-alpha -gamma -delta ");
    EXPECT_EQ(release_family_ref(26), -1);
    EXPECT_EQ(get_family_ref(-3), -1);
    EXPECT_EQ(take_log(),
              (lines{kDropped, "zarn_util: release_family_ref(26) called, but family 26 isn't loaded!\n",
                     "zarn_util: get_family_ref(-3) called, but family -3 isn't loaded!\n"}));
}

TEST_F(zarn_roster_test, finds_a_stack_by_section_keys_and_wild_cards) {
    const struct {
        uint8_t dl;
        int32_t key1, key2;
        const char *found;
        const char *loading;
    } cases[] = {
        {0, 1, 17, "delta beta gamma", "1 1 17"}, {0, 2, -5, "delta", "1 2 -1"},
        {1, 0x800, 0, "beta", "2 2048 0"},        {255, 0x800, 1, "", "2 2048 1"},
        {0, 0x800, 0, "no stack", nullptr},       {0, 1, 7, "no stack", nullptr},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(std::to_string(each.key1) + ' ' + std::to_string(each.key2));
        EXPECT_EQ(look_up(each.key1, each.key2, each.dl), each.found);
        lines log = {kDropped};
        if (each.loading != nullptr) {
            log.insert(log.begin(), std::string("zarn_util: loading stack 1a ") + each.loading + "\n");
            release(1);
        }
        EXPECT_EQ(take_log(), log);
    }
    EXPECT_NE(look_up(1, -1), "no stack");
    EXPECT_EQ(look_up(1, 7), "no stack");
    EXPECT_EQ(look_up(1, 6), "alpha gamma") << "a failed lookup has dropped a family that is held";
    release(2);
    EXPECT_EQ(look_up(1, 6, 0, 27), "no family");
}

TEST_F(zarn_roster_test, inbound_tables_go_out_only_while_the_family_is_held) {
    void *table = this;
    void **tables;
    int32_t count;
    EXPECT_EQ(get_inbound_proto(26, 6, nullptr), ERR_BAD_VALUE);
    EXPECT_EQ(get_outbound_protos(0, 26, 1, 6, nullptr, &count), ERR_BAD_VALUE);
    EXPECT_EQ(get_outbound_protos(0, 26, 1, 6, &tables, nullptr), ERR_BAD_VALUE);
    EXPECT_EQ(get_inbound_proto(26, 6, &table), -1);
    EXPECT_EQ(take_log(), (lines{"zarn_util: loading stack 1a 0 0 6\n", kDropped}));
    EXPECT_EQ(take_module_calls(), "+alpha -alpha ");

    EXPECT_EQ(look_up(2, 1), "delta");
    EXPECT_EQ(get_inbound_proto(26, 8, &table), ERR_NO_STACK);
    EXPECT_EQ(table, this);
    EXPECT_EQ(get_inbound_proto(26, -7, &table), 0);
    EXPECT_EQ(protocols::name_of(table), "gamma");
    release(1);
    EXPECT_EQ(take_module_calls(), "+delta +gamma -gamma -delta ");
}

TEST_F(zarn_roster_test, undoes_a_stack_backwards_when_a_module_cannot_be_loaded) {
    test_kernel::withdraw_module("network/gamma");
    EXPECT_EQ(look_up(2, 1), "delta");
    take_log();
    take_module_calls();
    EXPECT_EQ(look_up(1, 17), "-1");
    EXPECT_EQ(take_log(), (lines{"zarn_util: loading stack 1a 1 1 17\n",
                                 "zarn_util: unable to load zarn module network/gamma\n"}));
    EXPECT_EQ(take_module_calls(), "+delta +beta +gamma -beta -delta ");
    protocols::provide({"gamma"});
    EXPECT_EQ(look_up(1, 17), "delta beta gamma");
    release(2);
}

TEST_F(zarn_roster_test, loads_and_releases_long_names_by_the_same_path) {
    for (size_t length : {119, 120}) {
        SCOPED_TRACE(length);
        const std::string name(length, 'n'), path = "network/" + std::string(119, 'n');
        protocols::provide({name});
        provide_domains("2 {; out {; 1 {; 1 " + name + "; }; }; }");
        EXPECT_EQ(look_up(1, 1, 0, 2), name.substr(0, 119));
        EXPECT_EQ(test_kernel::module_references(path), 1);
        EXPECT_EQ(release_family_ref(2), 0);
        EXPECT_EQ(test_kernel::module_references(path), 0);
    }
}

TEST_F(zarn_roster_test, whoever_waits_for_a_roster_that_stops_gets_an_error) {
    test_kernel::stopping_point stop("sem_delete", "module roster");
    std::thread stopper([] { EXPECT_EQ(uninit_roster(), 0); });
    stop.wait();
    std::thread late([] {
        void *table;
        EXPECT_EQ(get_inbound_proto(26, 6, &table), -1);
    });
    test_kernel::wait_until_blocked("module roster");
    stop.go_on();
    stopper.join();
    late.join();
    EXPECT_EQ(look_up(1, 6), "-1");
    EXPECT_EQ(get_family_ref(26), -1);
    EXPECT_EQ(release_family_ref(26), -1);
    EXPECT_EQ(uninit_roster(), -1);
    EXPECT_EQ(take_log(), lines{});
    ASSERT_EQ(init_roster(), 0);
}

using roster_start_test = module_test;

TEST_F(roster_start_test, a_failed_start_says_what_failed_and_leaves_nothing) {
    const int32_t blocks = test_kernel::heap_blocks();
    for (int32_t call : {1, 2}) {
        test_kernel::fail_call(call);
        EXPECT_EQ(init_roster(), -1);
        EXPECT_EQ(test_kernel::heap_blocks(), blocks);
    }
    EXPECT_EQ(test_kernel::log_lines(),
              (lines{"zarn_util: init_roster(): failed to create family cache skiplist\n",
                     "zarn_util: init_roster(): failed to create family cache lock\n"}));
}

}  // namespace
