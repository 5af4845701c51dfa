// SPDX-License-Identifier: MIT
#include "host/replay.h"

#include <getopt.h>
#include <malloc.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/capture_reader.h"
#include "host/connections.h"
#include "host/exit_codes.h"
#include "host/heap_meter.h"
#include "host/pipeline.h"
#include "host/progress.h"
#include "host/protocol_stack.h"
#include "host/report.h"
#include "host/run.h"
#include "host/stop_signals.h"
#include "platform/kern.h"

namespace {

constexpr char kUsage[] =
    "usage: zarn replay [OPTION]... FILE...\n"
    "\n"
    "Reads Ethernet captures (pcap of either byte order, pcapng), takes every frame through a queue to\n"
    "the protocol modules that the settings name, and prints what these have counted, and the TCP\n"
    "connections and UDP datagrams that endpoints have received. FILE can be - for the standard input.\n"
    "\n" RUN_OPTIONS_HELP
    "  --tsv          a header line, and a row of tab-separated values for each file\n"
    "  --json         a JSON object on a line for each file\n"
    "  --rate N       receive N frames a second (default: as fast as they can be read)\n"
    "  --repeat N     read each file N times (default: once)\n"
    "  --drop         drop frames that find the queue full, and count them (default: wait)\n"
    "  --interrupt    receive frames at interrupt level: in the handler of a real-time signal\n"
    "  --dma          wire and map each frame as for hardware, and check that the map has its length\n"
    "  --backlog N    TCP connections that wait to be made or accepted, at most (default: 128)\n"
    "  --profile      measure the reception, the checksums and each protocol, and print the times behind\n"
    "                 the report (stderr with --tsv and --json); nothing at interrupt level\n" RUN_LOG_HELP
    "  --help         this text\n"
    "\n"
    "A file's status is ok, cut (it ends inside a record), damaged (it holds a record that cannot be),\n"
    "not_a_capture, unreadable or stopped (by SIGINT or SIGTERM, or because there was no memory for the\n"
    "next frame). Whatever was read before is counted.\n"
    "\n"
    "Exit status: 0 all is well; 1 a file could not be read to its end or holds frames that are not\n"
    "Ethernet, or the settings have a mistake; 2 wrong usage; 3 a module that is needed or named in the\n"
    "settings can't be loaded; 4 a module keeps all frames, or something was not given back at the end or\n"
    "was done at interrupt level that must not be, or --dma has found a wrong map.\n";

constexpr uint64_t kMostBacklog = 1'000'000;

constexpr char kStalledText[] =
    "the modules have all the memory for frames and have given none back for 5 s, the rest is left out; look "
    "for a module that keeps its buffers, or that neither hands them on nor deletes them";
static_assert(kStalledSeconds == 5);

struct replay_options {
    run_options run;
    report_style style;
    uint64_t rate = 0;  // frames per second, 0 for no limit
    uint64_t repeat = 1;
    uint64_t backlog = kDefaultBacklog;
    bool interrupts = false;
    std::vector<const char *> files;
};

int usage_error(const std::string &what) {
    fprintf(stderr, "zarn replay: %s; try 'zarn replay --help'\n", what.c_str());
    return kExitUsage;
}

// A number from 1 to a million million.
bool parse_count(const char *text, uint64_t *count) {
    constexpr uint64_t kMost = 1'000'000'000'000;
    const char *end = text + strlen(text);
    auto [rest, error] = std::from_chars(text, end, *count);
    return error == std::errc() && rest == end && *count >= 1 && *count <= kMost;
}

// Returns -1 to go on, or the exit code to end with.
int parse_options(int argc, char **argv, replay_options *options) {
    enum { kTsv = 256, kJson, kRate, kRepeat, kBacklog, kDrop, kInterrupt, kDma, kHelp };
    static const option kOptions[] = {
        RUN_OPTIONS,
        {"tsv", no_argument, nullptr, kTsv},
        {"json", no_argument, nullptr, kJson},
        {"rate", required_argument, nullptr, kRate},
        {"repeat", required_argument, nullptr, kRepeat},
        {"backlog", required_argument, nullptr, kBacklog},
        {"drop", no_argument, nullptr, kDrop},
        {"interrupt", no_argument, nullptr, kInterrupt},
        {"dma", no_argument, nullptr, kDma},
        {"help", no_argument, nullptr, kHelp},
        {},
    };
    bool tsv = false, json = false;
    opterr = 0;
    optind = 1;
    for (int found; (found = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        switch (found) {
            case kTsv:
                tsv = true;
                options->style.format = report_format::kTsv;
                break;
            case kJson:
                json = true;
                options->style.format = report_format::kJson;
                break;
            case kRate:
            case kRepeat:
                if (!parse_count(optarg, found == kRate ? &options->rate : &options->repeat))
                    return usage_error(std::string(optarg) + " is no number from 1 up");
                break;
            case kBacklog:
                if (!parse_count(optarg, &options->backlog) || options->backlog > kMostBacklog)
                    return usage_error(std::string(optarg) + " is no backlog from 1 to 1000000");
                break;
            case kDrop:
                options->style.drops = true;
                break;
            case kInterrupt:
                options->interrupts = true;
                break;
            case kDma:
                options->style.dma = true;
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
    if (tsv && json) return usage_error("--tsv and --json exclude each other");
    for (int i = optind; i < argc; i++) {
        options->files.push_back(argv[i]);
        if (strcmp(argv[i], "-") == 0 && options->repeat > 1)
            return usage_error("the standard input can't be read more than once");
        if (strcmp(argv[i], "-") == 0 && options->run.debugger.enter)
            return usage_error("the standard input can't be both a capture and the debugger's");
    }
    if (options->files.empty()) return usage_error("no file named");
    return -1;
}

void print_input_error(const char *path, uint64_t frame, const std::string &what) {
    if (frame != 0) {
        fprintf(stderr, "zarn: %s: frame %" PRIu64 ": %s\n", path, frame, what.c_str());
    } else {
        fprintf(stderr, "zarn: %s: %s\n", path, what.c_str());
    }
}

// Holds the receiving side back to so many frames a second. Each frame has its time, counted from the start,
// so that what one sleep takes too long is made up for.
struct frame_pacer {
    uint64_t rate;  // 0 for no limit
    int64_t start;  // usec
};

void wait_for_turn(const frame_pacer *pacer, uint64_t frame) {
    if (pacer->rate == 0) return;
    constexpr int64_t kLongest = 50'000;  // a request to stop is not to wait longer
    int64_t due = pacer->start + static_cast<int64_t>(frame / pacer->rate * 1'000'000 +
                                                      frame % pacer->rate * 1'000'000 / pacer->rate);
    for (int64_t left; !stop_requested() && (left = due - kern_time_us()) > 0;)
        kern_sleep_us(std::min(left, kLongest));
}

// One file on its way through the pipeline.
struct file_replay {
    const replay_options *options;
    frame_pipeline *pipeline;
    endpoint_client *client;
    file_result *result;
    progress_line progress;
    frame_pacer pacer;
    uint64_t bad_frame;  // where in the file the trouble is, 0 when it is in no frame
    bool stalled;        // the modules give no more frames back
};

void note_trouble(file_replay *replay, uint64_t frame, const std::string &what) {
    if (!replay->result->error.empty()) return;
    replay->result->error = what;
    replay->bad_frame = frame;
}

// Offers the frames of the open file. False when there is no point in going on.
bool offer_frames(file_replay *replay, capture_reader *reader, uint64_t round) {
    file_result *result = replay->result;
    captured_frame frame;
    uint64_t read = 0, foreign = 0;
    while (!stop_requested() && read_frame(reader, &frame)) {
        wait_for_turn(&replay->pacer, result->frames);
        read++;
        result->frames++;
        result->captured_bytes += frame.captured;
        result->wire_bytes += frame.on_wire;
        if (frame.captured < frame.on_wire) result->cut_short++;
        if (read % 256 == 0) {
            double part = capture_progress(reader);
            if (part >= 0)
                part = (static_cast<double>(round) + part) / static_cast<double>(replay->options->repeat);
            note_progress(&replay->progress, result->frames, part);
        }
        if (!frame.ethernet) {
            if (foreign++ == 0)
                note_trouble(replay, read, "the link type " + reader->link_name + " is not Ethernet");
            continue;
        }
        const frame_fate fate = offer_frame(replay->pipeline, &frame);
        if (fate == frame_fate::kTaken || fate == frame_fate::kDropped) continue;
        result->status = capture_status::kStopped;
        result->error.clear();  // frames that are not Ethernet are counted as well
        replay->stalled = fate == frame_fate::kStalled;
        note_trouble(replay, read, replay->stalled ? kStalledText : "out of memory, the rest is left out");
        break;
    }
    result->not_ethernet += foreign;
    if (stop_requested()) {
        result->status = capture_status::kStopped;
    } else if (reader->status != capture_status::kOk) {
        result->status = reader->status;
        note_trouble(replay, read + 1, reader->error);
    }
    return result->status == capture_status::kOk && (result->error.empty() || foreign != 0);
}

// Runs all frames of one file through the protocols. `result->error` is empty when all is well. False when
// the modules give no more frames back.
bool replay_file(const char *path, const replay_options *options, frame_pipeline *pipeline,
                 endpoint_client *client, file_result *result) {
    *result = {};
    result->path = path;
    int64_t start = kern_time_us();
    file_replay replay = {options, pipeline, client, result, {}, {options->rate, start}, 0, false};
    start_progress(&replay.progress, pipeline->stack->util, path);
    bool going = true;
    for (uint64_t round = 0; going && round < options->repeat; round++) {
        capture_reader reader;
        if (open_capture(&reader, path)) {
            going = offer_frames(&replay, &reader, round);
        } else {
            result->status = reader.status;
            note_trouble(&replay, 0, reader.error);
            going = false;
        }
        close_capture(&reader);
    }
    result->dropped = drain_pipeline(pipeline);
    result->dma = pipeline->dma;
    pipeline->dma = {};
    result->seconds = static_cast<double>(kern_time_us() - start) / 1e6;
    result->connections = drain_endpoints(client);
    result->protocols = flush_protocols(pipeline->stack);
    end_progress(&replay.progress);
    if (!result->error.empty()) print_input_error(path, replay.bad_frame, result->error);
    return !replay.stalled;
}

uint64_t heap_bytes_in_use() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

// Replays the files. Returns an exit code.
int replay_files(const replay_options &options, const protocol_stack *stack) {
    endpoint_client client;
    if (!start_endpoints(&client, stack->util, static_cast<int32_t>(options.backlog))) return kExitModule;
    frame_pipeline pipeline;
    if (!start_pipeline(&pipeline, stack, options.interrupts, options.style.drops, options.style.dma)) {
        stop_endpoints(&client);
        return kExitInput;
    }
    accept_stop_signals();
    enter_debugger(options.run.debugger);

    int code = kExitOk;
    bool flows = true;
    uint64_t unloadable = 0, wrong_maps = 0;
    file_result result;
    print_report_start(options.style);
    for (const char *path : options.files) {
        if (stop_requested() || !flows) break;
        flows = replay_file(path, &options, &pipeline, &client, &result);
        result.pools = measure_pools(stack->util);
        result.heap_bytes = heap_bytes_in_use();
        print_file_result(options.style, result);
        if (!result.error.empty()) code = kExitInput;
        unloadable += result.protocols.unloadable;
        wrong_maps += result.dma.faults;
    }
    if (unloadable != 0) {
        fprintf(stderr,
                "zarn: the settings name protocols that can't be loaded; their packets went to nobody\n");
        code = kExitModule;
    }
    std::array<pool_state, kPools> pools = measure_pools(stack->util);
    print_report_end(options.style, pools);
    if (options.run.profile) print_profile(options.style.format == report_format::kTable ? stdout : stderr);
    if (int known = run_debug_commands(options.run.debugger); code == kExitOk) code = known;
    if (!pools_are_full(pools) || !flows) code = kExitFault;
    if (wrong_maps != 0) {
        fprintf(stderr, "zarn: %" PRIu64 " buffers were not mapped for hardware as they are\n", wrong_maps);
        code = kExitFault;
    }
    if (uint64_t calls = heap_calls_at_interrupt_level(); calls != 0) {
        fprintf(stderr, "zarn: %" PRIu64 " heap calls at interrupt level\n", calls);
        code = kExitFault;
    }
    if (int32_t out = stop_pipeline(&pipeline); out != 0) {
        fprintf(stderr, "zarn: %" PRId32 " frames were not given back\n", out);
        code = kExitFault;
    }
    stop_endpoints(&client);
    return code;
}

}  // namespace

int run_replay(int argc, char **argv) {
    replay_options options;
    int code = parse_options(argc, argv, &options);
    if (code >= 0) return code;

    code = prepare_run(options.run, "replay");
    if (code != kExitOk) return code;
    return run_protocols(options.run, [&](protocol_stack *stack) { return replay_files(options, stack); });
}
