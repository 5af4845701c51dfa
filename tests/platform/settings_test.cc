// SPDX-License-Identifier: MIT
//
// The settings of the hosted kernel: texts against trees and places of mistakes, flat keys, files.

#include "platform/hosted/settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/settings_text.h"
#include "platform/hosted/settings_parser.h"
#include "tests/platform/support.h"
#include "tests/support/background.h"

// The parser and the loads ask for memory in these forms only. With gRefusals at n, the n-th request fails.
static thread_local int gRefusals;
static thread_local int gBlocks;

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (gRefusals > 0 && --gRefusals == 0) return nullptr;
    ++gBlocks;
    return malloc(size);
}
void *operator new[](size_t size, const std::nothrow_t &how) noexcept {
    return operator new(size, how);
}
void *operator new(size_t size) {
    return operator new(size, std::nothrow);
}
void *operator new[](size_t size) {
    return operator new(size, std::nothrow);
}
void operator delete(void *block) noexcept {
    gBlocks -= block != nullptr;
    free(block);
}
void operator delete[](void *block) noexcept {
    operator delete(block);
}
void operator delete(void *block, size_t) noexcept {
    operator delete(block);
}
void operator delete[](void *block, size_t) noexcept {
    operator delete(block);
}

namespace {

// The tree as text, or "LINE:COLUMN: expected ...".
std::string read(const std::string &text) {
    // Of its exact size and on the heap, so that a sanitizer sees a byte too far.
    const std::vector<char> bytes(text.begin(), text.end());
    hosted::settings_fault fault{};
    hosted::parsed_settings *parsed = hosted::parse_settings(bytes.data(), bytes.size(), &fault);
    if (parsed == nullptr)
        return std::to_string(fault.line) + ":" + std::to_string(fault.column) + ": expected " +
               fault.expected;
    std::string tree = print_settings(parsed->tree);
    hosted::delete_parsed_settings(parsed);
    return tree;
}

std::string repeat(const std::string &text, size_t count) {
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

struct reading {
    std::string text;
    std::string expected;
};

TEST(SettingsParser, ReadsTrees) {
    using namespace std::string_literals;
    const reading kReadings[] = {
        {"", ""},
        {" \t\r\n;;\n # only a comment", ""},
        {"a", "a"},
        {"a 1 2\nb", "a 1 2; b"},
        {"a 1;b 2;", "a 1; b 2"},
        {"a\r\nb 1\r\n", "a; b 1"},
        {"a\r", "a"},
        {"\xef\xbb\xbfname 1", "name 1"},
        {"a {}", "a"},
        {"a { ; ; }", "a"},
        {"a 1 { b 2; c }", "a 1 { b 2; c }"},
        {"a{b{c 1}d}e", "a { b { c 1 }; d }; e"},
        {"a {\n  b 1\n  c # {\n}\n", "a { b 1; c }"},
        {"a { b } ; c", "a { b }; c"},
        {"a { b } c 1", "a { b }; c 1"},
        {"a {\n} b", "a; b"},
        {"a 1# comment } {\nb", "a 1; b"},
        {"2 { in { 6 tcp ; -1 any } }\ndl { 0x800 { 0 } }", "2 { in { 6 tcp; -1 any } }; dl { 0x800 { 0 } }"},
        {"a \"\" \"b c\" \"{};#\"", "a \"\" \"b c\" \"{};#\""},
        {"\"\" { \"\" }", "\"\" { \"\" }"},
        {R"(a "\"\\\n\t\x41\x7f\xFf")"s, "a \"\\\"\\\\\\n\\tA\\x7f\xff\""},
        {"a \"tab\there\"", "a \"tab\\there\""},
        {"a caf\xc3\xa9 it's=b,c/d", "a caf\xc3\xa9 it's=b,c/d"},
        {"a \"1\"{b}", "a 1 { b }"},
        {repeat("a{", 256) + repeat("}", 256), repeat("a { ", 255) + "a" + repeat(" }", 255)},
        {"a" + repeat(" b", 5000), "a" + repeat(" b", 5000)},
        {repeat("a;", 5000) + "a", repeat("a; ", 5000) + "a"},
    };
    for (const reading &row : kReadings)
        EXPECT_EQ(read(row.text), row.expected) << row.text.substr(0, 80);
}

TEST(SettingsParser, NamesThePlaceOfTheMistake) {
    using namespace std::string_literals;
    const reading kReadings[] = {
        {"a\n  { b }", "2:3: expected a name in front of '{', on the same line"},
        {"a { { b } }", "1:5: expected a name in front of '{', on the same line"},
        {"a { b } { c }", "1:9: expected a name in front of '{', on the same line"},
        {"a }", "1:3: expected a name or the end of the file: no block is open"},
        {"a { b }\n}\n", "2:1: expected a name or the end of the file: no block is open"},
        {"a\nb {\nc {\n}\n", "5:1: expected '}' to end the block that begins in line 2"},
        {"a {", "1:4: expected '}' to end the block that begins in line 1"},
        {"a \"b\nc\"", "1:5: expected '\"' to end the string that begins in column 3"},
        {"a \"b", "1:5: expected '\"' to end the string that begins in column 3"},
        {"a \"b\r\n", "1:5: expected '\"' to end the string that begins in column 3"},
        {"a \"b\\", "1:5: expected one of \\\" \\\\ \\n \\t \\xHH"},
        {"a \"\xc3\xa9\\q\"", "1:5: expected one of \\\" \\\\ \\n \\t \\xHH"},
        {"a \"\\x4\"", "1:4: expected \\x with two hexadecimal digits that aren't both 0"},
        {"a \"\\x00\"", "1:4: expected \\x with two hexadecimal digits that aren't both 0"},
        {"a \"\\x", "1:4: expected \\x with two hexadecimal digits that aren't both 0"},
        {"a \"b\"c", "1:6: expected a blank behind the quote"},
        {"a \"b\"\"c\"", "1:6: expected a blank behind the quote"},
        {"a b\"c\"", "1:4: expected a blank in front of the quote"},
        {"a \"\x01\"", "1:4: expected \\x01 for this control character"},
        {"a b\\c", "1:4: expected quotes around a word with a backslash"},
        {"a\rb", "1:3: expected a newline behind the carriage return"},
        {"a\0"s, "1:2: expected text, not a byte of 0"},
        {"a \"\0\""s, "1:4: expected \\x00 for this control character"},
        {"# \0"s, "1:3: expected text, not a byte of 0"},
        {"a b\x7f", "1:4: expected text, not a control character"},
        {repeat("a{", 257), "1:514: expected at most 256 blocks inside one another"},
    };
    for (const reading &row : kReadings)
        EXPECT_EQ(read(row.text), row.expected) << row.text.substr(0, 80);
}

class Settings : public hosted_test {
 protected:
    void SetUp() override {
        char name[] = "/tmp/zarn_settings_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory_ = name;
        hosted_set_settings_directory(name);
        hosted_test::SetUp();
    }
    void TearDown() override {
        EXPECT_EQ(hosted_count_settings(), 0);
        hosted_set_settings_file("zarn.conf", nullptr);
        hosted_set_settings_directory(".");
        std::filesystem::remove_all(directory_);
        hosted_test::TearDown();
    }
    std::string write(const std::string &text, const char *name = "zarn.conf") {
        const std::string path = directory_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    std::string take_log() { return std::exchange(log_, ""); }

    std::string directory_;
};

TEST_F(Settings, GivesFlatKeys) {
    write(
        "number 42\nempty\nmany 1 2\nblock 7 { number 1 }\nbare { x 1 }\nnumber 43\ninner { deep 1 }\nquoted "
        "\"\"\n");
    void *handle = kern_settings_load("zarn.conf");
    ASSERT_NE(handle, nullptr) << log_;
    const reading kKeys[] = {{"number", "42"}, {"empty", "no value"}, {"many", "unknown"},
                             {"block", "7"},   {"bare", "no value"},  {"deep", "unknown"},
                             {"quoted", ""},   {"", "unknown"},       {"Number", "unknown"}};
    for (const reading &row : kKeys)
        EXPECT_EQ(kern_settings_string(handle, row.text.c_str(), "unknown", "no value"), row.expected)
            << row.text;
    EXPECT_EQ(kern_settings_string(handle, "absent", nullptr, "no value"), nullptr);
    ASSERT_NE(kern_settings_tree(handle), nullptr);
    EXPECT_EQ(kern_settings_tree(handle)->parameter_count, 8);
    EXPECT_EQ(kern_settings_unload(handle), 0);
    EXPECT_EQ(take_log(), "");
}

TEST_F(Settings, KnowsTheWordsForTrueAndFalse) {
    const struct {
        const char *value;
        uint8_t expected;
    } kWords[] = {{"true", 1},  {"Yes", 1}, {"ON", 1},  {"enable", 1},  {"enabled", 1},  {"1", 1},
                  {"false", 0}, {"no", 0},  {"Off", 0}, {"disable", 0}, {"DISABLED", 0}, {"0", 0},
                  {"maybe", 5}, {"10", 5},  {"", 6},    {"\"\"", 5},    {"yes no", 5}};
    for (const auto &row : kWords) {
        write(std::string("key ") + row.value);
        void *handle = kern_settings_load("zarn.conf");
        ASSERT_NE(handle, nullptr) << log_;
        EXPECT_EQ(kern_settings_bool(handle, "key", 5, 6), row.expected) << row.value;
        EXPECT_EQ(kern_settings_bool(handle, "other", 5, 6), 5);
        kern_settings_unload(handle);
    }
    for (const std::string value : {"maybe", "10", ""})
        EXPECT_EQ(
            logged(directory_ + "/zarn.conf: the value '" + value + "' of key is neither true nor false\n"),
            1);
    EXPECT_EQ(logged("\n"), 3);
}

TEST_F(Settings, RefusesAFileWithAMistakeWhole) {
    const std::string path = write("good 1\nbad {\n");
    EXPECT_EQ(kern_settings_load("zarn.conf"), nullptr);
    EXPECT_EQ(take_log(),
              "settings: " + path + ":3:1: expected '}' to end the block that begins in line 2\n");

    EXPECT_EQ(kern_settings_load("other.conf"), nullptr);
    EXPECT_EQ(take_log(), "settings: can't read " + directory_ + "/other.conf: No such file or directory\n");

    std::filesystem::create_directory(directory_ + "/folder");
    EXPECT_EQ(kern_settings_load("folder"), nullptr);
    EXPECT_EQ(take_log(), "settings: can't read " + directory_ + "/folder: Is a directory\n");

    EXPECT_EQ(kern_settings_load(""), nullptr);
    EXPECT_EQ(kern_settings_load(nullptr), nullptr);
    EXPECT_EQ(kern_settings_load(std::string(5000, 'x').c_str()), nullptr);
    EXPECT_NE(take_log(), "");
    EXPECT_NE(kern_settings_unload(nullptr), 0);
    EXPECT_NE(kern_settings_unload(this), 0);
    EXPECT_NE(take_log(), "");
}

TEST_F(Settings, ReadsAnotherFileInPlaceOfOneName) {
    write("key here");
    write("key there", "elsewhere");
    const auto value = [] {
        void *handle = kern_settings_load("zarn.conf");
        const std::string found = kern_settings_string(handle, "key", "unknown", "no value");
        kern_settings_unload(handle);
        return found;
    };
    EXPECT_EQ(hosted_set_settings_file("zarn.conf", (directory_ + "/elsewhere").c_str()), 0);
    EXPECT_EQ(value(), "there");
    EXPECT_EQ(kern_settings_load("other.conf"), nullptr);  // only the one name
    EXPECT_EQ(hosted_set_settings_file("zarn.conf", nullptr), 0);
    EXPECT_EQ(value(), "here");
    EXPECT_NE(hosted_set_settings_file("", "x"), 0);
    EXPECT_NE(hosted_set_settings_file("zarn.conf", ""), 0);
    EXPECT_NE(hosted_set_settings_file("zarn.conf", std::string(4096, 'x').c_str()), 0);
}

TEST_F(Settings, ReadsAPipeToItsEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text = "key 1\n" + repeat("filler some values\n", 20000);
    std::thread writer([&] {
        for (size_t done = 0; done < text.size();)
            done += static_cast<size_t>(::write(ends[1], text.data() + done, text.size() - done));
        close(ends[1]);
    });
    hosted_set_settings_file("zarn.conf", ("/dev/fd/" + std::to_string(ends[0])).c_str());
    void *handle = kern_settings_load("zarn.conf");
    writer.join();
    close(ends[0]);
    ASSERT_NE(handle, nullptr) << log_;
    EXPECT_EQ(kern_settings_tree(handle)->parameter_count, 20001);
    kern_settings_unload(handle);
}

// Every request for memory fails once: the file is refused with a line, and nothing stays behind.
TEST_F(Settings, RefusesAFileWhenMemoryRunsOut) {
    write(repeat("a 1 2 { b 3 { c 4 } }\n", 40));
    for (int n = 1; n < 200; ++n) {
        log_.reserve(4096);
        const int before = gBlocks;
        gRefusals = n;
        void *handle = kern_settings_load("zarn.conf");
        const bool refused = gRefusals == 0;
        gRefusals = 0;
        if (handle != nullptr) {
            EXPECT_FALSE(refused);
            kern_settings_unload(handle);
            EXPECT_GT(n, 10);
            return;
        }
        EXPECT_EQ(gBlocks, before) << n;
        EXPECT_TRUE(refused);
        EXPECT_NE(take_log().find("emory"), std::string::npos);
    }
    FAIL() << "never succeeded";
}

TEST_F(Settings, AreReadByManyThreadsAtOnce) {
    const std::string good = write("key 1\ndomains { 2 { in { 6 tcp } } }\n");
    run_threads(4, [&good](int i) {
        for (int round = 0; round < 200; ++round) {
            void *handle = kern_settings_load("zarn.conf");
            EXPECT_EQ(kern_settings_bool(handle, "key", 0, 0), 1);
            if (i == 0) hosted_set_settings_file("zarn.conf", round % 2 == 0 ? good.c_str() : nullptr);
            EXPECT_EQ(kern_settings_unload(handle), 0);
        }
    });
}

}  // namespace
