// SPDX-License-Identifier: MIT

#include "module/settings_utils.h"

#include "tests/support/fixture.h"

namespace {

using settings_utils_test = kernel_test;

TEST_F(settings_utils_test, a_number_has_to_fill_its_text) {
    const struct {
        const char *text;
        int32_t value;
    } cases[] = {
        {"42", 42},
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
        {"99999999999999999999", INT32_MAX},
    };
    for (const auto &each : cases) {
        test_kernel::provide_settings("zarn.conf", std::string("other 3\nkey ") + each.text);
        EXPECT_EQ(get_config_int32("key", -99), each.value) << '"' << each.text << '"';
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
    const settings_parameter parameters[] = {
        {"one", 0, nullptr, 0, nullptr}, {"two", 1, nullptr, 0, nullptr},  {"two", 2, nullptr, 0, nullptr},
        {"", 0, nullptr, 0, nullptr},    {"last", 0, nullptr, 0, nullptr}, {nullptr, 0, nullptr, 0, nullptr}};
    EXPECT_EQ(find_driver_param("two", parameters, 2), &parameters[1]);
    EXPECT_EQ(find_driver_param("two", parameters, 6), &parameters[1]);
    EXPECT_EQ(find_driver_param("two", parameters, 1), nullptr);
    EXPECT_EQ(find_driver_param("two", parameters + 2, 1), &parameters[2]);
    EXPECT_EQ(find_driver_param("last", parameters, 6), nullptr);
    EXPECT_EQ(find_driver_param("last", parameters + 4, 1), &parameters[4]);
    EXPECT_EQ(find_driver_param("x", parameters + 4, 9), nullptr);
    EXPECT_EQ(find_driver_param("", parameters, 6), nullptr);
    for (int32_t count : {0, -1})
        EXPECT_EQ(find_driver_param("one", parameters, count), nullptr);
}

}  // namespace
