// SPDX-License-Identifier: MIT
//
// Every form of the checksums against the loop of RFC 1071, taken literally.

#include "data/checksum.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

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
const std::vector<checksum_form> &all_forms() {
    static const std::vector<checksum_form> forms = [] {
        uint32_t count;
        const checksum_form *wide = get_wide_checksums(&count);
        std::vector<checksum_form> all = {{"chosen", chksum, cpysum}, kPlainChecksum};
        all.insert(all.end(), wide, wide + count);
        return all;
    }();
    return forms;
}

// Words of 0xffff, 0x8000 and 0x7fff are the extremes of the lanes; random bytes find what has lost its
// place.
std::vector<bytes> contents(size_t size) {
    std::vector<bytes> all;
    for (auto [even, odd] : {std::pair{0xff, 0xff}, {0x00, 0x00}, {0x00, 0x80}, {0xff, 0x7f}}) {
        bytes &pattern = all.emplace_back(size);
        for (size_t i = 0; i < size; ++i)
            pattern[i] = static_cast<uint8_t>(i % 2 ? odd : even);
    }
    std::mt19937 random(size);
    bytes &noise = all.emplace_back(size);
    std::generate(noise.begin(), noise.end(), std::ref(random));
    return all;
}

std::vector<uint32_t> interesting_lengths() {
    std::vector<uint32_t> lengths;
    for (auto [from, to] :
         {std::pair{0u, 300u}, {380u, 390u}, {1498u, 1502u}, {2040u, 2120u}, {9000u, 9003u}}) {
        for (uint32_t length = from; length <= to; ++length)
            lengths.push_back(length);
    }
    return lengths;
}

