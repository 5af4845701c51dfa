// SPDX-License-Identifier: MIT
#include "bench/live/machine_host.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>
#include <vector>

#include "tests/live/network.h"
#include "tests/live/relay.h"
#include "tests/live/traffic.h"

namespace {

int open_server(int type, int port) {
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_port = htons(static_cast<uint16_t>(port));
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr *>(&here), sizeof here) != 0) return -1;
    return type == SOCK_DGRAM || listen(fd, 128) == 0 ? fd : -1;
}

void echo_datagrams_of(int fd) {
    std::vector<char> buffer(65536);
    for (;;) {
        sockaddr_in peer;
        socklen_t size = sizeof peer;
        ssize_t count =
            recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&peer), &size);
        if (count >= 0)
            sendto(fd, buffer.data(), static_cast<size_t>(count), 0, reinterpret_cast<sockaddr *>(&peer),
                   size);
    }
}

void serve_stream(int fd, bool echoes) {
    std::vector<char> buffer(65536);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (ssize_t count; (count = recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
        for (ssize_t sent = 0, more = 0; echoes && sent < count; sent += more) {
            more =
                send(fd, &buffer[static_cast<size_t>(sent)], static_cast<size_t>(count - sent), MSG_NOSIGNAL);
            if (more < 0) break;
        }
    }
    close(fd);
}

void serve_streams_of(int fd, bool echoes) {
    for (int child; (child = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        std::thread(serve_stream, child, echoes).detach();
}

[[noreturn]] void be_host(int wire, const std::string &address, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int own = -1;
    if (enter_own_network("ip").empty()) own = open_tap("own0");
    if (own < 0 || run_tool("ip addr add " + address + " dev own0 && ip link set own0 up").code != 0)
        _exit(1);
    int datagrams = open_server(SOCK_DGRAM, kEchoPort), echo = open_server(SOCK_STREAM, kEchoPort),
        discard = open_server(SOCK_STREAM, kDiscardPort);
    if (datagrams < 0 || echo < 0 || discard < 0 || write(ready, "", 1) != 1) _exit(1);
    relay carrier(wire, own);
    std::thread(echo_datagrams_of, datagrams).detach();
    std::thread(serve_streams_of, echo, true).detach();
    serve_streams_of(discard, false);
    _exit(1);
}

}  // namespace

pid_t start_machine_host(const std::string &tap, const std::string &address) {
    int wire = open_tap(tap), ready[2];
    if (wire < 0 || pipe(ready) != 0) return -1;
    fflush(nullptr);
    pid_t host = fork();
    if (host == 0) {
        close(ready[0]);
        be_host(wire, address, ready[1]);
    }
    close(wire);
    close(ready[1]);
    char byte;
    bool serves = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    return serves ? host : -1;
}
