// SPDX-License-Identifier: MIT
//
// The life of a packet, and a slice of a large buffer, beside what one does without such buffers: copy.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/bench.h"
#include "data/checksum.h"
#include "data/zarn_data.h"

namespace {

constexpr std::array<uint32_t, 3> kHeaders = {20, 20, 14};  // in the order in which they are prepended
constexpr uint32_t kHeaderBytes = 20 + 20 + 14;
constexpr uint32_t kLongestPayload = 9000;

// The driver's memory, in which the payload came, and the headers of the protocols.
alignas(64) uint8_t gReceived[kLongestPayload];
alignas(64) uint8_t gHeaders[3][64];
uint64_t gReturned;

// The driver takes its memory back.
void return_to_driver(void *) {
    gReturned += 1;
}

template <uint32_t kPayload>
void life_in_module(benchmark::State &state) {
    uint32_t checksum = 0;
    for (auto _ : state) {
        zarn_data_t *packet = util->new_zarn_data();
        util->append_zarn_data(packet, gReceived, kPayload, return_to_driver);
        for (size_t i = 0; i < kHeaders.size(); ++i)
            util->prepend_zarn_data(packet, gHeaders[i], kHeaders[i], nullptr);
        benchmark::DoNotOptimize(checksum = util->get_zarn_data_checksum(packet, 0, packet->length));
        for (size_t i = kHeaders.size(); i-- > 0;)
            util->trim_zarn_data(packet, 0, kHeaders[i]);
        if (packet->length != kPayload) state.SkipWithError("wrong length");
        util->delete_zarn_data(packet);
    }
}

// One block with room for the headers in front: the payload is copied once, a trim moves a pointer.
template <uint32_t kPayload, uint32_t (*sum)(const void *, uint32_t)>
void life_in_malloc(benchmark::State &state) {
    for (auto _ : state) {
        uint8_t *block = static_cast<uint8_t *>(std::malloc(kHeaderBytes + kPayload));
        uint8_t *at = block + kHeaderBytes;
        copy_memory(at, gReceived, kPayload);
        return_to_driver(gReceived);
        for (size_t i = 0; i < kHeaders.size(); ++i)
            std::memcpy(at -= kHeaders[i], gHeaders[i], kHeaders[i]);
        benchmark::DoNotOptimize(sum(at, kHeaderBytes + kPayload));
        for (size_t i = kHeaders.size(); i-- > 0;) {
            at += kHeaders[i];
            benchmark::DoNotOptimize(at);
        }
        std::free(block);
    }
}

template <uint32_t kPayload>
void life_in_vector(benchmark::State &state) {
    for (auto _ : state) {
        std::vector<uint8_t> packet(gReceived, gReceived + kPayload);
        return_to_driver(gReceived);
        for (size_t i = 0; i < kHeaders.size(); ++i)
            packet.insert(packet.begin(), gHeaders[i], gHeaders[i] + kHeaders[i]);
        benchmark::DoNotOptimize(chksum(packet.data(), kHeaderBytes + kPayload));
        for (size_t i = kHeaders.size(); i-- > 0;)
            packet.erase(packet.begin(), packet.begin() + kHeaders[i]);
        benchmark::DoNotOptimize(packet.data());
    }
}

constexpr uint32_t kPieces = 16, kPiece = 4096, kOffset = 10000, kSlice = 32768;
alignas(64) uint8_t gLarge[kPieces * kPiece];

void clone_slice(benchmark::State &state) {
    zarn_data_t *large = util->new_zarn_data();
    for (uint32_t i = 0; i < kPieces; ++i)
        util->append_zarn_data(large, gLarge + i * kPiece, kPiece, return_to_driver);
    for (auto _ : state) {
        zarn_data_t *slice = util->new_zarn_data();
        if (util->clone_zarn_data(slice, large, kOffset, kSlice) != 0) state.SkipWithError("no clone");
        benchmark::DoNotOptimize(slice->length);
        util->delete_zarn_data(slice);
    }
    util->delete_zarn_data(large);
}

void copy_slice(benchmark::State &state) {
    std::vector<uint8_t> large(gLarge, gLarge + sizeof(gLarge));
    for (auto _ : state) {
        std::vector<uint8_t> slice(large.begin() + kOffset, large.begin() + kOffset + kSlice);
        benchmark::DoNotOptimize(slice.data());
        benchmark::ClobberMemory();
    }
}

template <uint32_t kPayload>
void add_packet_life() {
    std::string group = "packet_life/" + std::to_string(kPayload) + "/";
    add_benchmark(group + "module", life_in_module<kPayload>);
    add_benchmark(group + "malloc_copy_same_sum", life_in_malloc<kPayload, chksum>);
    add_benchmark(group + "malloc_copy_loop", life_in_malloc<kPayload, rfc1071_loop>);
    add_benchmark(group + "vector_same_sum", life_in_vector<kPayload>);
}

[[maybe_unused]] const bool gAdded = [] {
    add_packet_life<1460>();
    add_packet_life<9000>();
    add_benchmark("slice_of_64K/32K/module_clone", clone_slice);
    add_benchmark("slice_of_64K/32K/vector_copy", copy_slice);
    return true;
}();

}  // namespace
