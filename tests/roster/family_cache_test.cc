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

lines names_of(const family_cache *cache) {
    lines result;
    for (const copied_name *node = cache->names; node != nullptr; node = node->next)
        result.push_back(node->name);
    return result;
}

std::string parse_failure(const char *what, const char *status) {
    return std::string("zarn_util: parse_line(): failed to cache protocol stack 1a ") + what + " (" + status +
           ")\n";
}

std::string malformed(const char *section, int entry, const char *what) {
    return std::string("zarn_util: malformed '") + section + "' section in family 1a - entry " +
           std::to_string(entry) + " is " + what + "\n";
}

std::string closing_line(const char *status) {
    return std::string("zarn_util: cache_family(): failed to cache 'domains' for family 1a (") + status +
           ")\n";
}

using family_cache_test = roster_test;

struct reading {
    const char *what;
    const char *settings;  // of the family's section
    lines stacks;
    lines log;
};

const reading kReadings[] = {
    {"one of everything",
     "in {; 6 alpha; 17 beta; }; out {; 1 {; 6 alpha gamma; 17 beta gamma; }; 2 {; -1 delta gamma; }; };"
     "dl {; 800 {; 0 epsilon; }; 806 {; 0; }; }",
     {"0 0 6 alpha", "0 0 17 beta", "1 1 6 alpha gamma", "1 1 17 beta gamma", "1 2 -1 delta gamma",
      "2 2048 0 epsilon", "2 2054 0"},
     {}},
    {"nothing", "", {}, {}},
    {"sub-sections of other names", "In {; 6 alpha; }; mid {; 7 x; }; dl2", {}, {}},
    {"a second sub-section",
     "out {; 1 {; 6 alpha; }; }; in {; 6 beta; }; out {; 1 {; 7 gamma; }; }; in; out",
     {"0 0 6 beta", "1 1 6 alpha"},
     {"zarn_util: discovered duplicate 'out' sub-section in family 1a's section in zarn.conf - ignoring\n",
      "zarn_util: discovered duplicate 'in' sub-section in family 1a's section in zarn.conf - ignoring\n",
      "zarn_util: discovered duplicate 'out' sub-section in family 1a's section in zarn.conf - ignoring\n"}},
    {"numbers of modules",
     "in {; 1 a b; 2; 3 c; }; out {; 1 {; 4; 5 d; }; }; dl {; 1 {; 6; 7 e f; }; }",
     {"0 0 3 c", "1 1 5 d", "2 1 6", "2 1 7 e f"},
     {parse_failure("0 0 1", BAD_VALUE_TEXT), malformed("in", 0, "messed up"),
      parse_failure("0 0 2", BAD_VALUE_TEXT), malformed("in", 1, "messed up"),
      parse_failure("1 1 4", BAD_VALUE_TEXT), malformed("out", 0, "messed up")}},
    {"bases",
     "in {; 010 a; }; out {; 10 {; 10 a; }; 0x10 {; 1 a; }; }; dl {; 10 {; 10 a; }; 0x11 {; 1 a; }; fF {; 2 "
     "a; }; }",
     {"0 0 10 a", "1 10 10 a", "2 16 10 a", "2 17 1 a", "2 255 2 a"},
     {malformed("out", 1, "messed up")}},
    {"signs, zeros and blanks",
     "in {; -7 a; 0 b; \" +8\" c; }; out {; -1 {; 1 a; }; 0 {; 0 a; }; -0 {; 5 a; }; }; dl {; -1 {; 1 a; }; "
     "0 {; -2 a; }; }",
     {"0 0 -7 a", "0 0 0 b", "0 0 8 c", "1 0 0 a", "1 0 5 a", "2 0 -2 a"},
     {malformed("out", 0, "messed up"), malformed("dl", 0, "messed up")}},
    {"no numbers",
     "in {; \"\" a; six b; 12x c; \"6 \" d; 0x6 e; }; out {; \"\" {; 1 a; }; x {; 1 a; }; 1 {; y a; }; 1g {; "
     "1 a; }; };"
     "dl {; g {; 1 a; }; \" \" {; 1 a; }; }",
     {},
     {parse_failure("0 0 0", BAD_VALUE_TEXT), malformed("in", 0, "messed up"),
      parse_failure("0 0 0", BAD_VALUE_TEXT), malformed("in", 1, "messed up"),
      parse_failure("0 0 12", BAD_VALUE_TEXT), malformed("in", 2, "messed up"),
      parse_failure("0 0 6", BAD_VALUE_TEXT), malformed("in", 3, "messed up"),
      parse_failure("0 0 0", BAD_VALUE_TEXT), malformed("in", 4, "messed up"),
      malformed("out", 0, "messed up"), malformed("out", 1, "messed up"),
      parse_failure("1 1 0", BAD_VALUE_TEXT), malformed("out", 2, "messed up"),
      malformed("out", 3, "messed up"), malformed("dl", 0, "messed up"), malformed("dl", 1, "messed up")}},
    {"numbers beyond 32 bits stop at the limits and are no wild-cards",
     "in {; 4294967295 a; -4294967297 b; }; out {; 4294967295 {; 1 a; }; -4294967295 {; 1 a; }; };"
     "dl {; ffffffffff {; 99999999999 a; }; }",
     {"0 0 2147483647 a", "0 0 -2147483648 b", "1 2147483647 1 a", "2 2147483647 2147483647 a"},
     {malformed("out", 1, "messed up")}},
    {"a key twice",
     "in {; 5 a; 6 b; 6 c; 6 d; }",
     {"0 0 5 a", "0 0 6 b"},
     {parse_failure("0 0 6", DUPLICATE_TEXT), malformed("in", 2, "a duplicate"),
      parse_failure("0 0 6", DUPLICATE_TEXT), malformed("in", 3, "a duplicate")}},
    {"a wild-card behind a key",
     "in {; 6 a; -1 b; }",
     {"0 0 6 a"},
     {parse_failure("0 0 -1", DUPLICATE_TEXT), malformed("in", 1, "a duplicate")}},
    {"a key behind a wild-card",
     "in {; -1 a; 6 b; }",
     {"0 0 -1 a"},
     {parse_failure("0 0 6", DUPLICATE_TEXT), malformed("in", 1, "a duplicate")}},
    {"a key in several groups",
     "in {; 6 a; }; out {; 1 {; 6 a; }; 2 {; 6 a; }; 3 {; -1 a; }; }; dl {; 1 {; 6 a; }; }",
     {"0 0 6 a", "1 1 6 a", "1 2 6 a", "1 3 -1 a", "2 1 6 a"},
     {}},
    {"a group in two places",
     "out {; 1 {; 6 a; }; 1 {; 7 b; 6 c; }; }",
     {"1 1 6 a", "1 1 7 b"},
     {parse_failure("1 1 6", DUPLICATE_TEXT), malformed("out", 1, "a duplicate")}},
    {"entries are numbered on level 4",
     "out {; 1 {; 1 a; }; 2 {; 1 a; }; 3 {; 1 a; 2 a; x a; 3 a; }; }",
     {"1 1 1 a", "1 2 1 a", "1 3 1 a", "1 3 2 a", "1 3 3 a"},
     {parse_failure("1 3 0", BAD_VALUE_TEXT), malformed("out", 2, "messed up")}},
};

