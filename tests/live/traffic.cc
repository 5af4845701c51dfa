// SPDX-License-Identifier: MIT
#include "tests/live/traffic.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

namespace {

// Bytes that differ from place to place of a stream and from stream to stream.
std::string bytes_of(uint64_t stream, uint64_t offset, size_t length) {
    std::string bytes(length + 16, '\0');
    for (size_t i = 0; i < length + 8; i += 8) {
        uint64_t word = ((offset + i) / 8 + stream * 0x10001 + 1) * 0x9e3779b97f4a7c15;
        word ^= word >> 32;
        memcpy(&bytes[i], &word, 8);
    }
    return bytes.substr(offset % 8, length);
}

std::string difference(const std::string &got, const std::string &want) {
    if (got == want) return "";
    size_t at = static_cast<size_t>(std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first -
                                    got.begin());
    return std::to_string(got.size()) + " bytes for " + std::to_string(want.size()) +
           ", the first wrong one at " + std::to_string(at);
}

// One connection to an echo.
struct stream {
    uint64_t number, bytes;
    bool returns;
    int fd = -1;
    uint64_t sent = 0, got = 0;
    bool ended = false;
    std::string fault = "";

    bool done() const { return ended || !fault.empty(); }
    short events(bool reads) const {
        return static_cast<short>((reads ? POLLIN : 0) | (sent <= bytes ? POLLOUT : 0));
    }

    void fail(const std::string &what) {
        fault = "stream " + std::to_string(number) + ", " + std::to_string(sent) + " bytes out, " +
                std::to_string(got) + " back: " + what;
    }

    void put() {
        std::string chunk = bytes_of(number, sent, std::min<uint64_t>(bytes - sent, 65536));
        ssize_t count = chunk.empty() ? 0 : send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN) return fail(std::string("send: ") + strerror(errno));
        if (count > 0) sent += static_cast<uint64_t>(count);
        if (sent < bytes) return;
        if (shutdown(fd, SHUT_WR) != 0) fail(std::string("shutdown: ") + strerror(errno));
        sent = bytes + 1;  // the end counts as one
    }

    void take() {
        static char buffer[65536];
        ssize_t count = recv(fd, buffer, sizeof buffer, 0);
        if (count < 0) return errno == EAGAIN ? void() : fail(std::string("recv: ") + strerror(errno));
        std::string chunk(buffer, static_cast<size_t>(count));
        std::string wrong = difference(chunk, bytes_of(number, got, chunk.size()));
        got += chunk.size();
        ended = count == 0;
        if (!wrong.empty()) return fail(wrong);
        if (ended && (sent <= bytes || got != (returns ? bytes : 0))) fail("ended too early");
    }
};

}  // namespace

int connect_to(const std::string &host, int type, int port, int protocol) {
    sockaddr_in there = {};
    there.sin_family = AF_INET;
    there.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &there.sin_addr);
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
    if (fd < 0) return -1;
    timeval patience = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<sockaddr *>(&there), sizeof there) == 0 || errno == EINPROGRESS)
        return fd;
    int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

std::string echo_datagrams(const std::string &host, std::vector<size_t> sizes,
                           const datagram_manners &manners) {
    int fd = connect_to(host, SOCK_DGRAM, kEchoPort);
    if (fd < 0) return strerror(errno);
    std::map<size_t, int> waiting;  // sizes on their way, with how often they were sent
    std::string fault;
    std::reverse(sizes.begin(), sizes.end());
    auto post = [&](size_t size) {
        std::string bytes = bytes_of(size, 0, size);
        if (send(fd, bytes.data(), size, 0) < 0) fault = std::string("send: ") + strerror(errno);
    };
    static char buffer[65536];
    while (fault.empty() && (!sizes.empty() || !waiting.empty())) {
        for (; waiting.size() < manners.at_once && !sizes.empty(); sizes.pop_back()) {
            post(sizes.back());
            waiting[sizes.back()] = 1;
        }
        pollfd ready = {fd, POLLIN, 0};
        if (poll(&ready, 1, manners.patience_ms) == 0) {
            for (auto &[size, sent] : waiting) {
                if (sent++ == manners.tries) fault = "no answer to " + std::to_string(size) + " bytes";
                post(size);
            }
            continue;
        }
        ssize_t count = recv(fd, buffer, sizeof buffer, 0);
        if (count < 0) {
            fault = std::string("recv: ") + strerror(errno);
            break;
        }
        std::string got(buffer, static_cast<size_t>(count));
        fault = difference(got, bytes_of(got.size(), 0, got.size()));
        waiting.erase(got.size());
    }
    close(fd);
    return fault;
}

std::string echo_streams(const std::string &host, int connections, uint64_t bytes,
                         const stream_manners &manners) {
    std::vector<stream> streams;
    for (int i = 0; i < connections; i++) {
        streams.push_back(
            {.number = static_cast<uint64_t>(i), .bytes = bytes, .returns = manners.port == kEchoPort});
        streams.back().fd = connect_to(host, SOCK_STREAM | SOCK_NONBLOCK, manners.port);
        if (streams.back().fd < 0) streams.back().fail(std::string("connect: ") + strerror(errno));
    }
    constexpr int kStuckMs = 300;
    bool reads = !manners.reads_late;
    std::string fault;
    for (bool more = true; more && fault.empty();) {
        std::vector<pollfd> ready;
        for (const stream &each : streams)
            ready.push_back({each.done() ? -1 : each.fd, each.events(reads), 0});
        if (poll(ready.data(), ready.size(), reads ? manners.patience_ms : kStuckMs) == 0) {
            for (stream &each : streams) {
                if (reads && !each.done()) each.fail("nothing happens any more");
            }
            reads = true;
        }
        more = false;
        for (size_t i = 0; i < streams.size(); i++) {
            stream &each = streams[i];
            if ((ready[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0) each.take();
            if (!each.done() && (ready[i].revents & POLLOUT) != 0) each.put();
            more |= !each.done();
            if (fault.empty()) fault = each.fault;
        }
    }
    for (const stream &each : streams)
        close(each.fd);
    return fault;
}
