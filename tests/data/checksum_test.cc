// SPDX-License-Identifier: MIT
//
// Every form of the checksums against the loop of RFC 1071, taken literally.

#include "data/checksum.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <span>
#include <vector>

#include "data/zarn_data.h"
#include "module/incremental_checksum.h"

namespace {

using bytes = std::vector<uint8_t>;

uint32_t rfc1071_sum(std::span<const uint8_t> data) {
    uint64_t sum = 0;
    for (size_t i = 0; i < data.size(); ++i)
        sum += uint64_t{data[i]} << (i % 2 * 8);
    while (sum >> 16 != 0)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint32_t>(sum);
}

uint32_t rfc1071_checksum(std::span<const uint8_t> data) {
    return rfc1071_sum(data) ^ 0xffff;
}

// What callers get, and each form by itself at lengths at which it would not be chosen.
const std::vector<checksum_form> kForms = [] {
    uint32_t count;
    const checksum_form *wide = get_wide_checksums(&count);
    std::vector<checksum_form> all = {{"chosen", chksum, cpysum},
                                      {"plain", kPlainChecksum.sum, kPlainChecksum.copy}};
    all.insert(all.end(), wide, wide + count);
    return all;
}();

// Words of 0xffff, 0x8000 and 0x7fff are the extremes of the lanes; random bytes find what has lost its place.
std::vector<bytes> contents(size_t size) {
    std::vector<bytes> all(5, bytes(size));
    std::mt19937 random(size);
    for (size_t i = 0; i < size; ++i) {
        all[0][i] = 0xff;
        all[1][i] = i % 2 ? 0x80 : 0;
        all[2][i] = i % 2 ? 0x7f : 0xff;
        all[4][i] = static_cast<uint8_t>(random());
    }
    return all;
}

// Each form on any bytes at any address, up to a page that faults on either side.
TEST(checksum_test, sums_and_copies_whatever_lies_wherever) {
    constexpr size_t kSize = 16384, kFence = 4096;
    auto fenced = [] {
        auto *map = static_cast<uint8_t *>(
            mmap(nullptr, kSize + 2 * kFence, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(map + kFence, kSize, PROT_READ | PROT_WRITE);
        return map + kFence;
    };
    uint8_t *source = fenced(), *target = fenced();
    std::vector<uint32_t> lengths;
    for (auto [from, to] :
         {std::pair{0u, 300u}, {380u, 390u}, {1498u, 1502u}, {2040u, 2120u}, {9000u, 9003u}}) {
        for (uint32_t length = from; length <= to; ++length)
            lengths.push_back(length);
    }
    for (const bytes &content : contents(kSize)) {
        std::copy(content.begin(), content.end(), source);
        for (uint32_t length : lengths) {
            for (uint32_t at = 0; at<66; at += length> 300 ? 11 : 1) {
                // The first 33 from the start on, the others up to the end.
                const uint8_t *from = at < 33 ? source + at : source + kSize - length - (65 - at);
                uint32_t shift = at * 5 % 33, expected = rfc1071_sum({from, length});
                uint8_t *to = at % 2 ? target + shift : target + kSize - length - shift;
                for (const checksum_form &form : kForms) {
                    SCOPED_TRACE(testing::Message() << form.name << ", " << length << " bytes, case " << at);
                    ASSERT_EQ(form.sum(from, length), expected);
                    if (at % 3 != 0) continue;
                    memset(target, 0xa5, 64), memset(target + kSize - 64, 0xa5, 64);
                    ASSERT_EQ(form.copy(to, from, length), expected);
                    ASSERT_EQ(memcmp(to, from, length), 0);
                    for (uint32_t i = 1; i <= shift; ++i)
                        ASSERT_EQ(at % 2 ? to[-int(i)] : to[length - 1 + i], 0xa5);
                }
            }
        }
    }
    for (uint8_t *map : {source, target})
        munmap(map - kFence, kSize + 2 * kFence);
}

TEST(checksum_test, loses_no_carry_in_long_runs) {
    bytes dest((3 << 20) + 64);
    for (const bytes &content : contents(dest.size())) {
        for (uint32_t length : {131074u, 131075u, 262145u, (2u << 20) + 63, (3u << 20) + 31}) {
            uint32_t expected = rfc1071_sum({content.data() + 1, length});
            for (const checksum_form &form : kForms) {
                ASSERT_EQ(form.sum(content.data() + 1, length), expected) << form.name << ", " << length;
                ASSERT_EQ(form.copy(dest.data(), content.data() + 1, length), expected) << form.name;
            }
        }
    }
}

// A buffer over pieces that lie apart, each at an address of its own parity.
struct scattered {
    scattered(const bytes &content, std::span<const uint32_t> sizes, uint32_t parities)
        : memory(content.size() + 32), nodes(sizes.size()) {
        uint32_t at = 0;
        for (uint32_t i = 0; i < sizes.size(); ++i) {
            at += (at ^ (parities >> i)) & 1;
            std::copy_n(content.data() + data.length, sizes[i], memory.data() + at);
            nodes[i] = {memory.data() + at, sizes[i], i + 1 < sizes.size() ? &nodes[i + 1] : nullptr};
            data.length += sizes[i];
            at += sizes[i] + 2;
        }
        data.datalist = nodes.data();
    }
    void expect(const bytes &content, uint32_t offset, uint32_t length) {
        std::span range(content.data() + offset, length);
        bytes dest(length + 1, 0xa5), copied(range.begin(), range.end());
        copied.push_back(0xa5);
        ASSERT_EQ(get_zarn_data_checksum(&data, offset, length), rfc1071_checksum(range));
        data.flags = 0;
        ASSERT_EQ(copy_and_checksum_data(&data, offset, dest.data(), length), rfc1071_checksum(range));
        ASSERT_TRUE(dest == copied);
    }
    bytes memory;
    std::vector<mem_node> nodes;
    zarn_data_t data = {};
};

TEST(checksum_test, every_split_gives_the_same) {
    const bytes packet = contents(70000).back();
    std::mt19937 random(7);
    for (uint32_t round = 0; round < 6000; ++round) {
        std::vector<uint32_t> sizes = {1};
        for (uint32_t pieces = 1 + random() % 7; pieces > 0; --pieces)
            sizes.push_back(random() % (round % 16 != 0 ? 5 : pieces % 2 ? 60 : 8000));
        scattered buffer(packet, sizes, random());
        const uint32_t offset = random() % buffer.data.length;
        SCOPED_TRACE(round);
        buffer.expect(packet, offset, random() % (buffer.data.length - offset + 1));
    }
}

TEST(checksum_test, only_the_whole_buffer_is_remembered_and_bad_ranges_change_nothing) {
    const bytes content = contents(40).back();
    scattered buffer(content, std::array{20u, 20u}, 1);
    zarn_data_t *data = &buffer.data, empty = {};
    data->flags = DATA_NEEDS_LOCK | 1;
    bytes dest(40);
    uint32_t whole = rfc1071_checksum(content);
    for (auto [offset, length] : {std::pair{40u, 1u}, {41u, 0u}, {0u, 41u}, {~0u, 2u}, {2u, ~0u}}) {
        EXPECT_EQ(get_zarn_data_checksum(data, offset, length), 0u) << offset << ' ' << length;
        EXPECT_EQ(copy_and_checksum_data(data, offset, dest.data(), length), 0u) << offset << ' ' << length;
    }
    EXPECT_EQ(get_zarn_data_checksum(&empty, 0, 0) | copy_and_checksum_data(&empty, 0, dest.data(), 0), 0u);
    EXPECT_EQ(copy_and_checksum_data(data, 40, dest.data(), 0), 0xffffu);
    EXPECT_EQ(dest, bytes(40));
    copy_and_checksum_data(data, 0, dest.data(), 39);
    copy_and_checksum_data(data, 1, dest.data(), 39);
    EXPECT_EQ(data->flags, DATA_NEEDS_LOCK | 1);
    EXPECT_EQ(copy_and_checksum_data(data, 0, dest.data(), 40), whole);
    EXPECT_EQ(data->flags, DATA_CHECKSUM_CACHED | DATA_NEEDS_LOCK | 1);
    EXPECT_EQ(data->checksum, whole);
    EXPECT_EQ(dest, content);

    // From here on only a call that does not ask the cache can see the bytes.
    data->checksum = 0x1234;
    std::fill(dest.begin(), dest.end(), 0);
    EXPECT_EQ(copy_and_checksum_data(data, 0, dest.data(), 40), 0x1234u);
    EXPECT_EQ(dest, bytes(40));
    EXPECT_EQ(get_zarn_data_checksum(data, 0, 40), whole);
    EXPECT_EQ(copy_and_checksum_data(data, 0, dest.data(), 39), rfc1071_checksum({content.data(), 39}));
}

// Both forms of zero are the same number.
TEST(checksum_test, seeds_join_pieces_and_updates_equal_new_computations) {
    const uint8_t four[] = {1, 2, 3, 4};
    EXPECT_EQ(get_zarn_checksum(four, 4, 0), 0xf9fbu);
    EXPECT_EQ(get_zarn_checksum(four, 4, 0xffff), 0xf9fbu);
    EXPECT_EQ(get_zarn_checksum(four, 0, 0), 0xffffu);
    EXPECT_EQ(incremental_checksum(0xdd2f, 0x5555, 0x3285), 0x0000u);
    EXPECT_EQ(incremental_checksum(0x1234, 0x5678, 0x5679), 0x1233u);
    EXPECT_EQ(incremental_checksum(0xffff, 0, 0), 0u);
    std::mt19937 random(3);
    for (int round = 0; round < 20000; ++round) {
        std::array<uint16_t, 10> header;
        std::generate(header.begin(), header.end(), std::ref(random));
        auto sum = [&](uint32_t from, uint32_t words, uint32_t seed) {
            return get_zarn_checksum(&header[from], 2 * words, static_cast<uint16_t>(seed));
        };
        uint32_t at = random() % 10, before = sum(0, 10, 0);
        ASSERT_EQ(sum(0, at, sum(at, 10 - at, 0)) % 0xffff, before % 0xffff) << at;
        uint16_t old = header[at];
        header[at] = static_cast<uint16_t>(round % 3 == 0 ? 0 : round % 3 == 1 ? 0xffff : random());
        ASSERT_EQ(incremental_checksum(static_cast<uint16_t>(before), old, header[at]) % 0xffff,
                  sum(0, 10, 0) % 0xffff);
    }
}

}  // namespace
