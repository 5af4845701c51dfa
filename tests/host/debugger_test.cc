// SPDX-License-Identifier: MIT
//
// The kernel debugger of the program: at a terminal, from a script, and by --command.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <sstream>

#include "tests/host/program.h"

namespace {

const std::string kSample = ZARN_SOURCE_DIR "/examples/captures/nano.pcap";

// Each list has a line that belongs to every replay.
const char *const kLists[][2] = {
    {"help", "zarn_timer +zarn_timer"},     {"threads", "consumer +10 "},
    {"semaphores", "frames +0 +[01] +1  "}, {"modules", "[1-9] +network/zarn_util"},
    {"pools", "large +2048 +128 +0 "},      {"zarn_timer", "wheel size 512"}};

testing::AssertionResult has(const std::string &text, const std::string &pattern) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (testing::internal::RE::PartialMatch(line, pattern)) return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << pattern << " is not in\n" << text;
}

// The program at a terminal of its own.
class terminal {
 public:
    explicit terminal(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZARN_BUILD_DIR "/zarn");
        std::vector<char *> argv(arguments.size() + 1);
        std::transform(arguments.begin(), arguments.end(), argv.begin(),
                       [](auto &text) { return text.data(); });
        child_ = forkpty(&file_, nullptr, nullptr, nullptr);
        if (child_ == 0) {
            setenv("TERM", "vt100", 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    bool is_open() const { return child_ > 0; }
    // Types, and gives what is shown until `end`, or until the terminal closes.
    std::string type(const std::string &keys, const std::string &end) {
        EXPECT_EQ(write(file_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        std::string shown;
        for (pollfd waits = {file_, POLLIN, 0}; end.empty() || shown.find(end) == std::string::npos;) {
            char bytes[4096];
            ssize_t got = poll(&waits, 1, 30'000) == 1 ? read(file_, bytes, sizeof(bytes)) : -1;
            if (got <= 0) break;
            shown.append(bytes, static_cast<size_t>(got));
        }
        EXPECT_NE(shown.find(end), std::string::npos) << shown;
        return shown;
    }
    void signal(int number) { kill(child_, number); }
    int finish() {
        int status;
        waitpid(child_, &status, 0);
        close(file_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

 private:
    int file_;
    pid_t child_;
};

TEST(debugger, prompts_at_the_terminal_while_everything_stands) {
    for (const char *mode : {"--drop", "--interrupt"}) {
        terminal zarn({"replay", "--debug", "--rate", "20", mode, kSample});
        if (!zarn.is_open()) GTEST_SKIP() << "no pseudo terminal can be had here";
        EXPECT_TRUE(has(zarn.type("", "(zarn) "), "by thread 1, \"zarn\": --debug"));
        for (auto [command, line] : kLists)
            EXPECT_TRUE(has(zarn.type(command + std::string("\n"), "\n(zarn) "), line));
        // What is typed can be edited, and dropped; a signal's key is no signal.
        EXPECT_TRUE(has(zarn.type("modulesx\x7f\n", "\n(zarn) "), "network/ethernet"));
        EXPECT_FALSE(has(zarn.type("modules\x03", "\n(zarn) "), "network"));
        EXPECT_TRUE(has(zarn.type("sing\n", "\n(zarn) "), "no command 'sing'"));
        zarn.type("continue\n", "\n");
        usleep(100'000);
        zarn.signal(SIGQUIT);
        EXPECT_TRUE(has(zarn.type("", "(zarn) "), "\"debugger\": SIGQUIT"));
        std::string threads = zarn.type("threads\n", "\n(zarn) ");
        EXPECT_TRUE(has(threads, "consumer +10 .*(waits for semaphore [1-9]|stopped)")) << mode;
        EXPECT_FALSE(has(threads, "could not be stopped"));
        EXPECT_TRUE(has(zarn.type("quit\n", ""), "nano.pcap: stopped"));
        EXPECT_EQ(zarn.finish(), 0);
    }
}

TEST(debugger, takes_a_script_and_commands_for_the_end) {
    const std::string script = scratch_directory() + "/script";
    std::vector<std::string> at_end = {"replay", "--tsv", kSample};
    std::string lines;
    for (auto [command, line] : kLists) {
        lines += command + std::string("\n\n");
        at_end.insert(at_end.end(), {"--command", command});
    }
    write_file(script, lines);
    ASSERT_NE(freopen(script.c_str(), "r", stdin), nullptr);
    for (const auto &arguments : {at_end, {"replay", "--tsv", "--debug", kSample}}) {
        program_result result = run_program(arguments);
        EXPECT_EQ(result.code, 0);
        for (auto [command, line] : kLists)
            EXPECT_TRUE(has(result.out, line));
        EXPECT_TRUE(has(result.out, "nano.pcap\tok\t72\t"));
    }
}

}  // namespace
