// SPDX-License-Identifier: MIT
#include "host/attach.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "host/exit_codes.h"
#include "host/protocol_stack.h"
#include "host/report.h"
#include "host/run.h"
#include "host/services.h"
#include "host/stop_signals.h"
#include "host/tap_device.h"

namespace {

constexpr char kUsage[] =
    "usage: zarn attach --tap NAME --address A.B.C.D/LEN [OPTION]...\n"
    "\n"
    "Opens the TAP interface NAME, makes it if need be, and is a host with this address on its network:\n"
    "answers ARP and ping, echoes UDP datagrams to port 7 and TCP connections to port 7, and discards what\n"
    "TCP connections to port 9 send. SIGUSR1 has it print its counts, SIGINT and SIGTERM end it.\n"
    "\n"
    "  --tap NAME     the interface\n"
    "  --address A.B.C.D/LEN\n"
    "                 the host's address, and how many bits of it name the network, from 1 to 31\n"
    "  --pcap FILE    write every frame that crosses the device to FILE\n" RUN_OPTIONS_HELP
    "  --profile      measure the device, checksums and protocols; print the times at the end\n" RUN_LOG_HELP
    "  --help         this text\n"
    "\n"
    "Exit status: 0 all is well; 1 the device can't be opened or has gone, FILE can't be written, or the\n"
    "settings have a mistake; 2 wrong usage; 3 a module that is needed can't be loaded; 4 something was not\n"
    "given back at the end.\n";

// Frames that are received before what is due besides has its turn.
constexpr int kBatch = 64;

struct attach_options {
    run_options run;
    tap_settings tap;
};

int usage_error(const std::string &what) {
    fprintf(stderr, "zarn attach: %s; try 'zarn attach --help'\n", what.c_str());
    return kExitUsage;
}

bool parse_address(const char *text, tap_settings *tap) {
    const char *slash = strchr(text, '/');
    if (slash == nullptr) return false;
    const char *end = slash + strlen(slash);
    auto [rest, error] = std::from_chars(slash + 1, end, tap->prefix);
    if (error != std::errc() || rest != end || tap->prefix < 1 || tap->prefix > 31) return false;
    return inet_pton(AF_INET, std::string(text, slash).c_str(), tap->address) == 1;
}

// Whether one host can have the address.
bool is_host_address(const tap_settings &tap) {
    uint32_t address;
    memcpy(&address, tap.address, sizeof(address));
    const uint32_t bits = 0xffffffffu >> tap.prefix, host = ntohl(address) & bits;
    const bool own = bits == 1 || (host != 0 && host != bits);
    return own && tap.address[0] != 0 && tap.address[0] != 127 && tap.address[0] < 224;
}

// Whether a network interface can have the name; the kernel makes others of some.
bool is_interface_name(const std::string &name) {
    return !name.empty() && name.size() < 16 && name != "." && name != ".." &&
           name.find_first_of("/:% \t\n\v\f\r") == std::string::npos;
}

// Returns -1 to go on, or the exit code to end with.
int parse_options(int argc, char **argv, attach_options *options) {
    enum { kTap = 256, kAddress, kPcap, kHelp };
    static const option kOptions[] = {
        {"tap", required_argument, nullptr, kTap},   {"address", required_argument, nullptr, kAddress},
        {"pcap", required_argument, nullptr, kPcap}, RUN_OPTIONS,
        {"help", no_argument, nullptr, kHelp},       {},
    };
    opterr = 0;
    optind = 1;
    for (int found; (found = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        switch (found) {
            case kTap:
                options->tap.name = optarg;
                if (!is_interface_name(options->tap.name))
                    return usage_error("'" + options->tap.name + "' is no name of an interface");
                break;
            case kAddress:
                if (!parse_address(optarg, &options->tap))
                    return usage_error(std::string(optarg) +
                                       " is no address like 10.9.9.2/24, with 1 to 31 bits");
                if (!is_host_address(options->tap))
                    return usage_error(std::string(optarg) + " is no address of one host");
                break;
            case kPcap:
                options->tap.record_path = optarg;
                break;
            case kHelp:
            case 'h':
                fputs(kUsage, stdout);
                return kExitOk;
            case ':':
                return usage_error(std::string(argv[optind - 1]) + " needs a value");
            case '?':
                return usage_error("unknown or ambiguous option " + std::string(argv[optind - 1]));
            default:
                if (const char *wrong = take_run_option(found, optarg, &options->run))
                    return usage_error(wrong);
        }
    }
    if (optind < argc) return usage_error("unexpected argument " + std::string(argv[optind]));
    if (options->tap.name.empty()) return usage_error("no interface named: --tap NAME");
    if (options->tap.prefix == 0) return usage_error("no address given: --address A.B.C.D/LEN");
    return -1;
}

// The host while it is attached.
struct attachment {
    const attach_options *options;
    tap_device tap;
    protocol_stack *stack;
    host_services services;
    protocol_counts counts;  // what was taken from the protocols so far
};

void print_start(const attachment &host) {
    const sample_device &device = host.tap.device;
    const uint8_t *hardware = device.hardware;
    printf("%s/%" PRIu32 " on %s, hardware address %02x:%02x:%02x:%02x:%02x:%02x, MTU %" PRIu32 "\n",
           address_text(device.address).c_str(), device.prefix, host.tap.name.c_str(), hardware[0],
           hardware[1], hardware[2], hardware[3], hardware[4], hardware[5], device.mtu);
    for (const host_service *service : host.services.all)
        printf("  %s\n", service_text(*service).c_str());
    printf("This machine reaches it with an address of its own there:\n\n  sudo ip addr add %s/%" PRIu32
           " dev %s\n\n",
           tap_peer_address(host.options->tap).c_str(), device.prefix, host.tap.name.c_str());
    fflush(stdout);
}

void print_counts(attachment *host, const protocol_counts &fresh) {
    add_protocol_counts(&host->counts, fresh);
    const device_counts &device = host->tap.counts;
    const service_counts &served = host->services.counts;
    print_host_counts(host->counts);
    printf("  %s: %" PRIu64 " frames, %" PRIu64 " bytes received; %" PRIu64 " frames, %" PRIu64
           " bytes sent\n",
           host->tap.name.c_str(), device.received, device.received_bytes, device.sent, device.sent_bytes);
    printf("  dropped: %" PRIu64 " without room, %" PRIu64 " too long or too short, %" PRIu64 " not sent\n",
           device.without_room, device.unfit, device.not_sent);
    printf("  UDP echo: %" PRIu64 " datagrams, %" PRIu64 " bytes\n", served.datagrams, served.datagram_bytes);
    printf("  TCP: %" PRIu64 " connections, %zu of them open, %" PRIu64 " failed; %" PRIu64
           " bytes echoed, %" PRIu64 " discarded\n\n",
           served.connections, host->services.connections.size(), served.failed, served.echoed_bytes,
           served.discarded_bytes);
    fflush(stdout);
}

// Until somebody asks to stop. Returns an exit code.
int serve(attachment *host) {
    while (!stop_requested()) {
        if (!wait_for_tap(&host->tap)) return kExitInput;
        zarn_data_t *frame;
        tap_read read = tap_read::kFrame;
        for (int i = 0; i < kBatch && read != tap_read::kNothing; i++) {
            read = read_tap_frame(&host->tap, &frame);
            if (read == tap_read::kFrame) receive_frame(host->stack, frame);
        }
        {
            profile_bracket bracket(host->stack, "zarn", "attend");
            attend_protocols(host->stack);
            serve_clients(&host->services);
        }
        if (report_requested()) print_counts(host, take_protocol_counts(host->stack));
    }
    return kExitOk;
}

// With the modules loaded and the device open. Returns an exit code.
int run_host(attachment *host) {
    zarn_util_module_t *util = host->stack->util;
    if (!create_tap_slots(&host->tap, host->stack)) return kExitInput;
    int code = kExitModule;
    if (attach_protocols(host->stack, &host->tap.device)) {
        start_services(&host->services, util);
        print_start(*host);
        enter_debugger(host->options->run.debugger);
        code = serve(host);
        stop_services(&host->services);
        detach_protocols(host->stack);
    }
    print_counts(host, flush_protocols(host->stack));
    const std::array<pool_state, kPools> pools = measure_pools(util);
    print_report_end({}, pools);
    if (host->options->run.profile) print_profile(stdout);
    if (const int known = run_debug_commands(host->options->run.debugger); code == kExitOk) code = known;
    if (!pools_are_full(pools)) code = kExitFault;
    if (const int32_t out = delete_tap_slots(&host->tap); out != 0) {
        fprintf(stderr, "zarn: %" PRId32 " frames were not given back\n", out);
        code = kExitFault;
    }
    return code;
}

}  // namespace

int run_attach(int argc, char **argv) {
    attach_options options;
    int code = parse_options(argc, argv, &options);
    if (code >= 0) return code;
    code = prepare_run(options.run, "attach");
    if (code != kExitOk) return code;
    attachment host = {&options, {}, nullptr, {}, {}};
    if (!open_tap_device(&host.tap, options.tap)) return kExitInput;
    wake_on_signals(host.tap.attention_fd);
    accept_stop_signals();
    code = run_protocols(options.run, [&](protocol_stack *stack) {
        host.stack = stack;
        return run_host(&host);
    });
    wake_on_signals(-1);
    close_tap_device(&host.tap);
    if (host.tap.record_failed && code == kExitOk) code = kExitInput;
    return code;
}
