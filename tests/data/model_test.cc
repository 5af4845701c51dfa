// SPDX-License-Identifier: MIT
//
// Random operations on a handful of buffers, and the same on plain byte vectors. A failure prints the seed;
// ZARN_TEST_SEED=N replays that one, ZARN_TEST_ROUNDS=N runs more of them.

#include <zarn/status.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

#include "data/purgatory.h"
#include "data/zarn_data.h"
#include "module/allocator.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

using bytes = std::vector<uint8_t>;

// Memory that a buffer refers to, behind the address of its own record: the purgatory's thread frees elements
// while others are made. It is kept, spoiled, behind its free, so that a late look is seen in every build.
struct element {
    explicit element(uint32_t length) : memory(sizeof(element *) + length) {
        element *self = this;
        memcpy(memory.data(), &self, sizeof self);
    }
    element(const element &) = delete;
    uint8_t *start() { return memory.data() + sizeof(element *); }

    bytes memory;
    int32_t freed = 0;
};

void free_element_ext(void *ext_arg, void *memory) {
    auto *owner = static_cast<element *>(ext_arg);
    EXPECT_EQ(memory, owner->start());
    owner->freed++;
    std::fill(owner->start(), owner->memory.data() + owner->memory.size(), uint8_t(0xdd));
}

void free_element(void *memory) {
    element *owner;
    memcpy(&owner, static_cast<uint8_t *>(memory) - sizeof owner, sizeof owner);
    free_element_ext(owner, memory);
}

class model_test : public module_test {
 protected:
    static constexpr size_t kBuffers = 5;
    static constexpr uint32_t kMostBytes = 6000;  // past the large block

    void run(uint32_t seed) {
        random_.seed(seed);
        elements_.clear();
        ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
        for (size_t i = 0; i < kBuffers; ++i) {
            data_[i] = new_zarn_data();
            model_[i].clear();
        }
        for (int step = 0; step < 300 && !HasFatalFailure() && !HasNonfatalFailure(); ++step) {
            SCOPED_TRACE(testing::Message() << "step " << step);
            operate();
            for (size_t i = 0; i < kBuffers; ++i)
                compare(i);
        }
        for (zarn_data_t *data : data_)
            below(2) ? delete_zarn_data(data) : isafe_delete_zarn_data(data);
        EXPECT_EQ(uninit_data_purgatory(), 0);
        for (element &e : elements_)
            EXPECT_EQ(e.freed, 1) << "element " << &e - &elements_[0];
        EXPECT_EQ(blocks_out(), "");
    }

 private:
    uint32_t below(uint32_t limit) { return random_() % limit; }

    uint8_t *new_element(uint32_t length) {
        element &e = elements_.emplace_back(length);
        std::generate_n(e.start(), length, [this] { return static_cast<uint8_t>(random_()); });
        return e.start();
    }

    // A new element in the buffer, registered in one of the forms.
    void link(size_t i) {
        uint32_t length = below(4) ? below(200) : below(2000);
        uint32_t offset = below(4) ? below(data_[i]->length + 1) : data_[i]->length;
        uint8_t *memory = new_element(length);
        bool with_argument = below(2);
        bool linked = length != 0 || (offset != 0 && offset != data_[i]->length);
        ASSERT_EQ(insert_zarn_data(data_[i], offset, memory, length, with_argument ? nullptr : free_element),
                  0);
        if (with_argument || !linked) {
            uint16_t flags = below(2) ? FREE_INTERRUPT_SAFE : 0;
            ASSERT_EQ(add_free_element(data_[i], memory, &elements_.back(),
                                       zarn_free_func_from_ext(free_element_ext), flags),
                      0);
        }
        model_[i].insert(model_[i].begin() + offset, memory, memory + length);
    }

    struct slice {
        uint32_t offset, length;
        bool valid;
    };

    // Mostly a valid range, often an interesting one: the whole, nothing, to the end, from the start.
    slice any_slice(size_t i) {
        uint32_t size = data_[i]->length;
        if (below(12) == 0) {
            slice bad{below(2) ? size : 0xffffffff, below(2) ? 1 : 0xffffffff, false};
            return bad;
        }
        if (below(4) == 0) return {0, size, true};
        uint32_t offset = below(3) ? below(size + 1) : 0;
        uint32_t length = below(3) ? below(size - offset + 1) : size - offset;
        return {offset, length, true};
    }

    bytes part(size_t i, const slice &s) const {
        return s.valid ? bytes(model_[i].begin() + s.offset, model_[i].begin() + s.offset + s.length)
                       : bytes();
    }

