// SPDX-License-Identifier: MIT

#include <cstring>
#include <random>

#include "roster/zarn_endpoint.h"
#include "tests/roster/roster_fixture.h"
#include "tests/support/failures.h"

namespace {

using endpoints = std::vector<zarn_endpoint_t *>;

class accept_queue_test : public roster_test {
 protected:
    void SetUp() override {
        roster_test::SetUp();
        protocols::provide({"alpha", "beta"});
        provide_domains("1a {; out {; 1 {; 3 alpha beta; }; }; }");
        ASSERT_EQ(ep_new_endpoint(&listener_, 26, 1, 3), 0);
    }

    void TearDown() override {
        remove(listener_);
        EXPECT_EQ(release_family_ref(26), -1) << "a reference is still out";
        roster_test::TearDown();
    }

    static void remove(zarn_endpoint_t *ep) {
        ep_delete_endpoint(ep);
        EXPECT_EQ(release_family_ref(26), 0);
    }

    // A list of the listener's, with its links checked in both directions.
    endpoints list(zarn_endpoint_t *&head) const {
        endpoints result;
        for (zarn_endpoint_t **link = &head; *link != nullptr; link = &(*link)->next) {
            EXPECT_EQ((*link)->prev_link, link);
            EXPECT_EQ((*link)->parent, listener_);
            result.push_back(*link);
        }
        return result;
    }

    zarn_endpoint_t *listener_;
};

TEST_F(accept_queue_test, behaves_like_two_lists_under_any_sequence_and_any_limit) {
    std::mt19937 random(1);
    endpoints pending, ready;  // with the newest first, with the oldest first
    int32_t backlog = 0;
    for (int step = 0; step < 4000; ++step) {
        const auto children = static_cast<int32_t>(pending.size() + ready.size());
        const uint32_t action = random() % 8;
        if (action == 0) {
            const int32_t limits[] = {0, 1, 3, 5, 8, 8, -1, INT32_MAX, INT32_MIN};
            backlog = limits[random() % std::size(limits)];
            ASSERT_EQ(ep_set_backlog(listener_, static_cast<uint32_t>(backlog)), 0);
            for (int64_t excess = int64_t{children} - backlog; excess > 0; --excess) {
                endpoints &loser = pending.empty() ? ready : pending;
                if (!loser.empty()) loser.erase(loser.begin());
                if (pending.empty() && ready.empty()) break;
            }
        } else if (action <= 2) {
            zarn_endpoint_t *child = ep_dequeue_endpoint(listener_);
            ASSERT_EQ(child, ready.empty() ? nullptr : ready.front());
            if (child != nullptr) {
                ready.erase(ready.begin());
                EXPECT_EQ(child->parent, nullptr);
                ep_ready_endpoint(child);  // handed out: left alone
                remove(child);
            }
        } else if (action <= 4 && !pending.empty()) {
            const auto which = pending.begin() + static_cast<long>(random() % pending.size());
            ep_ready_endpoint(*which);
            ready.push_back(*which);
            pending.erase(which);
        } else if (action > 4) {
            zarn_endpoint_t *child = ep_spawn_endpoint(listener_);
            ASSERT_EQ(child != nullptr, children < backlog);
            if (child != nullptr) pending.insert(pending.begin(), child);
        }
        SCOPED_TRACE(step);
        ASSERT_EQ(list(listener_->pending_head), pending);
        ASSERT_EQ(list(listener_->ready_head), ready);
        ASSERT_TRUE(ready.empty() || listener_->ready_tail == ready.back());
        const auto left = static_cast<int32_t>(pending.size() + ready.size());
        ASSERT_EQ(listener_->room, backlog - left);
        ASSERT_EQ(protocols::nodes, 2 * (1 + left));
    }
}

TEST_F(accept_queue_test, a_child_takes_over_what_it_inherits_and_nothing_else) {
    ep_set_backlog(listener_, 3);
    char outside[EP_BLOB_BYTES + 1] = "thirty-two bytes kept elsewhere.";
    listener_->inherited_blob.data = reinterpret_cast<uint8_t *>(outside);
    listener_->own_blob.length = listener_->module_word = listener_->event2_value = 4;
    listener_->copied_word_1 = 11;
    listener_->copied_word_2 = 12;
    listener_->tuning_a = {1, 2, 3};
    listener_->tuning_b = {4, 5, 6};
    ep_hook hook = {nullptr, [](zarn_endpoint_t *, uint32_t, uintptr_t, uintptr_t) {}, 0, 0, 0};
    listener_->hooks[1] = &hook;
    for (uint32_t length : {0u, 32u}) {
        listener_->inherited_blob.length = length;
        const zarn_endpoint_t *child = ep_spawn_endpoint(listener_);
        ASSERT_NE(child, nullptr);
        const ep_blob &blob = child->inherited_blob;
        EXPECT_TRUE(blob.data == blob.storage && child->own_blob.data == child->own_blob.storage);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(blob.data), blob.length),
                  std::string(outside, length));
        EXPECT_EQ(child->own_blob.length + child->module_word + child->event2_value, 0u);
        EXPECT_TRUE(child->copied_word_1 == 11 && child->copied_word_2 == 12);
        EXPECT_EQ(memcmp(&child->tuning_a, &listener_->tuning_a, 2 * sizeof(ep_tuning)), 0);
        EXPECT_TRUE(child->backlog == 0 && child->hooks[1] == nullptr);
    }
    listener_->inherited_blob.length = 33;
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    listener_->hooks[1] = nullptr;
}

