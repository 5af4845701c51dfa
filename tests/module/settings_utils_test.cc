// SPDX-License-Identifier: MIT

#include "module/settings_utils.h"

#include "tests/support/fixture.h"

namespace {

using settings_utils_test = kernel_test;

TEST_F(settings_utils_test, a_number_has_to_fill_its_text) {
    for (const std::string each :
         {"42=42", "-7=-7", "0=0", "010=10", "\" +5\"=5", "12x=-99", "x=-99", "0x10=-99", "\"\"=-99",
          "\"1 \"=-99", "=-99", "-=-99", "1 2=1", "2147483647=2147483647", "2147483648=2147483647",
          "-2147483649=-2147483648", "99999999999999999999=2147483647"}) {
        const size_t end = each.find('=');
        test_kernel::provide_settings("zarn.conf", "other 3\nkey " + each.substr(0, end));
        EXPECT_EQ(std::to_string(get_config_int32("key", -99)), each.substr(end + 1)) << each;
    }
    EXPECT_EQ(get_config_int32("missing", 5), 5);
    EXPECT_EQ(test_kernel::log_lines().size(), 0u);
}

TEST_F(settings_utils_test, a_boolean_keeps_the_default_only_without_a_value) {
    EXPECT_EQ(get_config_int32("key", 5), 5);
    EXPECT_EQ(get_config_bool("key", 1), 1);
    EXPECT_EQ(test_kernel::log_lines(),
              (std::vector<std::string>{"get_config_int32: warning: couldn't load zarn.conf\n",
                                        "get_config_bool: warning: couldn't load zarn.conf\n"}));
    test_kernel::provide_settings("zarn.conf", "on_key true\noff_key false\nempty");
    for (uint8_t fallback : {0, 1}) {
        EXPECT_EQ(get_config_bool("on_key", fallback), 1);
        EXPECT_EQ(get_config_bool("off_key", fallback), 0);
        EXPECT_EQ(get_config_bool("empty", fallback), fallback);
    }
}

TEST_F(settings_utils_test, a_parameter_without_a_name_ends_the_array) {
    settings_parameter parameters[6] = {};
    const char *const names[] = {"one", "two", "two", "", "last", nullptr};
    for (size_t i = 0; i < std::size(parameters); ++i)
        parameters[i].name = names[i];
    const auto find = [&](const char *name, int from, int count) {
        const settings_parameter *found = find_driver_param(name, parameters + from, count);
        return found == nullptr ? -1 : found - parameters;
    };
    EXPECT_EQ(find("two", 0, 6), 1);
    EXPECT_EQ(find("two", 2, 1), 2);
    EXPECT_EQ(find("last", 0, 6), -1);
    EXPECT_EQ(find("x", 4, 9), -1);
    EXPECT_EQ(find("", 0, 6), -1);
    for (int32_t count : {0, -1})
        EXPECT_EQ(find("one", 0, count), -1);
}

}  // namespace
