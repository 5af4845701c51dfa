// SPDX-License-Identifier: MIT
#include "platform/hosted/settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
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
    const std::vector<char> bytes(text.begin(), text.end());  // so that a sanitizer sees a byte too far
    hosted::settings_fault fault{};
    hosted::parsed_settings *parsed = hosted::parse_settings(bytes.data(), bytes.size(), &fault);
    if (parsed == nullptr)
        return std::to_string(fault.line) + ":" + std::to_string(fault.column) + ": " + fault.expected;
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

using namespace std::string_literals;
const reading kReadings[] = {
    {" \t\r\n;;\n # only a comment", ""},
    {"a 1 2\nb", "a 1 2; b"},
    {"a\r\nb 1\r", "a; b 1"},
    {"\xef\xbb\xbfname 1", "name 1"},
    {"a { ; ; }", "a"},
    {"a{b{c 1}d}e", "a { b { c 1 }; d }; e"},
    {"a {\n  b 1\n  c # {\n}\n", "a { b 1; c }"},
    {"a { b } ; c { d } e 1", "a { b }; c { d }; e 1"},
    {"2 { in { 6 tcp ; -1 any } }\ndl { 0x800 { 0 } }", "2 { in { 6 tcp; -1 any } }; dl { 0x800 { 0 } }"},
    {"a \"\" \"b c\" \"{};#\"", "a \"\" \"b c\" \"{};#\""},
    {R"("" "\"\\\n\t\x41\x7f\xFf")", "\"\" \"\\\"\\\\\\n\\tA\\x7f\xff\""},
    {"a \"1\"{b caf\xc3\xa9 it's=b,c/d}", "a 1 { b caf\xc3\xa9 it's=b,c/d }"},
    {repeat("a{", 256) + repeat("}", 256), repeat("a { ", 255) + "a" + repeat(" }", 255)},
    {repeat("a b;", 5000) + "a" + repeat(" b", 5000), repeat("a b; ", 5000) + "a" + repeat(" b", 5000)},
    {"a { b } { c }", "1:9: a name in front of '{', on the same line"},
    {"a\n  { b }", "2:3: a name in front of '{', on the same line"},
    {"a { b }\n}\n", "2:1: a name or the end of the file: no block is open"},
    {"a\nb {\nc {\n}\n", "5:1: '}' to end the block that begins in line 2"},
    {"a \"b\nc\"", "1:5: '\"' to end the string that begins in column 3"},
    {"a \"b\\", "1:5: one of \\\" \\\\ \\n \\t \\xHH"},
    {"a \"\xc3\xa9\\q\"", "1:5: one of \\\" \\\\ \\n \\t \\xHH"},
    {"a \"\\x00\"", "1:4: \\x with two hexadecimal digits that aren't both 0"},
    {"a \"b\"c", "1:6: a blank behind the quote"},
    {"a b\"c\"", "1:4: a blank in front of the quote"},
    {"a \"\x01\"", "1:4: \\x01 for this control character"},
    {"a b\\c", "1:4: quotes around a word with a backslash"},
    {"a\rb", "1:3: a newline behind the carriage return"},
    {"# \0"s, "1:3: text, not a byte of 0"},
    {"a b\x7f", "1:4: text, not a control character"},
    {repeat("a{", 257), "1:514: at most 256 blocks inside one another"},
};

TEST(SettingsParser, ReadsTreesAndNamesThePlaceOfAMistake) {
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

    std::string directory_;
};

