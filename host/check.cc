// SPDX-License-Identifier: MIT
#include "host/check.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "host/exit_codes.h"
#include "host/module_check.h"

namespace {

constexpr char kUsage[] =
    "usage: zarn check FILE.so...\n\n"
    "Looks at protocol modules without running them: whether each exports its list of records, whether the\n"
    "records have their name and the functions that every protocol must provide, and whether a kernel\n"
    "supplies what the module asks for. Takes modules of both widths.\n\n"
    "Exit status: 0 every module can serve; 1 one can't, or a file can't be read; 2 wrong usage.\n";

// False with errno set.
bool read_whole(const char *path, std::string *bytes) {
    FILE *file = fopen(path, "rb");
    if (file == nullptr) return false;
    char block[65536];
    for (size_t got; (got = fread(block, 1, sizeof block, file)) > 0;)
        bytes->append(block, got);
    const int error = ferror(file) ? errno : 0;
    fclose(file);
    errno = error;
    return error == 0;
}

// Prints the verdict on one file. Returns whether it can serve.
bool check_file(const char *path) {
    std::string bytes;
    if (!read_whole(path, &bytes)) {
        printf("%s: can't be read: %s\n", path, strerror(errno));
        return false;
    }
    const module_verdict verdict =
        check_module(bytes.data(), bytes.size(), std::filesystem::path(path).stem().string());
    std::string text;
    for (const std::string &part : verdict.faults.empty() ? verdict.names : verdict.faults)
        text.append(text.empty() ? "" : verdict.faults.empty() ? ", " : "; ").append(part);
    if (verdict.faults.empty()) text += " for " + verdict.target;
    printf("%s: %s: %s\n", path, verdict.faults.empty() ? "good" : "can't serve", text.c_str());
    return verdict.faults.empty();
}

}  // namespace

int run_check(int argc, char **argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(kUsage, stdout);
        return kExitOk;
    }
    int first = 1;
    if (argc > 1 && strcmp(argv[1], "--") == 0) {
        first = 2;
    } else if (argc > 1 && argv[1][0] == '-') {
        fprintf(stderr, "zarn check: unknown option %s; try 'zarn check --help'\n", argv[1]);
        return kExitUsage;
    }
    if (first >= argc) {
        fputs("zarn check: no file named; try 'zarn check --help'\n", stderr);
        return kExitUsage;
    }
    bool good = true;
    for (int i = first; i < argc; ++i)
        good = check_file(argv[i]) && good;
    return good ? kExitOk : kExitInput;
}
