// SPDX-License-Identifier: MIT
//
// The program `zarn`: what the module does, on real input, in user space.

#include <cstdio>
#include <cstring>

#include "host/attach.h"
#include "host/check.h"
#include "host/conf.h"
#include "host/exit_codes.h"
#include "host/replay.h"

namespace {

struct command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *summary;
};

constexpr command kCommands[] = {
    {"replay", run_replay, "run captured frames through the modules and count what is in them"},
    {"attach", run_attach, "be a host on the network of a TAP device, with what the modules serve"},
    {"conf", run_conf, "check a settings file and print what the modules make of it"},
    {"check", run_check, "look at protocol modules without running them"},
};

void print_usage(FILE *stream) {
    fputs("usage: zarn COMMAND [OPTION]...\n\n", stream);
    for (const command &command : kCommands)
        fprintf(stream, "  %-10s %s\n", command.name, command.summary);
    fputs(
        "\n'zarn COMMAND --help' tells more.\n\n"
        "Exit status: 0 all is well; 1 a problem with an input; 2 wrong usage; 3 a module can't be loaded;\n"
        "4 a module keeps what it has to give back, or does wrong.\n",
        stream);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        print_usage(stderr);
        return kExitUsage;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        print_usage(stdout);
        return kExitOk;
    }
    for (const command &command : kCommands) {
        if (strcmp(argv[1], command.name) == 0) return command.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "zarn: no command '%s'; try 'zarn --help'\n", argv[1]);
    return kExitUsage;
}
