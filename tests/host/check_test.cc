// SPDX-License-Identifier: MIT
//
// `zarn check` on modules that a compiler makes from a good one by spoiling one thing.

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/host/program.h"

using namespace std::string_literals;

namespace {

// The macros of a module that is good; each is replaced by the flags of a case.
const char *const kMacros[][2] = {{"RECORD", "{{NAME, 0, std_ops}, init, uninit}"},
                                  {"LIST", "&record, 0"},
                                  {"NAME", "\"network/good\""},
                                  {"LINKAGE", "static const"},
                                  {"LIST_LINKAGE", ""},
                                  {"VALUE", "= RECORD"},
                                  {"MORE", ""}};
constexpr char kModule[] = R"(
int32_t std_ops(int32_t op) { (void)op; return kern_module_release("network/other"); }
int32_t init(proto_node *node) { (void)node; return 0; }
int32_t uninit(proto_node *node) { (void)node; return 0; }
int data;
LINKAGE protocol_module record VALUE;
LIST_LINKAGE const void *const modules[] = {LIST};
const void *keep(int i) { return modules[i]; }
MORE
)";

void expect_verdicts(const std::string &width, const std::string &target) {
    const struct {
        const char *flags, *verdict;  // behind the file's name; TARGET stands for the width's name
    } modules[] = {
        {"", "good: network/good for TARGET"},
        {"-Wl,-z,pack-relative-relocs", "good: network/good for TARGET"},
        {"-DLIST='&record, &record, 0'", "good: network/good, network/good for TARGET"},
        {"-s -O2", "good: network/good for TARGET"},
        {"'-DMORE=__attribute__((weak)) int w(void); int x(void) { return w ? w() : 0; }'",
         "good: network/good for TARGET"},
        {"'-DMORE=void *malloc(__SIZE_TYPE__); void *x(void) { return malloc(1); }'",
         "good: network/good for TARGET"},
        {"'-DMORE=int puts(const char *); int z(int); int x(int y) { return z(y) + puts(\"x\"); }'",
         "can't serve: no kernel supplies puts, z"},
        {"-DLIST_LINKAGE=static", "can't serve: it exports no list \"modules\""},
        {"-DLIST=0", "can't serve: its list \"modules\" is empty"},
        {"-DLIST='[0 ... 99] = &record'", "can't serve: its list \"modules\" doesn't end"},
        {"-DLIST='&record, (void *)8, 0'",
         "can't serve: entry 1 of its list \"modules\" is no record of this file"},
        {"-DLIST='&record, std_ops, 0'",
         "can't serve: the name of record 1 is no text of 1 to 127 characters"},
        {"-DNAME='\"network/a b\"'", "can't serve: the name of record 0 is no text of 1 to 127 characters"},
        {"-DNAME='(const char *)16'", "can't serve: the name of record 0 is no text of 1 to 127 characters"},
        {"-DVALUE= -DLINKAGE=static", "can't serve: the name of record 0 is no text of 1 to 127 characters"},
        {"-DNAME='\"elsewhere/good\"'", "can't serve: elsewhere/good: a name begins with \"network/\""},
        {"-DNAME='\"network/bad\"'",
         "can't serve: the loader looks for a record network/good in a file of this name, and it has none"},
        {"'-DRECORD={{NAME, 0, 0}, init, uninit}'", "can't serve: network/good: std_ops is not set"},
        {"'-DRECORD={{NAME, 0, (void *)&data}, init, uninit}'",
         "can't serve: network/good: std_ops is no function"},
        {"'-DRECORD={{NAME, 0, std_ops}}'",
         "can't serve: network/good: init_protocol is not set; network/good: uninit_protocol is not set"},
        {"'-DRECORD={{NAME, 0, std_ops}, init, (void *)3}'",
         "can't serve: network/good: uninit_protocol is no function"},
    };
    const std::string file = scratch_directory() + "/good.so", source = scratch_directory() + "/good.c";
    std::string text = "#include <zarn/module.h>\n";
    for (auto &[name, value] : kMacros)
        text.append("#ifndef ").append(name).append("\n#define ").append(name) += " "s + value + "\n#endif\n";
    write_file(source, text + kModule);
    const std::string compiler =
        "cc -shared -fPIC -w " + width + " -I " ZARN_SOURCE_DIR "/include -o " + file + " " + source + " ";
    for (const auto &module : modules) {
        ASSERT_EQ(system((compiler + module.flags).c_str()), 0);
        std::string verdict = file + ": " + module.verdict + "\n";
        if (const size_t at = verdict.find("TARGET"); at != std::string::npos) verdict.replace(at, 6, target);
        const program_result result = run_program({"check", file});
        EXPECT_EQ(result.out, verdict) << width << " " << module.flags;
        EXPECT_EQ(result.code, verdict.find(": good: ") != std::string::npos ? 0 : 1) << module.flags;
        EXPECT_EQ(result.err, "");
    }
}

// Either build of the program looks at modules of both widths.
TEST(check, gives_its_verdict_on_modules_of_both_widths) {
    expect_verdicts("-m64", "x86-64");
    if (system("echo 'int x;' | cc -m32 -shared -fPIC -x c -o /dev/null - 2>/dev/null") == 0)
        expect_verdicts("-m32", "i386");
}

TEST(check, refuses_what_is_no_module) {
    const std::string text = scratch_directory() + "/text.so", header = scratch_directory() + "/header.so";
    write_file(text, "no module");
    std::string bytes("\x7f\x45LF\2\1\1");
    write_file(header, bytes.append(20, '\0'));
    const program_result result =
        run_program({"check", text, header, "/nonexistent.so", ZARN_BUILD_DIR "/zarn"});
    EXPECT_EQ(result.code, 1);
    std::string expected = text;
    expected.append(": can't serve: it is no ELF file\n").append(header);
    expected.append(": can't serve: it ends inside its header\n");
    expected.append("/nonexistent.so: can't be read: No such file or directory\n");
    EXPECT_EQ(result.out.find(expected), 0u) << result.out;
    EXPECT_NE(result.out.find("/zarn: can't serve: it exports no list"), std::string::npos) << result.out;

    EXPECT_EQ(run_program({"check"}).code, 2);
    EXPECT_EQ(run_program({"check", "--nonsense"}).code, 2);
    EXPECT_EQ(run_program({"check", "--help"}).code, 0);
}

}  // namespace
