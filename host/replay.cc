// SPDX-License-Identifier: MIT
#include "host/replay.h"

#include <getopt.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "host/capture_reader.h"
#include "host/exit_codes.h"
#include "host/frame_slots.h"
#include "host/heap_meter.h"
#include "host/kernel_log.h"
#include "host/progress.h"
#include "host/protocol_stack.h"
#include "host/report.h"
#include "platform/hosted/hosted_kernel.h"
#include "platform/kern.h"

namespace {

constexpr char kUsage[] =
    "usage: zarn replay [--modules DIR] [--tsv | --json] FILE...\n"
    "\n"
    "Reads Ethernet captures (pcap of either byte order, pcapng), runs every frame through the\n"
    "modules, and prints what the protocols have counted. FILE can be - for the standard input.\n"
    "\n"
    "  --modules DIR  where the modules lie (default: the directory modules beside the program)\n"
    "  --tsv          a header line, and a row of tab-separated values for each file\n"
    "  --json         a JSON object on a line for each file\n"
    "  --help         this text\n"
    "\n"
    "A file's status is ok, cut (it ends inside a record), damaged (it holds a record that cannot be),\n"
    "not_a_capture or unreadable. Whatever could be read before is counted.\n"
    "\n"
    "Exit status: 0 all is well; 1 a file could not be read to its end or holds frames that are not\n"
    "Ethernet; 2 wrong usage; 3 a module can't be loaded; 4 something was not given back at the end.\n";

// As many as the longest frame takes, and some.
constexpr int32_t kSlots = 256;

struct replay_options {
    std::string modules;
    report_format format = report_format::kTable;
    std::vector<const char *> files;
};

std::string default_module_directory() {
    std::error_code error;
    std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path() / "modules").string();
}

int usage_error(const std::string &what) {
    fprintf(stderr, "zarn replay: %s; try 'zarn replay --help'\n", what.c_str());
    return kExitUsage;
}

