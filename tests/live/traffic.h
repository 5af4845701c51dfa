// SPDX-License-Identifier: MIT
//
// Sends to the echo services of a host, and compares what comes back with what went out.

#ifndef ZARN_TESTS_LIVE_TRAFFIC_H
#define ZARN_TESTS_LIVE_TRAFFIC_H

#include <cstdint>
#include <string>
#include <vector>

enum service_port { kEchoPort = 7, kDiscardPort = 9 };

// A socket that is connected to a port of the host, or on its way there when `type` has SOCK_NONBLOCK. -1
// with errno set. What does not happen on it within ten seconds fails.
int connect_to(const std::string &host, int type, int port, int protocol = 0);

// All of them return an empty text, or what went wrong.

struct datagram_manners {
    size_t at_once;   // so many are on their way at the same time
    int tries;        // so often is one sent
    int patience_ms;  // when nothing comes for so long, those without an answer are sent again
};

// Sends a datagram of each of the sizes, which differ, and gets each back.
std::string echo_datagrams(const std::string &host, std::vector<size_t> sizes,
                           const datagram_manners &manners);

struct stream_manners {
    int port = kEchoPort;     // at another port nothing but the end comes back
    bool reads_late = false;  // not before nothing more can be sent
    int patience_ms = 10000;  // as long a time without any progress is too long
};

// So many connections at once, each of which sends `bytes` bytes, ends its side, and gets all of them back
// with the end behind them.
std::string echo_streams(const std::string &host, int connections, uint64_t bytes,
                         const stream_manners &manners = {});

#endif
