// SPDX-License-Identifier: MIT

#include "roster/family_cache.h"

#include <zarn/status.h>

#include "platform/skiplist.h"
#include "tests/roster/roster_fixture.h"

namespace {

constexpr uint32_t kFamily = 26;  // "1a"

// "1 2 -1 delta gamma": type, key1, key2 and the modules.
int32_t describe_stack(void *item, void *argument) {
    const auto *stack = static_cast<const stack_cache *>(item);
    EXPECT_FALSE(stack->loaded);
    EXPECT_EQ(stack->modules, nullptr);
    std::string line =
        std::to_string(stack->type) + ' ' + std::to_string(stack->key1) + ' ' + std::to_string(stack->key2);
    for (int32_t i = 0; i < stack->module_count; ++i)
        line += std::string(" ") + stack->module_names[i];
    static_cast<lines *>(argument)->push_back(line);
    return 0;
}

lines stacks_of(const family_cache *cache) {
    lines result;
    skiplist_for_each(cache->stacks, describe_stack, &result);
    return result;
}

std::string parse_failure(const std::string &stack, const std::string &status) {
    return "zarn_util: parse_line(): failed to cache protocol stack 1a " + stack + " (" + status + ")\n";
}

std::string closing_line(const std::string &status) {
    return "zarn_util: cache_family(): failed to cache 'domains' for family 1a (" + status + ")\n";
}

// What is logged of an entry, from its short form "in 0 is messed up": with the stack that was tried, if it
// came so far, behind a colon.
lines text_of(const lines &complaints) {
    lines result;
    for (const std::string &each : complaints) {
        const size_t blank = each.find(' '), colon = each.find(':');
        const bool duplicate = each.find("duplicate") != std::string::npos;
        if (colon != std::string::npos)
            result.push_back(parse_failure(each.substr(colon + 2), duplicate ? "80007025" : "80000005"));
        result.push_back("zarn_util: malformed '" + each.substr(0, blank) + "' section in family 1a - entry" +
                         each.substr(blank, colon - blank) + "\n");
    }
    return result;
}

using family_cache_test = roster_test;

struct reading {
    const char *settings;  // of the family's section
    lines stacks;
    lines complaints;
};

const reading kReadings[] = {
    {"in {; 6 alpha; 17 beta; }; out {; 1 {; 6 alpha gamma; 17 beta gamma; }; 2 {; -1 delta gamma; }; };"
     "dl {; 800 {; 0 epsilon; }; 806 {; 0; }; }",
     {"0 0 6 alpha", "0 0 17 beta", "1 1 6 alpha gamma", "1 1 17 beta gamma", "1 2 -1 delta gamma",
      "2 2048 0 epsilon", "2 2054 0"},
     {}},
    {"In {; 6 alpha; }; mid {; 7 x; }; dl2", {}, {}},
    {"in {; 1 a b; 2; 3 c; }; out {; 1 {; 4; 5 d; }; }; dl {; 1 {; 6; 7 e f; }; }",
     {"0 0 3 c", "1 1 5 d", "2 1 6", "2 1 7 e f"},
     {"in 0 is messed up: 0 0 1", "in 1 is messed up: 0 0 2", "out 0 is messed up: 1 1 4"}},
    {"in {; 010 a; }; out {; 10 {; 10 a; }; 0x10 {; 1 a; }; }; dl {; 10 {; 10 a; }; 0x11 {; 1 a; }; fF {; 2 "
     "a; }; }",
     {"0 0 10 a", "1 10 10 a", "2 16 10 a", "2 17 1 a", "2 255 2 a"},
     {"out 1 is messed up"}},
    {"in {; -7 a; 0 b; \" +8\" c; }; out {; -1 {; 1 a; }; 0 {; 0 a; }; -0 {; 5 a; }; }; dl {; -1 {; 1 a; }; "
     "0 {; -2 a; }; }",
     {"0 0 -7 a", "0 0 0 b", "0 0 8 c", "1 0 0 a", "1 0 5 a", "2 0 -2 a"},
     {"out 0 is messed up", "dl 0 is messed up"}},
    {"in {; \"\" a; six b; 12x c; \"6 \" d; 0x6 e; }; out {; \"\" {; 1 a; }; x {; 1 a; }; 1 {; y a; }; 1g {; "
     "1 a; }; };"
     "dl {; g {; 1 a; }; \" \" {; 1 a; }; }",
     {},
     {"in 0 is messed up: 0 0 0", "in 1 is messed up: 0 0 0", "in 2 is messed up: 0 0 12",
      "in 3 is messed up: 0 0 6", "in 4 is messed up: 0 0 0", "out 0 is messed up", "out 1 is messed up",
      "out 2 is messed up: 1 1 0", "out 3 is messed up", "dl 0 is messed up", "dl 1 is messed up"}},
    {"in {; 4294967295 a; -4294967297 b; }; out {; 4294967295 {; 1 a; }; -4294967295 {; 1 a; }; };"
     "dl {; ffffffffff {; 99999999999 a; }; }",
     {"0 0 2147483647 a", "0 0 -2147483648 b", "1 2147483647 1 a", "2 2147483647 2147483647 a"},
     {"out 1 is messed up"}},
    {"in {; 5 a; 6 b; 6 c; 6 d; }",
     {"0 0 5 a", "0 0 6 b"},
     {"in 2 is a duplicate: 0 0 6", "in 3 is a duplicate: 0 0 6"}},
    {"in {; 6 a; -1 b; }", {"0 0 6 a"}, {"in 1 is a duplicate: 0 0 -1"}},
    {"in {; -1 a; 6 b; }", {"0 0 -1 a"}, {"in 1 is a duplicate: 0 0 6"}},
    {"out {; 1 {; 6 a; }; 1 {; 7 b; 6 c; }; }", {"1 1 6 a", "1 1 7 b"}, {"out 1 is a duplicate: 1 1 6"}},
    {"out {; 1 {; 1 a; }; 2 {; 1 a; }; 3 {; 1 a; 2 a; x a; 3 a; }; }",
     {"1 1 1 a", "1 2 1 a", "1 3 1 a", "1 3 2 a", "1 3 3 a"},
     {"out 2 is messed up: 1 3 0"}},
};

TEST_F(family_cache_test, reads_every_section_in_its_own_base_and_drops_bad_entries_alone) {
    for (const reading &each : kReadings) {
        SCOPED_TRACE(each.settings);
        provide_domains(std::string("1a {;") + each.settings + ";}");
        family_cache *cache = nullptr;
        ASSERT_EQ(cache_family(kFamily, &cache), 0);
        EXPECT_EQ(take_log(), text_of(each.complaints));
        EXPECT_EQ(stacks_of(cache), each.stacks);
        EXPECT_EQ(cache->ref_count, 0);
        EXPECT_EQ(skiplist_search(gFamilyCaches, &kFamily), cache);
        skiplist_delete(gFamilyCaches, &kFamily);
        EXPECT_EQ(take_log(), lines{"zarn_util: free_family_cache(): unloading address family 1a\n"});
    }
}

TEST_F(family_cache_test, of_two_sub_sections_only_the_first_is_read_and_its_place_is_logged) {
    provide_domains("1a {; out {; 1 {; 6 a; }; }; out {; 1 {; 7 b; }; }; out; }");
    family_cache *cache;
    ASSERT_EQ(cache_family(kFamily, &cache), 0);
    EXPECT_EQ(stacks_of(cache), lines{"1 1 6 a"});
    lines log = test_kernel::log_lines();
    ASSERT_EQ(log.size(), 3u);
    const size_t start = log[2].find("0x"), end = log[2].find(", dl");
    EXPECT_EQ(log[2].erase(start, end - start),
              "zarn_util: cache_family(1a): found sections - in = (nil), out = , dl = (nil)\n");
    EXPECT_EQ(lines(log.begin(), log.end() - 1), lines(2,
                                                       "zarn_util: discovered duplicate 'out' sub-section in "
                                                       "family 1a's section in zarn.conf - ignoring\n"));
    skiplist_delete(gFamilyCaches, &kFamily);
}

TEST_F(family_cache_test, finds_a_section_by_its_exact_name_in_the_first_domains_only) {
    const struct {
        const char *settings;
        uint32_t family;
        int32_t status;
    } cases[] = {
        {"other; domains {;1 {;};1a {;};1a {; in {; x y; }; };}", 26, 0},
        {"domains {;1A {;};01a {;};0x1a {;};26 {;};}", 26, ERR_NO_FAMILY},
        {"domains {;};domains {;1a {;};};Domains {;1a {;};};1a {;}", 26, ERR_NO_FAMILY},
        {"domains {;0 {;};}", 0, 0},
        {"other", 0, ERR_NO_FAMILY},
        {"domains {;ffffffff {;};}", 0xffffffff, 0},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.settings);
        provide_zarn_conf(each.settings);
        family_cache *cache = nullptr;
        EXPECT_EQ(cache_family(each.family, &cache), each.status);
        EXPECT_EQ(cache != nullptr, each.status == 0);
        EXPECT_EQ(take_log().size(), each.status == 0 ? 0u : 2u);
        if (cache != nullptr) skiplist_delete(gFamilyCaches, &each.family);
        take_log();
    }
}

