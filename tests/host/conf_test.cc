// SPDX-License-Identifier: MIT
//
// `zarn conf` on files that say right and wrong things.

#include <gtest/gtest.h>

#include "tests/host/program.h"

namespace {

// The file's name in what the program says is FILE.
program_result check_settings(const std::string &text) {
    const std::string path = scratch_directory() + "/zarn.conf";
    write_file(path, text);
    program_result result = run_program({"conf", path});
    for (std::string *output : {&result.out, &result.err}) {
        for (size_t at; (at = output->find(path)) != std::string::npos;)
            output->replace(at, path.size(), "FILE");
    }
    return result;
}

TEST(conf, prints_the_stacks_that_the_roster_makes_of_a_file) {
    const program_result result = check_settings(
        "progress_report 5\n"
        "domains {\n"
        "  1a { in { 6 alpha ; 17 beta } ; out { 1 { 6 alpha gamma ; 17 beta gamma } ; 2 { -1 delta gamma } "
        "}\n"
        "       dl { 800 { 0 epsilon } ; 0x806 { 10 } ; 10 { -2 zeta } } }\n"
        "  2 { }\n"
        "}\n");
    EXPECT_EQ(result.out,
              "progress_report 5\n"
              "family 1a (26 in base 10)\n"
              "  in   6                alpha\n"
              "  in   17               beta\n"
              "  out  1 6              alpha gamma\n"
              "  out  1 17             beta gamma\n"
              "  out  2 -1             delta gamma\n"
              "  dl   10 -2            zeta\n"
              "  dl   800 0            epsilon\n"
              "  dl   806 10           (no modules)\n"
              "  modules: alpha beta delta epsilon gamma zeta\n"
              "family 2\n"
              "  modules: none\n"
              "FILE: good\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.code, 0);
}

TEST(conf, tells_what_was_refused_or_is_read_by_nobody) {
    const char *const cases[][2] = {
        // what stands in the section, and what is said of it
        {"2 { in { 6 a ; 1 } }",
         "refused: family 2, in entry 1 '1': messed up, it names 0 modules and an in entry names one"},
        {"2 { in { x6 a } }",
         "refused: family 2, in entry 0 'x6': messed up, its key is no number in base 10"},
        {"2 { in { 6 a } ; in { 7 b } }",
         "refused: family 2, in: a duplicate, the first section of this name counts"},
        {"2 { out { 0 { } ; -1 { 6 a } } }",
         "refused: family 2, out entry 1 '-1': messed up, its key is no number from 0 on in base 10"},
        {"2 { dl { 8g { 6 a } } }",
         "refused: family 2, dl entry 0 '8g': messed up, its key is no number from 0 on in base 16"},
        {"2 { dl { 800 { 1 ; 2 a } ; 0x800 { -1 b } } }",
         "refused: family 2, dl entry 1 '0x800', stack '-1': a duplicate, an earlier stack answers to these "
         "keys"},
        {"2 { out { 1 tcp ipv4 } }", "ignored: family 2, out entry 0 '1': its values, which nobody reads"},
        {"2 { inn { 6 a } }", "ignored: family 2, inn: a section is named in, out or dl"},
        {"1A { }",
         "ignored: family '1A': a family is named by its number in base 16, lower case, no leading zeros"},
        {"2 { } ; 2 { }", "ignored: family '2': a duplicate, the first section of this family counts"},
        {"} ; domains {", "ignored: 'domains': a duplicate, the first parameter of this name counts"},
        {"} ; key 1 2 ; x {", "ignored: 'key': a key has one value, and this one several"},
    };
    for (auto &[domains, expected] : cases) {
        const program_result result = check_settings(std::string("domains {") + domains + "}");
        EXPECT_NE(result.out.find(std::string("  ") + expected + "\n"), std::string::npos) << domains << "\n"
                                                                                           << result.out;
        EXPECT_NE(result.out.find("FILE: 1 part of it does not count\n"), std::string::npos) << result.out;
        EXPECT_EQ(result.code, 1) << domains;
    }
}

TEST(conf, names_the_place_of_a_mistake) {
    program_result result = check_settings("domains {\n  2 { in { 6 tcp }\n");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "settings: FILE:3:1: expected '}' to end the block that begins in line 2\n");

    result = run_program({"conf", "/nonexistent"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "settings: can't read /nonexistent: No such file or directory\n");
    EXPECT_EQ(run_program({"conf", "/dev/null"}).code, 1);
    EXPECT_EQ(run_program({"conf", "a", "b"}).code, 2);
    EXPECT_EQ(run_program({"conf", "--help"}).code, 0);
}

TEST(conf, finds_the_sample_good) {
    const program_result result = run_program({"conf"});
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("family 2\n"), std::string::npos);
}

}  // namespace
