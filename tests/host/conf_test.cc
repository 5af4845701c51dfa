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

// Each example stands in a block "conf", and behind it what the program prints.
TEST(conf, prints_what_the_document_says_of_its_examples) {
    const std::string document = read_file(ZARN_SOURCE_DIR "/docs/zarn.conf.md"), fence = "\n```\n";
    int examples = 0;
    for (size_t at = 0; (at = document.find("\n```conf\n", at)) != std::string::npos; ++examples) {
        const auto take = [&](const std::string &start) {
            const size_t begin = document.find(start, at) + start.size();
            at = document.find(fence, begin) + 1;
            return document.substr(begin, at - begin);
        };
        const program_result result = check_settings(take("\n```conf\n"));
        EXPECT_EQ(result.out, take("\n```\n$ zarn conf FILE\n"));
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.code, result.out.find(": good\n") == std::string::npos ? 1 : 0);
    }
    EXPECT_EQ(examples, 2);
}

TEST(conf, tells_what_was_refused_or_is_read_by_nobody) {
    const char *const cases[][2] = {
        // what stands in the section, and what is said of it
        {"2 { in { 6 a ; 1 } }",
         "refused: family 2, in entry 1 '1': messed up, it names 0 modules and an in entry names one"},
        {"2 { in { 6 a } ; in { 7 b } }",
         "refused: family 2, in: a duplicate, the first section of this name counts"},
        {"2 { dl { 800 { 1 ; 2 a } ; 0x800 { -1 b } } }",
         "refused: family 2, dl entry 1 '0x800', stack '-1': a duplicate, an earlier stack answers to these "
         "keys"},
        {"1A { }",
         "ignored: family '1A': a family is named by its number in base 16, lower case, no leading zeros"},
        {"} ; domains {", "ignored: 'domains': a duplicate, the first parameter of this name counts"},
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