// Returns -1 to go on, or the exit code to end with.
int parse_options(int argc, char **argv, replay_options *options) {
    enum { kModules = 256, kTsv, kJson, kHelp };
    static const option kOptions[] = {
        {"modules", required_argument, nullptr, kModules},
        {"tsv", no_argument, nullptr, kTsv},
        {"json", no_argument, nullptr, kJson},
        {"help", no_argument, nullptr, kHelp},
        {},
    };
    bool tsv = false, json = false;
    opterr = 0;
    optind = 1;
    for (int found; (found = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        switch (found) {
            case kModules:
                options->modules = optarg;
                break;
            case kTsv:
                tsv = true;
                options->format = report_format::kTsv;
                break;
            case kJson:
                json = true;
                options->format = report_format::kJson;
                break;
            case kHelp:
            case 'h':
                fputs(kUsage, stdout);
                return kExitOk;
            case ':':
                return usage_error(std::string(argv[optind - 1]) + " needs a value");
            default:
                return usage_error("unknown or ambiguous option " + std::string(argv[optind - 1]));
        }
    }
    if (tsv && json) return usage_error("--tsv and --json exclude each other");
    for (int i = optind; i < argc; i++)
        options->files.push_back(argv[i]);
    if (options->files.empty()) return usage_error("no file named");
    if (options->modules.empty()) options->modules = default_module_directory();
    return -1;
}

void print_input_error(const char *path, uint64_t frame, const std::string &what) {
    if (frame != 0) {
        fprintf(stderr, "zarn: %s: frame %" PRIu64 ": %s\n", path, frame, what.c_str());
    } else {
        fprintf(stderr, "zarn: %s: %s\n", path, what.c_str());
    }
}

// Runs all frames of one file through the protocols. `result->error` is empty when all is well.
void replay_file(const char *path, const protocol_stack *stack, frame_slots *slots, file_result *result) {
    *result = {};
    result->path = path;
    progress_line progress;
    start_progress(&progress, path);
    uint64_t bad_frame = 0;
    uint64_t first_foreign = 0;  // frame that is not Ethernet

    capture_reader reader;
    int64_t start = kern_time_us();
    bool opened = open_capture(&reader, path);
    captured_frame frame;
    while (opened && read_frame(&reader, &frame)) {
        result->frames++;
        result->captured_bytes += frame.captured;
        result->wire_bytes += frame.on_wire;
        if (frame.captured < frame.on_wire) result->cut_short++;
        if (result->frames % 1024 == 0) update_progress(&progress, result->frames, capture_progress(&reader));
        if (!frame.ethernet) {
            if (result->not_ethernet++ == 0) first_foreign = result->frames;
            continue;
        }
        // Some writers give an original length below the captured one; the frame then has what was captured.
        uint32_t on_wire = std::max(frame.captured, frame.on_wire);
        zarn_data_t *data = wrap_frame(slots, frame.bytes, frame.captured, on_wire);
        if (data == nullptr) {
            bad_frame = result->frames;
            result->error = "out of memory, the rest of the file is left out";
            break;
        }
        receive_frame(stack, data);
    }
    result->seconds = static_cast<double>(kern_time_us() - start) / 1e6;
    end_progress(&progress);

    result->status = reader.status;
    result->protocols = take_protocol_counts(stack);
    if (reader.status != capture_status::kOk) {
        result->error = reader.error;
        if (opened) bad_frame = result->frames + 1;
    } else if (result->error.empty() && first_foreign != 0) {
        bad_frame = first_foreign;
        result->error = "the link type " + reader.link_name + " is not Ethernet; " +
                        std::to_string(result->not_ethernet) + " such frames were left out";
    }
    if (!result->error.empty()) print_input_error(path, bad_frame, result->error);
    close_capture(&reader);
}

// Whether all blocks are back in their pools; says so on stderr when they are not.
bool pools_are_full(const std::array<pool_state, kPools> &pools) {
    bool full = true;
    for (const pool_state &pool : pools) {
        if (pool.out == 0) continue;
        fprintf(stderr, "zarn: %" PRIu32 " blocks of the %s pool were not given back\n", pool.out, pool.name);
        full = false;
    }
    return full;
}

// Whether the kernel is as empty as before the first module was loaded.
bool kernel_is_empty() {
    hosted_counts counts = hosted_count_objects();
    if (counts.modules == 0 && counts.module_references == 0 && counts.semaphores == 0 &&
        counts.threads == 0 && counts.regions == 0 && counts.debug_commands == 0) {
        return true;
    }
    fprintf(stderr, "zarn: the modules have left something behind:\n");
    hosted_log_objects();
    return false;
}

}  // namespace

int run_replay(int argc, char **argv) {
    replay_options options;
    int code = parse_options(argc, argv, &options);
    if (code >= 0) return code;

    if (hosted_set_module_directory(options.modules.c_str()) != 0)
        return usage_error("the path of the module directory is too long");
    protocol_stack stack;
    hold_kernel_log();
    bool loaded = load_protocol_stack(&stack);
    release_kernel_log(!loaded);
    if (!loaded) return kExitModule;

    code = kExitOk;
    bool empty = true;
    frame_slots slots;
    if (install_heap_meter(stack.util) != 0) {
        fprintf(stderr, "zarn: the heap calls of the module can't be counted\n");
        code = kExitModule;
    } else if (create_frame_slots(&slots, stack.util, kSlots) != 0) {
        fprintf(stderr, "zarn: out of memory\n");
        code = kExitInput;
    } else {
        file_result result;
        print_report_start(options.format);
        for (const char *path : options.files) {
            replay_file(path, &stack, &slots, &result);
            result.pools = measure_pools(stack.util);
            print_file_result(options.format, result);
            if (!result.error.empty()) code = kExitInput;
        }
        print_report_end(options.format, result.pools);
        empty = pools_are_full(result.pools);
        if (int32_t out = delete_frame_slots(&slots); out != 0) {
            fprintf(stderr, "zarn: %" PRId32 " frames were not given back\n", out);
            empty = false;
        }
    }
    hold_kernel_log();
    if (!unload_protocol_stack(&stack)) empty = false;
    if (!kernel_is_empty()) empty = false;
    release_kernel_log(!empty);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "zarn: can't write the report\n");
        code = kExitInput;
    }
    return empty ? code : kExitNotEmpty;
}
