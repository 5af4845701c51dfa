// SPDX-License-Identifier: MIT
//
// The program as a host on a TAP device, in a network namespace of the test's own: the machine's stack and
// tools are its peer, tshark judges all that it sends, and what it had borrowed has to be back at its end.

#ifndef ZARN_TESTS_LIVE_LIVE_FIXTURE_H
#define ZARN_TESTS_LIVE_LIVE_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/host/program.h"
#include "tests/live/network.h"
#include "tests/live/relay.h"
#include "tests/live/traffic.h"

const std::string kHost = "10.9.0.2";

// The whole of it is for the release preset; the others do a part.
constexpr unsigned kPart = ZARN_LIVE_PART;

void nap(int milliseconds);
bool contains(const std::string &text, const std::string &part);

// True as soon as `holds` is; false when it is not within ten seconds.
bool comes(const std::function<bool()> &holds);

// What tshark finds wrong with the frames from `sender` in a capture, checksums included. A capture without
// any good checksum proves nothing, which is a fault too.
std::string judge(const std::string &capture, const std::string &sender);

// Runs a shell's command, which has to succeed, and returns what it prints.
std::string shell(const std::string &command);

class live : public testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the program, and puts between it and this host a wire with such `rates`, or none at all.
    void start(const relay_rates *rates = nullptr);

    // Ends the program, which has to give everything back and to have sent nothing that is wrong.
    program_result stop(int signal);

    bool runs() const;
    std::string counts();  // that it prints at SIGUSR1
    long memory() const;   // that it has to itself, in KiB

    pid_t child_ = 0;
    std::unique_ptr<relay> wire_;
    std::string hardware_;
    const std::string capture_ = scratch_directory() + "/live.pcap";
};

// What it has to come through both with a good wire and with a bad one.
struct wire {
    const char *name;
    bool good;
    relay_rates rates;
    friend void PrintTo(const wire &each, std::ostream *out) { *out << each.name; }
};
class on_any_wire : public live, public testing::WithParamInterface<wire> {
 protected:
    void SetUp() override;
    void TearDown() override;
    bool good() const { return GetParam().good; }
};

#endif
