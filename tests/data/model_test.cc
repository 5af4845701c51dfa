// SPDX-License-Identifier: MIT
//
// Random operations on a handful of buffers, and the same on plain byte strings. ZARN_TEST_ROUNDS=N runs more of them.

#include <zarn/status.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "data/purgatory.h"
#include "tests/data/buffers.h"
#include "tests/support/fixture.h"

namespace {

// Memory that a buffer refers to, behind the address of its own record: the purgatory's thread frees elements
// while others are made. It is kept, spoiled, behind its free, so that a late look is seen in every build.
struct element {
    std::string memory;
    int32_t freed = 0;
};

void free_element_ext(void *ext_arg, void *memory) {
    auto *owner = static_cast<element *>(ext_arg);
    EXPECT_EQ(memory, owner->memory.data() + sizeof owner);
    owner->freed++;
    memset(memory, 0xdd, owner->memory.size() - sizeof owner);
}

void free_element(void *memory) {
    element *owner;
    memcpy(&owner, static_cast<char *>(memory) - sizeof owner, sizeof owner);
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
        for (zarn_data_t *&data : data_)
            data = new_zarn_data();
        for (int step = 0; step < 300 && !HasFailure(); ++step) {
            SCOPED_TRACE(testing::Message() << "step " << step);
            operate(below(kBuffers), below(kBuffers));  // sometimes the same
            for (size_t i = 0; i < kBuffers; ++i) {
                ASSERT_EQ(zarn_data_fault(data_[i]), nullptr) << "buffer " << i;
                std::string bytes;
                for (const mem_node *node = data_[i]->datalist; node != nullptr; node = node->next)
                    bytes.append(static_cast<char *>(node->base), node->len);
                ASSERT_TRUE(bytes == model_[i]) << "buffer " << i;
            }
        }
        for (size_t i = 0; i < kBuffers; ++i)
            empty(i);
        for (zarn_data_t *data : data_)
            delete_zarn_data(data);
        EXPECT_EQ(uninit_data_purgatory(), 0);
        for (element &e : elements_)
            EXPECT_EQ(e.freed, 1) << "element " << &e - &elements_[0];
        EXPECT_EQ(blocks_out(), "");
    }

 private:
    uint32_t below(uint32_t limit) { return random_() % limit; }

    void empty(size_t i) {
        below(2) ? delete_zarn_data(data_[i]) : isafe_delete_zarn_data(data_[i]);
        data_[i] = new_zarn_data();
        model_[i].clear();
    }

    // A new element in the buffer, registered in one of the forms.
    void link(size_t i) {
        uint32_t length = below(4) ? below(200) : below(2000);
        uint32_t offset = below(4) ? below(data_[i]->length + 1) : data_[i]->length;
        element *owner = &elements_.emplace_back();
        owner->memory.assign(reinterpret_cast<char *>(&owner), sizeof owner);
        for (uint32_t at = 0; at < length; ++at)
            owner->memory += static_cast<char>(random_());
        char *memory = owner->memory.data() + sizeof owner;
        bool with_argument = below(2), linked = length != 0 || (offset != 0 && offset != data_[i]->length);
        ASSERT_EQ(insert_zarn_data(data_[i], offset, memory, length, with_argument ? nullptr : free_element),
                  0);
        if (with_argument || !linked) {
            auto func = zarn_free_func_from_ext(free_element_ext);
            ASSERT_EQ(add_free_element(data_[i], memory, owner, func, below(2) ? FREE_INTERRUPT_SAFE : 0), 0);
        }
        model_[i].insert(offset, memory, length);
    }

    void operate(size_t i, size_t other) {
        zarn_data_t *data = data_[i];
        std::string &model = model_[i];
        // Mostly a valid range, often an interesting one: the whole, nothing, to the end, from the start.
        bool valid = below(12) != 0;
        uint32_t size = data->length, offset = below(3) ? below(size + 1) : 0;
        uint32_t length = below(3) ? below(size - offset + 1) : size - offset;
        if (!valid) offset = below(2) ? size : 0xffffffff, length = below(2) ? 1 : 0xffffffff;
        std::string range = valid ? model.substr(offset, length) : "";
        switch (below(12)) {
            case 0:
            case 1:
                if (size + 2000 <= kMostBytes) link(i);
                break;
            case 2:
            case 3:
            case 4:
                if (data_[other]->length + range.size() > kMostBytes) break;
                ASSERT_EQ((below(3) ? clone_zarn_data : copy_zarn_data)(data_[other], data, offset, length),
                          valid - 1);
                model_[other] += range;
                break;
            case 5:
            case 6:
                ASSERT_EQ(trim_zarn_data(data, offset, length), valid && length != 0 ? 0 : -1);
                if (valid) model.erase(offset, length);
                break;
            case 7: {
                int32_t status = length == 0 && size != 0 ? ERR_NO_MEMORY : 0;
                ASSERT_EQ(coalesce_zarn_data(data, offset, length), valid ? status : -1);
                break;
            }
            case 8: {  // writing is allowed behind a disassociation, and no other buffer sees it
                void *out = nullptr;
                if (range.empty()) {
                    ASSERT_EQ(map_to_zarn_data(data, offset, &out, length), -1);
                    break;
                }
                ASSERT_EQ(disassociate_zarn_data(data, offset, length), 0);
                ASSERT_EQ(map_to_zarn_data(data, offset, &out, length), 0);
                ASSERT_EQ(memcmp(out, range.data(), length), 0);
                for (uint32_t at = 0; at < length; at += 1 + below(50))
                    static_cast<char *>(out)[at] = model[offset + at] = static_cast<char>(random_());
                break;
            }
            case 9: {
                std::string read(range.size() + 1, '.');
                ASSERT_EQ(copy_from_zarn_data(data, offset, read.data(), length), range.size());
                ASSERT_TRUE(read == range + '.');
                break;
            }
            case 10:
                empty(i);
                break;
            case 11:  // a stop releases what lies in the purgatory
                if (below(4) != 0) break;
                ASSERT_EQ(uninit_data_purgatory(), 0);
                ASSERT_EQ(init_data_purgatory(kPurgatoryThreshold), 0);
                break;
        }
    }

    std::mt19937 random_;
    std::deque<element> elements_;
    zarn_data_t *data_[kBuffers] = {};
    std::string model_[kBuffers];
};

TEST_F(model_test, BuffersDoWhatByteStringsDo) {
    const char *rounds = getenv("ZARN_TEST_ROUNDS");
    for (int seed = 1, last = rounds != nullptr ? atoi(rounds) : 30; seed <= last && !HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        run(static_cast<uint32_t>(seed));
    }
}

}  // namespace