TEST_F(family_cache_test, reads_every_section_in_its_own_base_and_drops_bad_entries_alone) {
    for (const reading &each : kReadings) {
        SCOPED_TRACE(each.what);
        provide_domains(std::string("1a {;") + each.settings + ";}");
        family_cache *cache = nullptr;
        ASSERT_EQ(cache_family(kFamily, &cache), 0);
        EXPECT_EQ(take_log(), each.log);
        EXPECT_EQ(stacks_of(cache), each.stacks);
        EXPECT_EQ(cache->ref_count, 0);
        EXPECT_EQ(skiplist_search(gFamilyCaches, &kFamily), cache);
        skiplist_delete(gFamilyCaches, &kFamily);
        EXPECT_EQ(take_log(), lines{"zarn_util: free_family_cache(): unloading address family 1a\n"});
    }
}

TEST_F(family_cache_test, copies_a_module_name_once_for_each_family) {
    provide_domains(
        "1a {; in {; 6 alpha; 6 beta; }; out {; 1 {; 6 alpha gamma; 7 gamma; }; }; }; 1b {; in {; 6 alpha; "
        "}; }");
    const uint32_t other_family = 27;
    family_cache *one, *other;
    ASSERT_EQ(cache_family(kFamily, &one), 0);
    ASSERT_EQ(cache_family(other_family, &other), 0);
    EXPECT_EQ(names_of(one), (lines{"gamma", "beta", "alpha"}));
    EXPECT_EQ(names_of(other), lines{"alpha"});
    skiplist_delete(gFamilyCaches, &kFamily);
    EXPECT_EQ(names_of(other), lines{"alpha"});
    skiplist_delete(gFamilyCaches, &other_family);
}

TEST_F(family_cache_test, logs_where_the_sections_were_found_and_closes_the_settings) {
    provide_domains("1a {; out {;}; }");
    family_cache *cache;
    ASSERT_EQ(cache_family(kFamily, &cache), 0);
    ASSERT_EQ(test_kernel::log_lines().size(), 1u);
    const std::string line = test_kernel::log_lines()[0];
    EXPECT_EQ(line.find("zarn_util: cache_family(1a): found sections - in = (nil), out = 0x"), 0u) << line;
    EXPECT_NE(line.find(", dl = (nil)\n"), std::string::npos) << line;
    EXPECT_EQ(test_kernel::journal("settings").back().find("settings_unload"), 0u);
    skiplist_delete(gFamilyCaches, &kFamily);
}