// Memory between two pages that fault.
class fenced_memory {
 public:
    explicit fenced_memory(size_t size) : size_(size) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        map_ = static_cast<uint8_t *>(
            mmap(nullptr, size + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(map_ + page_, size, PROT_READ | PROT_WRITE);
    }
    ~fenced_memory() { munmap(map_, size_ + 2 * page_); }
    uint8_t *begin() { return map_ + page_; }
    uint8_t *end() { return begin() + size_; }

 private:
    size_t size_, page_;
    uint8_t *map_;
};

TEST(checksum_test, sums_any_bytes_at_any_address) {
    for (const bytes &content : contents(9100)) {
        for (uint32_t length : interesting_lengths()) {
            uint32_t steps = length > 300 ? 7 : 1;
            for (uint32_t at = 0; at < 32; at += steps) {
                uint32_t expected = rfc1071_sum({content.data() + at, length});
                for (const checksum_form &form : all_forms()) {
                    ASSERT_EQ(form.sum(content.data() + at, length), expected)
                        << form.name << ", " << length << " bytes at " << at;
                }
            }
        }
    }
}

TEST(checksum_test, copies_exactly_what_it_sums) {
    const bytes content = contents(9100).back();
    for (uint32_t length : interesting_lengths()) {
        for (uint32_t at = 0; at<32; at += length> 300 ? 11 : 3) {
            uint32_t to = at * 5 % 32;
            bytes expected(length + 64, 0xa5);
            std::copy_n(content.data() + at, length, expected.begin() + to);
            for (const checksum_form &form : all_forms()) {
                SCOPED_TRACE(testing::Message()
                             << form.name << ", " << length << " bytes at " << at << " to " << to);
                bytes dest(length + 64, 0xa5);
                ASSERT_EQ(form.copy(dest.data() + to, content.data() + at, length),
                          rfc1071_sum({content.data() + at, length}));
                ASSERT_TRUE(dest == expected);
            }
        }
    }
}

TEST(checksum_test, stays_inside_its_pages) {
    fenced_memory source(16384), target(16384);
    const bytes content = contents(16384).back();
    std::copy(content.begin(), content.end(), source.begin());
    for (const checksum_form &form : all_forms()) {
        for (uint32_t length : interesting_lengths()) {
            for (uint8_t *from : {source.begin(), source.end() - length}) {
                uint32_t expected = rfc1071_sum({from, length});
                ASSERT_EQ(form.sum(from, length), expected) << form.name << ", " << length;
                for (uint8_t *to : {target.begin(), target.end() - length})
                    ASSERT_EQ(form.copy(to, from, length), expected) << form.name << ", " << length;
            }
        }
    }
}

TEST(checksum_test, loses_no_carry_in_long_runs) {
    bytes dest((3 << 20) + 64);
    for (const bytes &content : contents(dest.size())) {
        for (uint32_t length : {131074u, 131075u, 131076u, 262145u, (2u << 20) + 63, (3u << 20) + 31}) {
            uint32_t expected = rfc1071_sum({content.data() + 1, length});
            for (const checksum_form &form : all_forms()) {
                ASSERT_EQ(form.sum(content.data() + 1, length), expected) << form.name << ", " << length;
                ASSERT_EQ(form.copy(dest.data(), content.data() + 1, length), expected) << form.name;
            }
        }
    }
}

TEST(checksum_test, seeds_join_pieces) {
    const uint8_t four[] = {1, 2, 3, 4};
    EXPECT_EQ(get_zarn_checksum(four, 4, 0), 0xf9fbu);
    EXPECT_EQ(get_zarn_checksum(four, 4, 0xffff), 0xf9fbu);
    EXPECT_EQ(get_zarn_checksum(four, 0, 0), 0xffffu);
    EXPECT_EQ(chksum("\xab", 1), 0xabu);

    const bytes content = contents(1600).back();
    for (uint32_t cut = 0; cut <= 1600; cut += 2) {
        uint32_t seed = get_zarn_checksum(content.data() + cut, 1600 - cut, 0);
        // Both forms of zero are the same number.
        EXPECT_EQ(get_zarn_checksum(content.data(), cut, static_cast<uint16_t>(seed)) % 0xffff,
                  rfc1071_checksum(content) % 0xffff)
            << cut;
    }
}

// A buffer over pieces that lie apart, each at an address of its own parity.
struct scattered {
    scattered(const bytes &content, std::span<const uint32_t> sizes, uint32_t parities)
        : memory(content.size() + 32) {
        uint32_t from = 0, at = 0;
        nodes.reserve(sizes.size());
        for (uint32_t i = 0; i < sizes.size(); ++i) {
            at += (at ^ (parities >> i)) & 1;
            std::copy_n(content.data() + from, sizes[i], memory.data() + at);
            nodes.push_back({memory.data() + at, sizes[i], nullptr});
            if (i > 0) nodes[i - 1].next = &nodes[i];
            from += sizes[i];
            at += sizes[i] + 2;
        }
        data.datalist = nodes.empty() ? nullptr : nodes.data();
        data.length = from;
    }
    bytes memory;
    std::vector<mem_node> nodes;
    zarn_data_t data = {};
};

TEST(checksum_test, every_split_gives_the_same) {
    constexpr uint32_t kSize = 9;
    const bytes content = contents(kSize).back();
    for (uint32_t a = 0; a <= kSize; ++a) {
        for (uint32_t b = a; b <= kSize; ++b) {
            for (uint32_t c = b; c <= kSize; ++c) {
                for (uint32_t parities = 0; parities < 16; parities += 5) {
                    scattered buffer(content, std::array{a, b - a, c - b, kSize - c}, parities);
                    for (uint32_t offset = 0; offset < kSize; ++offset) {
                        for (uint32_t length = 0; offset + length <= kSize; ++length) {
                            SCOPED_TRACE(testing::Message()
                                         << a << ' ' << b << ' ' << c << " parities " << parities << ": "
                                         << length << " at " << offset);
                            std::span range(content.data() + offset, length);
                            ASSERT_EQ(get_zarn_data_checksum(&buffer.data, offset, length),
                                      rfc1071_checksum(range));
                            bytes dest(length + 1, 0xa5);
                            buffer.data.flags = 0;
                            ASSERT_EQ(copy_and_checksum_data(&buffer.data, offset, dest.data(), length),
                                      rfc1071_checksum(range));
                            ASSERT_TRUE(std::equal(range.begin(), range.end(), dest.begin()));
                            ASSERT_EQ(dest.back(), 0xa5);
                        }
                    }
                }
            }
        }
    }
}

TEST(checksum_test, long_pieces_of_a_packet_add_up) {
    std::mt19937 random(7);
    const bytes content = contents(70000).back();
    for (int round = 0; round < 300; ++round) {
        std::vector<uint32_t> sizes;
        uint32_t total = 0;
        for (uint32_t pieces = 1 + random() % 8; pieces > 0; --pieces)
            total += sizes.emplace_back(random() % (pieces % 2 ? 60 : 8000));
        scattered buffer(content, sizes, random());
        uint32_t offset = random() % (total + 1), length = random() % (total - offset + 1);
        if (total == 0) continue;
        bytes dest(length);
        std::span range(content.data() + offset, length);
        ASSERT_EQ(get_zarn_data_checksum(&buffer.data, offset, length), rfc1071_checksum(range)) << round;
        ASSERT_EQ(copy_and_checksum_data(&buffer.data, offset, dest.data(), length), rfc1071_checksum(range));
        ASSERT_TRUE(std::equal(range.begin(), range.end(), dest.begin()));
    }
}

TEST(checksum_test, bad_ranges_change_nothing) {
    const bytes content = contents(8).back();
    scattered buffer(content, std::array{3u, 5u}, 1), empty(content, {}, 0);
    struct {
        scattered *buffer;
        uint32_t offset, length, checksum;
    } cases[] = {{&buffer, 8, 0, 0xffff}, {&buffer, 8, 1, 0},         {&buffer, 9, 0, 0},
                 {&buffer, 0, 9, 0},      {&buffer, 1, 8, 0},         {&buffer, 0xffffffff, 2, 0},
                 {&empty, 0, 0, 0},       {&buffer, 2, 0xffffffff, 0}};
    for (auto &[data, offset, length, checksum] : cases) {
        uint8_t dest = 0xa5;
        EXPECT_EQ(get_zarn_data_checksum(&data->data, offset, length), checksum) << offset << ' ' << length;
        EXPECT_EQ(copy_and_checksum_data(&data->data, offset, &dest, length), checksum)
            << offset << ' ' << length;
        EXPECT_EQ(dest, 0xa5);
        EXPECT_EQ(data->data.flags, 0);
    }
}

TEST(checksum_test, only_the_whole_buffer_is_remembered) {
    const bytes content = contents(40).back();
    scattered buffer(content, std::array{20u, 20u}, 1);
    zarn_data_t *data = &buffer.data;
    data->flags = DATA_NEEDS_LOCK | 1;
    bytes dest(40);
    uint32_t whole = rfc1071_checksum(content);

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
    EXPECT_EQ(data->checksum, 0x1234);
}

TEST(checksum_test, an_update_equals_a_new_computation) {
    EXPECT_EQ(incremental_checksum(0xdd2f, 0x5555, 0x3285), 0x0000u);
    EXPECT_EQ(incremental_checksum(0x1234, 0x5678, 0x5679), 0x1233u);
    EXPECT_EQ(incremental_checksum(0xffff, 0, 0), 0u);

    std::mt19937 random(3);
    for (int round = 0; round < 20000; ++round) {
        std::array<uint16_t, 10> header;
        std::generate(header.begin(), header.end(), std::ref(random));
        uint16_t before = static_cast<uint16_t>(get_zarn_checksum(header.data(), sizeof(header), 0));
        uint16_t &word = header[random() % header.size()];
        uint16_t old = word;
        word = round % 3 == 0 ? 0 : round % 3 == 1 ? 0xffff : static_cast<uint16_t>(random());
        ASSERT_EQ(incremental_checksum(before, old, word) % 0xffff,
                  get_zarn_checksum(header.data(), sizeof(header), 0) % 0xffff)
            << std::hex << before << ' ' << old << ' ' << word;
    }
}

}  // namespace
