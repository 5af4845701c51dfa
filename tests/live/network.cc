// SPDX-License-Identifier: MIT
#include "tests/live/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

std::string enter_own_network(const std::string &tools) {
    if (geteuid() != 0) return "needs root, for a network namespace and a TAP device in it";
    if (access("/dev/net/tun", R_OK | W_OK) != 0) return "needs /dev/net/tun, which is not there";
    std::istringstream names(tools);
    for (std::string tool; names >> tool;) {
        if (run_tool("command -v " + tool).code != 0) return "needs " + tool + ", which is not installed";
    }
    if (unshare(CLONE_NEWNET) != 0) return std::string("needs a network namespace: ") + strerror(errno);
    tool_result up = run_tool("ip link set lo up");
    return up.code == 0 ? "" : up.out;
}

int open_tap(const std::string &name) {
    int device = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (device < 0) return -1;
    ifreq request = {};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    if (ioctl(device, TUNSETIFF, &request) == 0) return device;
    close(device);
    return -1;
}

int open_packets(const std::string &name) {
    int packets = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (packets < 0) return -1;
    // The kernel's own choice holds a hundred frames, and a burst is longer.
    int bytes = 16 << 20, on = 1;
    sockaddr_ll place = {};
    place.sll_family = AF_PACKET;
    place.sll_protocol = htons(ETH_P_ALL);
    place.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    if (setsockopt(packets, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0 &&
        setsockopt(packets, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
        bind(packets, reinterpret_cast<sockaddr *>(&place), sizeof place) == 0) {
        return packets;
    }
    close(packets);
    return -1;
}

tool_result run_tool(const std::string &command) {
    tool_result result = {127, ""};
    FILE *tool = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
    if (tool == nullptr) return result;
    char bytes[4096];
    for (size_t count; (count = fread(bytes, 1, sizeof bytes, tool)) > 0;)
        result.out.append(bytes, count);
    int status = pclose(tool);
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}