TEST_F(accept_queue_test, a_child_that_cannot_be_made_changes_nothing) {
    ep_set_backlog(listener_, 1);
    const int32_t blocks = test_kernel::heap_blocks(), room = std::exchange(listener_->room, kRoomClosed);
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    EXPECT_EQ(ep_dequeue_endpoint(listener_), nullptr);
    zarn_endpoint_t orphan = {};
    orphan.parent = listener_;
    ep_ready_endpoint(&orphan);
    EXPECT_EQ(listener_->ready_head, nullptr);
    listener_->room = room;
    const auto expect_unchanged = [&](const zarn_endpoint_t *child) {
        EXPECT_EQ(child, nullptr);
        EXPECT_TRUE(listener_->room == 1 && listener_->pending_head == nullptr);
        EXPECT_EQ(test_kernel::heap_blocks(), blocks);
    };
    protocols::refusing = "alpha";
    expect_unchanged(ep_spawn_endpoint(listener_));
    protocols::refusing.clear();
    sweep_failures([&] {
        zarn_endpoint_t *child = ep_spawn_endpoint(listener_);
        test_kernel::fail_nothing();
        if (test_kernel::refusals() != 0) {
            expect_unchanged(child);
            ASSERT_NE(child = ep_spawn_endpoint(listener_), nullptr);
        }
        ep_ready_endpoint(child);
        EXPECT_EQ(ep_dequeue_endpoint(listener_), child);
        remove(child);
    });
}

TEST_F(accept_queue_test, deleting_a_listener_takes_its_whole_tree_and_their_references) {
    zarn_endpoint_t *accepted;
    ASSERT_EQ(ep_new_endpoint(&accepted, 26, 1, 3), 0);
    ep_set_backlog(accepted, 4);
    zarn_endpoint_t *made[4];
    for (uint32_t i = 0; i < 4; ++i) {
        made[i] = ep_spawn_endpoint(accepted);
        made[i]->protocols->data = 10 + i;
    }
    ep_ready_endpoint(made[2]);
    ep_ready_endpoint(made[0]);
    ep_set_backlog(made[3], 1);
    ep_spawn_endpoint(made[3])->protocols->data = 20;
    accepted->protocols->data = 30;
    protocols::take_trace();
    remove(accepted);
    lines expected;
    for (const char *first : {"20", "13", "11", "12", "10", "30"})
        expected.insert(expected.end(), {std::string("uninit alpha ") + first, "uninit beta"});
    EXPECT_EQ(protocols::take_trace(), expected);
}

}  // namespace
