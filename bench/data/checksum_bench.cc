// SPDX-License-Identifier: MIT
//
// Checksums of memory and of buffers, each form, beside the loop of RFC 1071 and the bandwidth of memcpy.

#include "data/checksum.h"

#include <algorithm>
#include <random>
#include <vector>

#include "bench/bench.h"
#include "data/zarn_data.h"

namespace {

constexpr uint32_t kLengths[] = {20, 64, 576, 1500, 9000, 65536};

// Both in one block, half a page apart in their pages: a processor that compares the low bits of addresses
// first takes a load that lies just behind a store one page away for a load of what was stored.
constexpr uint32_t kLongest = 65536;
alignas(4096) uint8_t gMemory[2 * kLongest + 4096];
uint8_t *const gSource = gMemory;
uint8_t *const gTarget = gMemory + kLongest + 2048;

std::string run_name(const std::string &group, uint32_t length, bool odd, const std::string &variant) {
    return group + "/" + std::to_string(length) + (odd ? "_odd" : "_aligned") + "/" + variant;
}

template <bool kSums = true, typename run>
void add_run(const std::string &group, uint32_t length, bool odd, const std::string &variant, run work) {
    add_benchmark(run_name(group, length, odd, variant), [=](benchmark::State &state) {
        uint32_t bytes = hide(length);
        const uint8_t *from = hide(gSource + odd);
        if (kSums && work(from, bytes) != rfc1071_loop(from, bytes)) state.SkipWithError("wrong sum");
        for (auto _ : state)
            benchmark::DoNotOptimize(work(from, bytes));
    });
}

std::vector<checksum_form> forms() {
    uint32_t count;
    const checksum_form *wide = get_wide_checksums(&count);
    std::vector<checksum_form> all = {{"module", chksum, cpysum}, kPlainChecksum};
    all.insert(all.end(), wide, wide + count);
    return all;
}

uint32_t copy_bytes(const void *from, uint32_t length) {
    copy_memory(gTarget, from, length);
    return 0;
}

[[maybe_unused]] const bool gAdded = [] {
    std::generate_n(gSource, kLongest + 1, std::minstd_rand());
    for (bool odd : {false, true}) {
        for (uint32_t length : kLengths) {
            for (const checksum_form &form : forms())
                add_run("checksum", length, odd, form.name, form.sum);
            add_run("checksum", length, odd, "rfc1071_loop", rfc1071_loop);
            // No sum, but what there is to be had of the memory.
            add_run<false>("checksum", length, odd, "memcpy", copy_bytes);

            for (const checksum_form &form : forms())
                add_run("copy_and_sum", length, odd, form.name,
                        [=](const uint8_t *from, uint32_t bytes) { return form.copy(gTarget, from, bytes); });
            add_run("copy_and_sum", length, odd, "memcpy_then_module",
                    [](const uint8_t *from, uint32_t bytes) {
                        copy_bytes(from, bytes);
                        return chksum(gTarget, bytes);
                    });
            add_run("copy_and_sum", length, odd, "memcpy_then_loop", [](const uint8_t *from, uint32_t bytes) {
                copy_bytes(from, bytes);
                return rfc1071_loop(gTarget, bytes);
            });
        }
    }
    // The walk over scattered pieces: the same 1500 bytes in one piece, in a header and a payload, in seven.
    for (std::vector<uint32_t> pieces :
         {std::vector<uint32_t>{1500}, {20, 1480}, {14, 20, 20, 400, 401, 305, 340}}) {
        add_benchmark(
            "buffer_checksum/1500_in_" + std::to_string(pieces.size()) + "/module",
            [pieces](benchmark::State &state) {
                zarn_data_t *data = util->new_zarn_data();
                uint32_t at = 0;
                for (uint32_t piece : pieces) {
                    util->append_zarn_data(data, gSource + at, piece, nullptr);
                    at += piece;
                }
                if (util->get_zarn_data_checksum(data, 0, 1500) != (~rfc1071_loop(gSource, 1500) & 0xffff))
                    state.SkipWithError("wrong checksum");
                for (auto _ : state)
                    benchmark::DoNotOptimize(util->get_zarn_data_checksum(data, 0, 1500));
                util->delete_zarn_data(data);
            });
    }
    return true;
}();

}  // namespace
