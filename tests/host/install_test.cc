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

// Runs a shell command and gives what it said.
std::string run(const std::string &command, int code = 0) {
    const std::string file = scratch_directory() + "/said";
    const int status = system(("{ " + command + "\n} >" + file + " 2>&1").c_str());
    std::string said = read_file(file);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, code) << command << "\n" << said;
    return said;
}

// One installation for all tests, which is moved away from where it was put: nothing in it may know its place.
const std::string &installation() {
    static const std::string place = [] {
        const std::string first = scratch_directory() + "/first", moved = scratch_directory() + "/moved";
        run("cmake --install " ZARN_BUILD_DIR " --prefix " + first);
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
    const std::string said = run(zarn + " conf --load " + conf);
    for (const char *line : {"hello: an endpoint of family 2\n", "hello: goodbye after 0 bytes\n",
                             "load family 2, out 9 253: good\n", "load family 2, in 253: good\n"})
        EXPECT_NE(said.find(line), std::string::npos) << line << "is not in\n" << said;
}

TEST(install, builds_a_module_with_one_compiler_line_or_the_cmake_package_and_runs_it) {
    const std::string zarn = installation() + "/bin/zarn", work = "cd " + scratch_directory() + "/work && ";
    const std::string module = installation() + "/lib/zarn/modules/network/hello.so";
    run(work + "export PKG_CONFIG_PATH=" + installation() +
        "/lib/pkgconfig && cc -Wall -Wextra -Werror -shared -fPIC " + kWidth +
        " $(pkg-config --cflags zarn) -o $(pkg-config --variable=moduledir zarn)/network/hello.so hello.c");
    run(zarn + " check " + module);
    expect_to_run(zarn);
    std::filesystem::remove(module);
    EXPECT_NE(run(zarn + " conf --load " + scratch_directory() + "/hello.conf", 3)
                  .find("load family 2, out 9 253: failed (ffffffff)\n"),
              std::string::npos);
    run(work + "CFLAGS=" + kWidth + " cmake -G Ninja -B build -DCMAKE_PREFIX_PATH=" + installation() +
        " && cmake --build build && cmake --install build");
    expect_to_run(zarn);
}

// The module of docs/protocol-modules.md, as it stands there and with its last deletion forgotten.
TEST(install, runs_the_module_of_the_document_which_says_what_a_leak_looks_like) {
    const std::string document = read_file(ZARN_SOURCE_DIR "/docs/protocol-modules.md"), start = "\n```c\n";
    const size_t begin = document.find(start) + start.size();
    std::string source = document.substr(begin, document.find("\n```\n", begin) - begin) + "\n";
    const std::string &place = installation(), work = scratch_directory() + "/work";
    const std::string conf = read_file(ZARN_SOURCE_DIR "/examples/zarn.conf");
    write_file(work + "/echo.conf", std::string(conf).replace(conf.find("1 icmp"), 6, "1 echo"));
    const auto replay = [&](int code, const std::string &options = "") {
        write_file(work + "/echo.c", source);
        run(std::string("cc -Wall -Wextra -Werror -shared -fPIC ") + kWidth + " -I" + place + "/include -o " +
            place + "/lib/zarn/modules/network/echo.so " + work + "/echo.c");
        return run("ASAN_OPTIONS=detect_leaks=0 " + place + "/bin/zarn replay --conf " + work +
                       "/echo.conf " + options + ZARN_SOURCE_DIR "/examples/captures/two-links.pcapng",
                   code);
    };
    EXPECT_NE(replay(0).find("echo: 15 requests, 15 replies\n"), std::string::npos);
    const size_t last = source.find("    gUtil->delete_zarn_data(data);");
    source.erase(last, source.find('\n', last) - last);
    const std::string said = replay(4);
    for (const char *pool : {"small pool", "medium pool"}) {
        const std::string line = std::string("zarn: 30 blocks of the ") + pool + " were not given back\n";
        EXPECT_NE(document.find(line), std::string::npos);
        EXPECT_NE(said.find(line), std::string::npos) << said;
    }
    // More than there are.
    const std::string stalled = replay(4, "--repeat 10 ");
    for (const char *part : {"two-links.pcapng: frame ", "the modules have all the memory for frames",
                             "zarn: 192 frames were not given back\n"})
        EXPECT_NE(stalled.find(part), std::string::npos) << stalled;
}

TEST(install, comes_with_settings_that_load_and_keeps_those_of_its_user) {
    EXPECT_NE(run(installation() + "/bin/zarn conf --load").find(installation() + "/etc/zarn.conf: good\n"),
              std::string::npos);
    write_file(installation() + "/etc/zarn.conf", "mine 1\n");
    run("cmake --install " ZARN_BUILD_DIR " --prefix " + installation());
    EXPECT_EQ(read_file(installation() + "/etc/zarn.conf"), "mine 1\n");
}

}  // namespace
