// SPDX-License-Identifier: MIT
//
// How fast the host that the program is on a TAP device answers, beside the machine's own stack on the same
// kind of device. bench/live/run says how it is started.

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "bench/live/machine_host.h"
#include "tests/live/network.h"
#include "tests/live/relay.h"
#include "tests/live/traffic.h"

namespace {

constexpr int kSkipped = 77;
// The hosts that are measured: all with the address 2 of their network, this side with 1.
enum { kZarn, kForwarded, kMachine, kLanes };
const struct {
    const char *name, *device, *network;  // `device` is this side's
} kLane[kLanes] = {
    {"zarn", "z0", "10.7.0."},
    {"zarn, forwarded", "f0", "10.8.0."},
    {"machine, forwarded", "m0", "10.9.0."},
};

bool shortened;  // every measurement for a moment only

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

[[noreturn]] void give_up(const std::string &what) {
    fprintf(stderr, "live_bench: %s\n", what.c_str());
    exit(1);
}

// How many times a second 64 bytes go there and back, one at a time. `there` fills the message in, `back`
// says whether what came is the answer.
double round_trips(int fd, const std::function<void(char *)> &there,
                   const std::function<bool(char *)> &back) {
    if (fd < 0) give_up(std::string("no socket: ") + strerror(errno));
    const double span = shortened ? 0.02 : 1;
    char message[64], answer[128];
    int trips = 0;
    auto start = std::chrono::steady_clock::now();
    do {
        memset(message, trips, sizeof message);
        there(message);
        if (send(fd, message, sizeof message, 0) != sizeof message) give_up("a message could not be sent");
        do {
            if (recv(fd, answer, sizeof answer, 0) < 0) give_up("no answer within 10 s");
        } while (!back(answer));
        trips++;
    } while (seconds_since(start) < span);
    double rate = trips / seconds_since(start);
    close(fd);
    return rate;
}

double plain_round_trips(const char *host, int type) {
    int fd = connect_to(host, type, kEchoPort), on = 1;
    if (type == SOCK_STREAM) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return round_trips(
        fd, [](char *) {}, [](char *) { return true; });
}

double udp_round_trips(const char *host) {
    return plain_round_trips(host, SOCK_DGRAM);
}
double tcp_round_trips(const char *host) {
    return plain_round_trips(host, SOCK_STREAM);
}

double icmp_round_trips(const char *host) {
    uint16_t number = 0;
    auto ask = [&](char *message) {
        icmphdr header = {};
        header.type = ICMP_ECHO;
        header.un.echo.sequence = ++number;
        memcpy(message, &header, sizeof header);
        uint32_t sum = 0;
        for (int i = 0; i < 64; i += 2) {
            uint16_t word;
            memcpy(&word, message + i, 2);
            sum += word;
        }
        sum = (sum & 0xffff) + (sum >> 16);
        header.checksum = static_cast<uint16_t>(~(sum + (sum >> 16)));
        memcpy(message, &header, sizeof header);
    };
    auto answers = [&](char *packet) {
        icmphdr header;
        memcpy(&header, packet + sizeof(iphdr), sizeof header);
        return header.type == ICMP_ECHOREPLY && header.un.echo.sequence == number;
    };
    return round_trips(connect_to(host, SOCK_RAW, 0, IPPROTO_ICMP), ask, answers);
}

double mebibytes_a_second(const char *host, int port, unsigned mebibytes) {
    if (shortened) mebibytes = 1;
    auto start = std::chrono::steady_clock::now();
    std::string fault = echo_streams(host, 1, uint64_t{mebibytes} << 20, {.port = port});
    if (!fault.empty()) give_up(fault);
    return mebibytes / seconds_since(start);
}

double echo_stream(const char *host) {
    return mebibytes_a_second(host, kEchoPort, 64);
}
double discard_stream(const char *host) {
    return mebibytes_a_second(host, kDiscardPort, 256);
}

const struct {
    const char *name, *unit;
    double (*measure)(const char *host);
} kMeasurements[] = {
    {"ICMP echo, 64 bytes", "round trips/s", icmp_round_trips},
    {"UDP echo, 64 bytes", "round trips/s", udp_round_trips},
    {"TCP echo, 64 bytes", "round trips/s", tcp_round_trips},
    {"TCP echo, 64 MiB", "MiB/s", echo_stream},
    {"TCP discard, 256 MiB", "MiB/s", discard_stream},
};

pid_t start_zarn(const std::string &tap, const std::string &address) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
        execl(ZARN_PROGRAM, ZARN_PROGRAM, "attach", "--tap", tap.c_str(), "--address", address.c_str(),
              nullptr);
        _exit(127);
    }
    for (int i = 0; if_nametoindex(tap.c_str()) == 0; i++) {
        if (i == 1000 || waitpid(child, nullptr, WNOHANG) != 0) give_up("'zarn attach' made no device");
        usleep(10000);
    }
    return child;
}