TEST_F(family_cache_test, finds_a_section_by_its_exact_name_in_the_first_domains_only) {
    const struct {
        const char *settings;
        uint32_t family;
        bool found;
    } cases[] = {
        {"domains {;1a {;};}", 26, true},
        {"other; domains {;1 {;};1a {;};1a {; in {; x y; }; };}", 26, true},
        {"domains {;1A {;};}", 26, false},
        {"domains {;01a {;};0x1a {;};26 {;};}", 26, false},
        {"domains {;};domains {;1a {;};}", 26, false},
        {"Domains {;1a {;};}", 26, false},
        {"1a {;}", 26, false},
        {"domains {;0 {;};}", 0, true},
        {"domains {;ffffffff {;};}", 0xffffffff, true},
        {"domains {;a0b0 {;};}", 0xa0b0, true},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.settings);
        test_kernel::provide_settings("zarn.conf", settings_lines(each.settings));
        family_cache *cache = nullptr;
        EXPECT_EQ(cache_family(each.family, &cache), each.found ? 0 : ERR_NO_FAMILY);
        EXPECT_EQ(cache != nullptr, each.found);
        const lines log = take_log();
        if (each.found) {
            EXPECT_EQ(log, lines{});
            skiplist_delete(gFamilyCaches, &each.family);
            take_log();
        } else {
            EXPECT_EQ(log, (lines{"zarn_util: unable to find address family 1a's section in zarn.conf\n",
                                  closing_line(NO_FAMILY_TEXT)}));
        }
    }
}

// Every call that can fail while one entry is read, in the order in which they are made.
TEST_F(family_cache_test, each_failure_gives_its_status_and_lines_and_leaves_nothing) {
    const struct {
        const char *what;
        int32_t status;
        lines log;
    } failures[] = {
        {"the settings", -1, {"zarn_util: failed loading zarn.conf", closing_line("ffffffff")}},
        {"their tree",
         ERR_NO_FAMILY,
         {"zarn_util: unable to find address family 1a's section in zarn.conf\n",
          closing_line(NO_FAMILY_TEXT)}},
        {"the family", ERR_NO_MEMORY, {closing_line(NO_MEMORY_TEXT)}},
        {"its stacks", ERR_NO_MEMORY, {closing_line(NO_MEMORY_TEXT)}},
        {"the names", ERR_NO_MEMORY, {closing_line(NO_MEMORY_TEXT)}},
        {"a stack", ERR_NO_MEMORY, {parse_failure("1 3 -1", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"its name array",
         ERR_NO_MEMORY,
         {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"a name", ERR_NO_MEMORY, {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"its text", ERR_NO_MEMORY, {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"its insert", ERR_NO_MEMORY, {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"a second name",
         ERR_NO_MEMORY,
         {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"its text", ERR_NO_MEMORY, {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"its insert", ERR_NO_MEMORY, {parse_failure("1 3 6", NO_MEMORY_TEXT), closing_line(NO_MEMORY_TEXT)}},
        {"the insert of the stack", -1, {parse_failure("1 3 6", "ffffffff"), closing_line("ffffffff")}},
        {"the insert of the family", -1, {closing_line("ffffffff")}},
    };
    provide_domains("1a {; out {; 3 {; 6 alpha beta; }; }; }");
    const int32_t blocks = test_kernel::heap_blocks();
    int32_t k = 0;
    for (const auto &each : failures) {
        for (const bool rest_fails : {false, true}) {
            SCOPED_TRACE(each.what);
            family_cache *cache = nullptr;
            (rest_fails ? test_kernel::fail_from : test_kernel::fail_call)(k + 1, test_kernel::kEverything);
            EXPECT_EQ(cache_family(kFamily, &cache), each.status);
            test_kernel::fail_nothing();
            EXPECT_EQ(take_log(), each.log);
            EXPECT_EQ(cache, nullptr);
            EXPECT_EQ(skiplist_count(gFamilyCaches), 0);
            EXPECT_EQ(test_kernel::heap_blocks(), blocks);
        }
        ++k;
    }
    family_cache *cache = nullptr;
    test_kernel::fail_call(k + 1);
    ASSERT_EQ(cache_family(kFamily, &cache), 0);
    EXPECT_EQ(test_kernel::refusals(), 0);
    EXPECT_EQ(stacks_of(cache), lines{"1 3 6 alpha beta"});
    skiplist_delete(gFamilyCaches, &kFamily);
}

TEST_F(family_cache_test, orders_by_the_wrapped_difference) {
    const uint32_t keys[] = {0, 1, 0x7fffffff, 0xfffffff0};
    for (uint32_t a : keys) {
        for (uint32_t b : keys)
            EXPECT_EQ(compare_family_caches(&a, &b), static_cast<int32_t>(a - b)) << a << ' ' << b;
    }
}

TEST_F(family_cache_test, cuts_a_path_at_127_characters) {
    for (size_t length : {size_t{0}, size_t{1}, size_t{118}, size_t{119}, size_t{120}, size_t{300}}) {
        const std::string name(length, 'm');
        EXPECT_EQ(module_path(name.c_str()).text, "network/" + name.substr(0, 119));
    }
}

}  // namespace