// Every call that can fail while one entry is read, in the order in which they are made.
TEST_F(family_cache_test, each_failure_gives_its_status_and_lines_and_leaves_nothing) {
    const std::string stack = parse_failure("1 3 -1", "80000000"), entry = parse_failure("1 3 6", "80000000");
    const struct {
        int32_t calls, status;
        lines log;
    } failures[] = {
        {1, -1, {"zarn_util: failed loading zarn.conf", closing_line("ffffffff")}},
        {1,
         ERR_NO_FAMILY,
         {"zarn_util: unable to find address family 1a's section in zarn.conf\n", closing_line("80007015")}},
        {3, ERR_NO_MEMORY, {closing_line("80000000")}},  // the family, its stacks, the names
        {1, ERR_NO_MEMORY, {stack, closing_line("80000000")}},
        {7, ERR_NO_MEMORY, {entry, closing_line("80000000")}},  // its array; two names, once each
        {1, -1, {parse_failure("1 3 6", "ffffffff"), closing_line("ffffffff")}},  // the insert of the stack
        {1, -1, {closing_line("ffffffff")}},                                      // of the family
    };
    provide_domains("1a {; out {; 3 {; 6 alpha beta alpha; }; }; }");
    const int32_t blocks = test_kernel::heap_blocks();
    int32_t call = 1;
    family_cache *cache = nullptr;
    for (const auto &each : failures) {
        for (const int32_t behind = call + each.calls; call < behind; ++call) {
            for (const auto arm : {test_kernel::fail_from, test_kernel::fail_call}) {
                SCOPED_TRACE(call);
                arm(call, test_kernel::kEverything);
                EXPECT_EQ(cache_family(kFamily, &cache), each.status);
                test_kernel::fail_nothing();
                EXPECT_EQ(take_log(), each.log);
                EXPECT_TRUE(cache == nullptr && skiplist_count(gFamilyCaches) == 0);
                EXPECT_EQ(test_kernel::heap_blocks(), blocks);
            }
        }
    }
    test_kernel::fail_call(call);
    ASSERT_EQ(cache_family(kFamily, &cache), 0);
    EXPECT_EQ(test_kernel::refusals(), 0);
    skiplist_delete(gFamilyCaches, &kFamily);
}

}  // namespace
