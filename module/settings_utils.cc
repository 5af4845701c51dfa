// SPDX-License-Identifier: MIT

#include "module/settings_utils.h"

#include "module/read_int32.h"
#include "platform/libc.h"

static void *load_settings(const char *caller) {
    void *settings = kern_settings_load("zarn.conf");
    if (settings == nullptr) kern_log("%s: warning: couldn't load zarn.conf\n", caller);
    return settings;
}

int32_t get_config_int32(const char *key, int32_t default_value) {
    void *settings = load_settings("get_config_int32");
    if (settings == nullptr) return default_value;

    const char *text = kern_settings_string(settings, key, nullptr, nullptr);
    int32_t value;
    if (text == nullptr || !read_int32(text, 10, &value)) value = default_value;
    kern_settings_unload(settings);
    return value;
}

uint8_t get_config_bool(const char *key, uint8_t default_value) {
    void *settings = load_settings("get_config_bool");
    if (settings == nullptr) return default_value;

    const uint8_t value = kern_settings_bool(settings, key, default_value, default_value);
    kern_settings_unload(settings);
    return value;
}

const settings_parameter *find_driver_param(const char *name, const settings_parameter *parameters,
                                            int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const char *candidate = parameters[i].name;
        if (candidate == nullptr || candidate[0] == '\0') return nullptr;
        if (strcmp(candidate, name) == 0) return &parameters[i];
    }
    return nullptr;
}