// A process that carries frames between `device`, which has no address here, and the new TAP device `tap`.
pid_t start_forwarder(const std::string &tap, const std::string &device) {
    if (run_tool("ip link set " + device + " arp off up").code != 0) give_up("can't bring up " + device);
    int one = open_tap(tap), other = open_packets(device);
    if (one < 0 || other < 0) give_up("can't open " + tap + " and " + device);
    pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        relay carrier(one, other);
        for (;;)
            pause();
    }
    close(one);
    close(other);
    return child;
}

double median(std::vector<double> &values) {
    std::sort(values.begin(), values.end());
    return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char **argv) {
    int repetitions = 1;
    if (argc == 2 && strcmp(argv[1], "--short") == 0)
        shortened = true;
    else if (argc != 2 || (repetitions = atoi(argv[1])) < 1)
        give_up("usage: live_bench REPETITIONS | --short");
    std::string reason = enter_own_network("ip");
    if (!reason.empty()) {
        fprintf(stderr, "live_bench: %s\n", reason.c_str());
        return kSkipped;
    }
    pid_t zarn[] = {start_zarn("z0", "10.7.0.2/24"), start_zarn("y0", "10.8.0.2/24")};
    pid_t carriers[] = {start_forwarder("f0", "y0"), start_machine_host("m0", "10.9.0.2/24")};
    if (carriers[1] < 0) give_up("the machine's own stack does not serve");
    for (const auto &lane : kLane) {
        const std::string device = lane.device, network = lane.network;
        tool_result ready =
            run_tool("ip addr add " + network + "1/24 dev " + device + " && ip link set " + device + " up");
        if (ready.code != 0) give_up(ready.out);
    }

    printf("%-21s %-13s", "median (min to max)", "");
    for (const auto &lane : kLane)
        printf(" %26s", lane.name);
    printf(" %14s\n", "ratios");
    for (const auto &measurement : kMeasurements) {
        std::vector<double> rates[kLanes];
        for (int i = 0; i < repetitions; i++) {
            for (int lane = 0; lane < kLanes; lane++)
                rates[lane].push_back(measurement.measure((kLane[lane].network + std::string("2")).c_str()));
        }
        double middle[kLanes];
        printf("%-21s %-13s", measurement.name, measurement.unit);
        for (int lane = 0; lane < kLanes; lane++) {
            middle[lane] = median(rates[lane]);
            printf(" %7.0f (%6.0f to %6.0f)", middle[lane], rates[lane].front(), rates[lane].back());
        }
        printf(" %7.2f %6.2f\n", middle[kZarn] / middle[kMachine], middle[kForwarded] / middle[kMachine]);
        fflush(stdout);
    }
    for (pid_t each : carriers)
        kill(each, SIGKILL);
    for (pid_t each : zarn) {
        int status = 0;
        kill(each, SIGTERM);
        waitpid(each, &status, 0);
        if (status != 0) give_up("'zarn attach' did not end well");
    }
    return 0;
}