TEST_F(Settings, GivesFlatKeysAndBooleans) {
    write(
        "number 42\nempty\nmany 1 2\nblock 7 { number 1 }\nnumber 43\ninner { deep 1 }\nquoted \"\"\n"
        "a true\nb Yes\nc ON\nd enable\ne enabled\nf 1\ng false\nh no\ni Off\nj disable\nk DISABLED\nl 0\n");
    void *handle = kern_settings_load("zarn.conf");
    ASSERT_NE(handle, nullptr) << log_;
    const reading kKeys[] = {{"number", "42"}, {"empty", "no value"}, {"many", "unknown"},
                             {"block", "7"},   {"inner", "no value"}, {"deep", "unknown"},
                             {"quoted", ""},   {"Number", "unknown"}};
    for (const reading &row : kKeys)
        EXPECT_EQ(kern_settings_string(handle, row.text.c_str(), "unknown", "no value"), row.expected)
            << row.text;
    for (char key[] = "a"; *key <= 'l'; ++*key)
        EXPECT_EQ(kern_settings_bool(handle, key, 5, 6), *key <= 'f') << key;
    EXPECT_EQ(log_, "");
    for (const reading &row :
         {reading{"number", "\5"}, {"empty", "\6"}, {"quoted", "\5"}, {"many", "\5"}, {"none", "\5"}})
        EXPECT_EQ(kern_settings_bool(handle, row.text.c_str(), 5, 6), row.expected[0]) << row.text;
    EXPECT_EQ(logged("/zarn.conf: the value '42' of number is neither true nor false\n"), 1) << log_;
    EXPECT_EQ(logged("\n"), 2) << log_;
    EXPECT_EQ(kern_settings_tree(handle)->parameter_count, 19);
    EXPECT_EQ(kern_settings_unload(handle), 0);
}

TEST_F(Settings, RefusesAFileWithAMistakeWhole) {
    write("good 1\nbad {\n");
    std::filesystem::create_directory(directory_ + "/folder");
    const reading kFiles[] = {
        {"zarn.conf", "settings: D/zarn.conf:3:1: expected '}' to end the block that begins in line 2\n"},
        {"other.conf", "settings: can't read D/other.conf: No such file or directory\n"},
        {"folder", "settings: can't read D/folder: Is a directory\n"}};
    for (reading row : kFiles) {
        EXPECT_EQ(kern_settings_load(row.text.c_str()), nullptr);
        EXPECT_EQ(std::exchange(log_, ""), row.expected.replace(row.expected.find("D/"), 1, directory_));
    }
    for (const std::string &name : {""s, std::string(5000, 'x')})
        EXPECT_EQ(kern_settings_load(name.c_str()), nullptr);
    for (void *handle : {static_cast<void *>(nullptr), static_cast<void *>(this)})
        EXPECT_NE(kern_settings_unload(handle), 0);
    EXPECT_EQ(logged("is not loaded"), 2) << log_;
}

// Another file in place of one name, and one that doesn't tell its size.
TEST_F(Settings, ReadsAPipeToItsEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text = "key 1\n" + repeat("filler some values\n", 20000);
    background writer([&] {
        for (size_t done = 0; done < text.size();)
            done += static_cast<size_t>(::write(ends[1], text.data() + done, text.size() - done));
        return close(ends[1]);
    });
    EXPECT_EQ(hosted_set_settings_file("zarn.conf", ("/dev/fd/" + std::to_string(ends[0])).c_str()), 0);
    EXPECT_EQ(kern_settings_load("other.conf"), nullptr);
    void *handle = kern_settings_load("zarn.conf");
    writer.join();
    close(ends[0]);
    ASSERT_NE(handle, nullptr) << log_;
    EXPECT_EQ(kern_settings_tree(handle)->parameter_count, 20001);
    kern_settings_unload(handle);
    EXPECT_NE(hosted_set_settings_file("", "x"), 0);
    EXPECT_NE(hosted_set_settings_file("zarn.conf", std::string(4096, 'x').c_str()), 0);
}

// Every request for memory fails once: the file is refused with a line, and nothing stays behind.
TEST_F(Settings, RefusesAFileWhenMemoryRunsOut) {
    write(repeat("a 1 2 { b 3 { c 4 } }\n", 40));
    for (int n = 1;; ++n) {
        log_.reserve(4096);
        const int before = gBlocks;
        gRefusals = n;
        void *handle = kern_settings_load("zarn.conf");
        const bool refused = std::exchange(gRefusals, 0) == 0;
        EXPECT_EQ(handle == nullptr, refused);
        if (!refused) {
            kern_settings_unload(handle);
            break;
        }
        EXPECT_EQ(gBlocks, before) << n;
        ASSERT_NE(std::exchange(log_, "").find("emory"), std::string::npos);
    }
}

}  // namespace
