// SPDX-License-Identifier: MIT
//
// What an installation has for the people who write protocol modules: a module is built with nothing but installed files
// and runs by a line in zarn.conf.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "tests/host/program.h"

namespace {

const char *const kWidth = sizeof(void *) == 4 ? "-m32" : "-m64";

// Runs a shell command. What it said goes to `output`.
int run(const std::string &command, std::string *output) {
    const std::string file = scratch_directory() + "/said";
    const int status = system(("{ " + command + "\n} >" + file + " 2>&1").c_str());
    *output = read_file(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One installation for all tests, which is moved away from where it was put: nothing in it may know its place.
const std::string &installation() {
    static const std::string place = [] {
        const std::string first = scratch_directory() + "/first", moved = scratch_directory() + "/moved";
        std::string said;
        EXPECT_EQ(run("cmake --install " ZARN_BUILD_DIR " --prefix " + first, &said), 0) << said;
        std::filesystem::rename(first, moved);
        std::filesystem::create_directory(scratch_directory() + "/work");
        std::filesystem::copy(ZARN_SOURCE_DIR "/examples/out-of-tree", scratch_directory() + "/work");
        return moved;
    }();
    return place;
}

// Loads the module by its line in zarn.conf, with an endpoint on top of it.
void expect_to_run(const std::string &zarn) {
    const std::string conf = scratch_directory() + "/hello.conf";
    write_file(conf, "domains { 2 { in { 253 hello }; out { 9 { 253 hello ipv4 } } } }\n");
    std::string said;
    EXPECT_EQ(run(zarn + " conf --load " + conf, &said), 0) << said;
    for (const char *line : {"hello: an endpoint of family 2\n", "hello: goodbye after 0 bytes\n",
                             "load family 2, out 9 253: good\n", "load family 2, in 253: good\n"})
        EXPECT_NE(said.find(line), std::string::npos) << line << "is not in\n" << said;
}

TEST(install, builds_a_module_with_one_compiler_line_and_runs_it) {
    const std::string zarn = installation() + "/bin/zarn";
    const std::string module = installation() + "/lib/zarn/modules/network/hello.so";
    std::string said;
    std::string command = "cd " + scratch_directory() + "/work && export PKG_CONFIG_PATH=" + installation();
    command.append("/lib/pkgconfig && cc -Wall -Wextra -Werror -shared -fPIC ").append(kWidth);
    command +=
        " $(pkg-config --cflags zarn) -o $(pkg-config --variable=moduledir zarn)/network/hello.so hello.c";
    ASSERT_EQ(run(command, &said), 0) << said;
    EXPECT_EQ(run(zarn + " check " + module, &said), 0) << said;
    expect_to_run(zarn);
    std::filesystem::remove(module);
    EXPECT_EQ(run(zarn + " conf --load " + scratch_directory() + "/hello.conf", &said), 3) << said;
    EXPECT_NE(said.find("load family 2, out 9 253: failed (ffffffff)\n"), std::string::npos) << said;
}

TEST(install, builds_a_module_with_the_cmake_package) {
    std::string command = "cd " + scratch_directory() + "/work && CFLAGS=";
    command.append(kWidth).append(" cmake -G Ninja -B build -DCMAKE_PREFIX_PATH=").append(installation());
    command.append(" && cmake --build build && cmake --install build");
    std::string said;
    ASSERT_EQ(run(command, &said), 0) << said;
    expect_to_run(installation() + "/bin/zarn");
}

TEST(install, comes_with_settings_that_load_and_keeps_those_of_its_user) {
    std::string said;
    EXPECT_EQ(run(installation() + "/bin/zarn conf --load", &said), 0) << said;
    EXPECT_NE(said.find(installation() + "/etc/zarn.conf: good\n"), std::string::npos) << said;

    write_file(installation() + "/etc/zarn.conf", "mine 1\n");
    EXPECT_EQ(run("cmake --install " ZARN_BUILD_DIR " --prefix " + installation(), &said), 0) << said;
    EXPECT_EQ(read_file(installation() + "/etc/zarn.conf"), "mine 1\n");
}

}  // namespace