    void operate() {
        size_t i = below(kBuffers), other = below(kBuffers);  // sometimes the same
        zarn_data_t *data = data_[i];
        slice s = any_slice(i);
        bool fits = s.valid && data_[other]->length + s.length <= kMostBytes;
        switch (below(12)) {
            case 0:
            case 1:
                if (data->length + 2000 <= kMostBytes) link(i);
                break;
            case 2:
            case 3: {
                bytes added = part(i, s);
                if (s.valid && !fits) break;
                ASSERT_EQ(clone_zarn_data(data_[other], data, s.offset, s.length), s.valid ? 0 : -1);
                model_[other].insert(model_[other].end(), added.begin(), added.end());
                break;
            }
            case 4: {
                bytes added = part(i, s);
                if (s.valid && !fits) break;
                ASSERT_EQ(copy_zarn_data(data_[other], data, s.offset, s.length), s.valid ? 0 : -1);
                model_[other].insert(model_[other].end(), added.begin(), added.end());
                break;
            }
            case 5:
            case 6:
                ASSERT_EQ(trim_zarn_data(data, s.offset, s.length), s.valid && s.length != 0 ? 0 : -1);
                if (s.valid)
                    model_[i].erase(model_[i].begin() + s.offset, model_[i].begin() + s.offset + s.length);
                break;
            case 7: {
                bool nothing = s.valid && s.length == 0 && data->length != 0;
                ASSERT_EQ(coalesce_zarn_data(data, s.offset, s.length), nothing   ? ERR_NO_MEMORY
                                                                        : s.valid ? 0
                                                                                  : -1);
                break;
            }
            case 8:
                map_and_write(i, s);
                break;
            case 9: {
                bytes read(s.valid ? s.length + 1 : 1, 0xee);
                ASSERT_EQ(copy_from_zarn_data(data, s.offset, read.data(), s.length), s.valid ? s.length : 0);
                ASSERT_EQ(read.back(), 0xee);
                read.pop_back();
                ASSERT_EQ(read, part(i, s));
                break;
            }
            case 10:
                below(2) ? delete_zarn_data(data) : isafe_delete_zarn_data(data);
                data_[i] = new_zarn_data();
                model_[i].clear();
                break;
            case 11:  // a stop releases what lies in the purgatory
                if (below(4) != 0) break;
                ASSERT_EQ(uninit_data_purgatory(), 0);
                ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
                break;
        }
    }

    // Writing is allowed behind a disassociation, and no other buffer sees it.
    void map_and_write(size_t i, const slice &s) {
        bool possible = s.valid && s.length != 0;
        if (possible) {
            ASSERT_EQ(disassociate_zarn_data(data_[i], s.offset, s.length), 0);
        }
        void *out = nullptr;
        ASSERT_EQ(map_to_zarn_data(data_[i], s.offset, &out, s.length), possible ? 0 : -1);
        if (!possible) return;
        ASSERT_EQ(memcmp(out, &model_[i][s.offset], s.length), 0);
        for (uint32_t at = 0; at < s.length; at += 1 + below(50)) {
            static_cast<uint8_t *>(out)[at] = static_cast<uint8_t>(random_());
            model_[i][s.offset + at] = static_cast<uint8_t *>(out)[at];
        }
    }

    void compare(size_t i) {
        ASSERT_EQ(zarn_data_fault(data_[i]), nullptr) << "buffer " << i;
        ASSERT_EQ(data_[i]->length, model_[i].size()) << "buffer " << i;
        std::string got = bytes_of(data_[i]);
        size_t differing = 0, first = 0;
        for (size_t at = got.size(); at-- != 0;) {
            if (static_cast<uint8_t>(got[at]) != model_[i][at]) ++differing, first = at;
        }
        ASSERT_EQ(differing, 0u) << "bytes of buffer " << i << " differ, the first at " << first;
        std::vector<zarn_iovec> table(count_zarn_data_iovecs(data_[i]) + 1);
        ASSERT_EQ(get_zarn_data_iovecs(data_[i], table.data(), static_cast<uint32_t>(table.size())),
                  table.size() - 1);
    }

    std::mt19937 random_;
    std::deque<element> elements_;
    zarn_data_t *data_[kBuffers] = {};
    bytes model_[kBuffers];
};

TEST_F(model_test, BuffersDoWhatByteVectorsDo) {
    const char *seed = getenv("ZARN_TEST_SEED"), *rounds = getenv("ZARN_TEST_ROUNDS");
    uint32_t first = seed != nullptr ? static_cast<uint32_t>(strtoul(seed, nullptr, 0)) : 1;
    uint32_t count = seed != nullptr     ? 1
                     : rounds != nullptr ? static_cast<uint32_t>(strtoul(rounds, nullptr, 0))
                                         : 30;
    for (uint32_t i = first; i - first < count && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "replay with ZARN_TEST_SEED=" << i);
        run(i);
    }
}

}  // namespace
