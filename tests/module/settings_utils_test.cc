// SPDX-License-Identifier: MIT

#include "module/settings_utils.h"

#include "tests/support/fixture.h"

namespace {

using settings_utils_test = kernel_test;

TEST_F(settings_utils_test, a_number_has_to_fill_its_text) {
    const std::pair<const char *, int32_t> cases[] = {{"42", 42},
                                                      {"-7", -7},
                                                      {"0", 0},
                                                      {"010", 10},
                                                      {"\" +5\"", 5},
                                                      {"12x", -99},
                                                      {"x", -99},
                                                      {"0x10", -99},
                                                      {"\"\"", -99},
                                                      {"\"1 \"", -99},
                                                      {"", -99},
                                                      {"-", -99},
                                                      {"1 2", 1},
                                                      {"2147483647", INT32_MAX},
                                                      {"2147483648", INT32_MAX},
                                                      {"-2147483649", INT32_MIN},
                                                      {"99999999999999999999", INT32_MAX}};
    for (const auto &[text, value] : cases) {
        test_kernel::provide_settings("zarn.conf", std::string("other 3\nkey ") + text);
        EXPECT_EQ(get_config_int32("key", -99), value) << '"' << text << '"';
    }
    EXPECT_EQ(get_config_int32("missing", 5), 5);
    EXPECT_EQ(test_kernel::log_lines().size(), 0u);
}

TEST_F(settings_utils_test, a_boolean_keeps_the_default_only_without_a_value) {
    test_kernel::provide_settings("zarn.conf", "on_key true\noff_key false\nempty");
    for (uint8_t fallback : {0, 1}) {
        EXPECT_EQ(get_config_bool("on_key", fallback), 1);
        EXPECT_EQ(get_config_bool("off_key", fallback), 0);
        EXPECT_EQ(get_config_bool("empty", fallback), fallback);
        EXPECT_EQ(get_config_bool("missing", fallback), fallback);
    }
    EXPECT_EQ(test_kernel::log_lines().size(), 0u);
}

TEST_F(settings_utils_test, without_the_file_both_warn_and_give_the_default) {
    EXPECT_EQ(get_config_int32("key", 5), 5);
    EXPECT_EQ(get_config_bool("key", 1), 1);
    EXPECT_EQ(test_kernel::log_lines(),
              (std::vector<std::string>{"get_config_int32: warning: couldn't load zarn.conf\n",
                                        "get_config_bool: warning: couldn't load zarn.conf\n"}));
}

TEST_F(settings_utils_test, a_parameter_without_a_name_ends_the_array) {
    settings_parameter parameters[6] = {};
    const char *const names[] = {"one", "two", "two", "", "last", nullptr};
    for (size_t i = 0; i < std::size(parameters); ++i)
        parameters[i].name = names[i];
    const struct {
        const char *name;
        int from, count, found;
    } cases[] = {{"two", 0, 2, 1},   {"two", 0, 6, 1},  {"two", 0, 1, -1}, {"two", 2, 1, 2},
                 {"last", 0, 6, -1}, {"last", 4, 1, 4}, {"x", 4, 9, -1},   {"", 0, 6, -1},
                 {"one", 0, 0, -1},  {"one", 0, -1, -1}};
    for (const auto &each : cases)
        EXPECT_EQ(find_driver_param(each.name, parameters + each.from, each.count),
                  each.found < 0 ? nullptr : &parameters[each.found])
            << each.name << ' ' << each.from << ' ' << each.count;
}

}  // namespace
