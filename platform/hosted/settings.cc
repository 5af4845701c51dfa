// SPDX-License-Identifier: MIT

#include "platform/hosted/settings.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/hosted/internal.h"
#include "platform/hosted/settings_parser.h"

namespace {

struct open_settings {
    hosted::parsed_settings *parsed;
    open_settings *next;
    char path[PATH_MAX];
};

hosted::lock gSettingsLock;
// Under gSettingsLock.
char gRedirectedName[NAME_MAX + 1];
char gRedirectedPath[PATH_MAX];
open_settings *gOpenSettings;

// Changed only while nobody reads settings; the name is null when there is none.
const char *gForcedValue;
settings_parameter gForced = {nullptr, 1, &gForcedValue, 0, nullptr};

// Where `name` lies. False when that is longer than a path can be.
bool find_settings_file(const char *name, char (&path)[PATH_MAX]) {
    char directory[PATH_MAX];
    hosted_settings_directory(directory, sizeof directory);
    hosted::guard held(gSettingsLock);
    const bool redirected = gRedirectedPath[0] != '\0' && strcmp(name, gRedirectedName) == 0;
    const int length = redirected ? snprintf(path, sizeof path, "%s", gRedirectedPath)
                                  : snprintf(path, sizeof path, "%s/%s", directory, name);
    return length >= 0 && length < PATH_MAX;
}

// The bytes of an open file, or null with errno set. `delete[]` gives them back.
char *read_whole(int file, size_t *length) {
    struct stat status;
    if (fstat(file, &status) != 0) return nullptr;
    size_t capacity = status.st_size > 0 ? static_cast<size_t>(status.st_size) + 1 : 4096;
    char *text = new (std::nothrow) char[capacity];
    *length = 0;
    while (text != nullptr) {
        if (*length == capacity) {  // a pipe, or a file that has grown meanwhile
            char *longer = capacity > SIZE_MAX / 2 ? nullptr : new (std::nothrow) char[2 * capacity];
            if (longer != nullptr) memcpy(longer, text, *length);
            delete[] text;
            text = longer;
            capacity *= 2;
            continue;
        }
        const ssize_t got = read(file, text + *length, capacity - *length);
        if (got == 0) return text;
        if (got > 0) {
            *length += static_cast<size_t>(got);
        } else if (errno != EINTR) {
            delete[] text;
            return nullptr;
        }
    }
    errno = ENOMEM;
    return nullptr;
}

// The parsed file, or null with the reason in the log.
hosted::parsed_settings *load_file(const char *path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    size_t length = 0;
    char *text = file < 0 ? nullptr : read_whole(file, &length);
    const int error = errno;
    if (file >= 0) close(file);
    if (text == nullptr) {
        char reason[128];
        kern_log("settings: can't read %s: %s\n", path, strerror_r(error, reason, sizeof reason));
        return nullptr;
    }

    hosted::settings_fault fault;
    hosted::parsed_settings *parsed = hosted::parse_settings(text, length, &fault);
    delete[] text;
    if (parsed == nullptr && fault.line == 0) {
        kern_log("settings: %s: expected %s\n", path, fault.expected);
    } else if (parsed == nullptr) {
        kern_log("settings: %s:%lu:%lu: expected %s\n", path, static_cast<unsigned long>(fault.line),
                 static_cast<unsigned long>(fault.column), fault.expected);
    }
    return parsed;
}

const settings_parameter *find_flat_key(void *handle, const char *key) {
    const settings_tree *tree = kern_settings_tree(handle);
    if (gForced.name != nullptr && key != nullptr && strcmp(gForced.name, key) == 0) return &gForced;
    for (int32_t i = 0; tree != nullptr && key != nullptr && i < tree->parameter_count; ++i) {
        if (strcmp(tree->parameters[i].name, key) == 0) {
            return tree->parameters[i].value_count <= 1 ? &tree->parameters[i] : nullptr;
        }
    }
    return nullptr;
}

}  // namespace

int32_t hosted_set_settings_file(const char *name, const char *path) {
    if (name == nullptr || name[0] == '\0' || strlen(name) >= sizeof gRedirectedName)
        return KERN_ERR_BAD_VALUE;
    if (path != nullptr && (path[0] == '\0' || strlen(path) >= sizeof gRedirectedPath))
        return KERN_ERR_BAD_VALUE;
    hosted::guard held(gSettingsLock);
    strcpy(gRedirectedName, name);
    strcpy(gRedirectedPath, path == nullptr ? "" : path);
    return 0;
}

void hosted_force_setting(const char *key, const char *value) {
    gForced.name = key;
    gForcedValue = value;
}

int32_t hosted_count_settings() {
    hosted::guard held(gSettingsLock);
    int32_t count = 0;
    for (const open_settings *settings = gOpenSettings; settings != nullptr; settings = settings->next)
        ++count;
    return count;
}

void *kern_settings_load(const char *name) {
    if (name == nullptr || name[0] == '\0') return nullptr;
    auto *settings = new (std::nothrow) open_settings;
    if (settings == nullptr) {
        kern_log("settings: %s: expected more memory\n", name);
        return nullptr;
    }
    if (!find_settings_file(name, settings->path)) {
        kern_log("settings: %s: its path is too long\n", name);
    } else if ((settings->parsed = load_file(settings->path)) != nullptr) {
        hosted::guard held(gSettingsLock);
        settings->next = gOpenSettings;
        gOpenSettings = settings;
        return settings;
    }
    delete settings;
    return nullptr;
}

int32_t kern_settings_unload(void *handle) {
    auto *settings = static_cast<open_settings *>(handle);
    {
        hosted::guard held(gSettingsLock);
        open_settings **link = &gOpenSettings;
        while (*link != nullptr && *link != settings)
            link = &(*link)->next;
        if (*link == nullptr) {
            settings = nullptr;
        } else {
            *link = settings->next;
        }
    }
    if (settings == nullptr) {
        hosted::complain("settings: unload: %p is not loaded", handle);
        return KERN_ERR_BAD_VALUE;
    }
    hosted::delete_parsed_settings(settings->parsed);
    delete settings;
    return 0;
}

const char *kern_settings_string(void *handle, const char *key, const char *if_unknown,
                                 const char *if_no_value) {
    const settings_parameter *parameter = find_flat_key(handle, key);
    if (parameter == nullptr) return if_unknown;
    return parameter->value_count == 0 ? if_no_value : parameter->values[0];
}

uint8_t kern_settings_bool(void *handle, const char *key, uint8_t if_unknown, uint8_t if_no_value) {
    static constexpr struct {
        const char *word;
        uint8_t value;
    } kWords[] = {{"true", 1},  {"yes", 1}, {"on", 1},  {"enable", 1},  {"enabled", 1},  {"1", 1},
                  {"false", 0}, {"no", 0},  {"off", 0}, {"disable", 0}, {"disabled", 0}, {"0", 0}};
    const settings_parameter *parameter = find_flat_key(handle, key);
    if (parameter == nullptr) return if_unknown;
    if (parameter->value_count == 0) return if_no_value;
    for (const auto &known : kWords) {
        if (strcasecmp(parameter->values[0], known.word) == 0) return known.value;
    }
    kern_log("settings: %s: the value '%s' of %s is neither true nor false\n",
             static_cast<open_settings *>(handle)->path, parameter->values[0], key);
    return if_unknown;
}

const settings_tree *kern_settings_tree(void *handle) {
    return handle == nullptr ? nullptr : &static_cast<open_settings *>(handle)->parsed->tree;
}
