// SPDX-License-Identifier: MIT

#include <zarn/status.h>

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
        protocols::take_trace();
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

    endpoints spawn(int count) {
        endpoints result;
        for (int i = 0; i < count; ++i)
            result.push_back(ep_spawn_endpoint(listener_));
        return result;
    }

    // A list, with its links checked in both directions.
    static endpoints list(zarn_endpoint_t *&head, const zarn_endpoint_t *parent) {
        endpoints result;
        for (zarn_endpoint_t **link = &head; *link != nullptr; link = &(*link)->next) {
            EXPECT_EQ((*link)->prev_link, link);
            EXPECT_EQ((*link)->parent, parent);
            result.push_back(*link);
        }
        return result;
    }

    endpoints pending() { return list(listener_->pending_head, listener_); }
    endpoints ready() {
        const endpoints result = list(listener_->ready_head, listener_);
        if (!result.empty()) {
            EXPECT_EQ(listener_->ready_tail, result.back());
        }
        return result;
    }

    zarn_endpoint_t *listener_;
};

TEST_F(accept_queue_test, behaves_like_two_lists_under_any_sequence) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        endpoints waiting, done;  // pending with the newest first, ready with the oldest first
        int32_t backlog = 0;
        ASSERT_EQ(ep_set_backlog(listener_, 0), 0);
        for (int step = 0; step < 150; ++step) {
            const auto children = static_cast<int32_t>(waiting.size() + done.size());
            switch (random() % 8) {
                case 0: {
                    backlog = static_cast<int32_t>(random() % 9) - (random() % 8 == 0 ? 9 : 0);
                    ASSERT_EQ(ep_set_backlog(listener_, static_cast<uint32_t>(backlog)), 0);
                    for (int32_t excess = children - backlog;
                         excess > 0 && !(waiting.empty() && done.empty()); --excess) {
                        endpoints &loser = waiting.empty() ? done : waiting;
                        loser.erase(loser.begin());
                    }
                    break;
                }
                case 1:
                case 2: {
                    zarn_endpoint_t *child = ep_dequeue_endpoint(listener_);
                    ASSERT_EQ(child, done.empty() || backlog < 0 ? nullptr : done.front());
                    if (child == nullptr) break;
                    done.erase(done.begin());
                    EXPECT_EQ(child->parent, nullptr);
                    ep_ready_endpoint(child);  // handed out: left alone
                    remove(child);
                    break;
                }
                case 3:
                case 4: {
                    if (waiting.empty()) break;
                    const size_t which = random() % waiting.size();
                    ep_ready_endpoint(waiting[which]);
                    done.push_back(waiting[which]);
                    waiting.erase(waiting.begin() + static_cast<long>(which));
                    break;
                }
                default: {
                    zarn_endpoint_t *child = ep_spawn_endpoint(listener_);
                    ASSERT_EQ(child != nullptr, children < backlog);
                    if (child != nullptr) waiting.insert(waiting.begin(), child);
                }
            }
            ASSERT_EQ(pending(), waiting) << "step " << step;
            ASSERT_EQ(ready(), done) << "step " << step;
            ASSERT_EQ(listener_->backlog, backlog);
            ASSERT_EQ(listener_->room, backlog - static_cast<int32_t>(waiting.size() + done.size()))
                << "step " << step;
            ASSERT_EQ(protocols::nodes(), 2 * static_cast<int32_t>(1 + waiting.size() + done.size()));
        }
    }
}

TEST_F(accept_queue_test, lowering_the_backlog_deletes_as_told) {
    ASSERT_EQ(ep_set_backlog(listener_, 5), 0);
    const endpoints made = spawn(4);
    ep_ready_endpoint(made[1]);
    EXPECT_EQ(listener_->room, 1);
    protocols::take_trace();
    EXPECT_EQ(ep_set_backlog(listener_, 5), 0);
    EXPECT_EQ(protocols::take_trace(), lines{});
    EXPECT_EQ(ep_set_backlog(listener_, 2), 0);
    EXPECT_EQ(pending(), endpoints{made[0]});
    EXPECT_EQ(ready(), endpoints{made[1]});
    EXPECT_EQ(listener_->room, 0);
    EXPECT_EQ(protocols::take_trace(), (lines{"uninit alpha", "uninit beta", "uninit alpha", "uninit beta"}));

    EXPECT_EQ(ep_set_backlog(listener_, 10), 0);
    EXPECT_EQ(listener_->room, 8);
    for (uint32_t limit : {uint32_t{INT32_MAX}, 0x80000000u, 0xfffffffdu}) {
        EXPECT_EQ(ep_set_backlog(listener_, limit), 0);
        EXPECT_EQ(listener_->room, static_cast<int32_t>(limit) - (limit == INT32_MAX ? 2 : 0));
    }
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    EXPECT_EQ(ep_dequeue_endpoint(listener_), nullptr);
}

TEST_F(accept_queue_test, a_child_takes_over_what_it_inherits_and_nothing_else) {
    ep_set_backlog(listener_, 3);
    char outside[EP_BLOB_BYTES + 1] = "thirty-two bytes kept elsewhere.";
    listener_->inherited_blob.data = reinterpret_cast<uint8_t *>(outside);
    listener_->own_blob.length = 4;
    listener_->module_word = listener_->event2_value = 9;
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
        EXPECT_EQ(child->inherited_blob.data, child->inherited_blob.storage);
        EXPECT_EQ(child->inherited_blob.length, length);
        EXPECT_EQ(
            memcmp(child->inherited_blob.data, length == 0 ? std::string(32, '\0').c_str() : outside, 32), 0);
        EXPECT_EQ(child->own_blob.data, child->own_blob.storage);
        EXPECT_EQ(child->own_blob.length + child->module_word + child->event2_value, 0u);
        EXPECT_EQ(child->copied_word_1, 11u);
        EXPECT_EQ(child->copied_word_2, 12u);
        EXPECT_EQ(memcmp(&child->tuning_a, &listener_->tuning_a, 2 * sizeof(ep_tuning)), 0);
        EXPECT_EQ(child->backlog, 0);
        EXPECT_EQ(child->hooks[1], nullptr);
    }
    listener_->inherited_blob.length = 33;
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    EXPECT_EQ(listener_->room, 1);
    listener_->hooks[1] = nullptr;
}

TEST_F(accept_queue_test, a_child_that_cannot_be_made_changes_nothing) {
    ep_set_backlog(listener_, 1);
    protocols::refusing = "alpha";
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    protocols::refusing.clear();
    EXPECT_EQ(protocols::take_trace(), (lines{"init beta", "init alpha refused", "uninit beta"}));
    const int32_t blocks = test_kernel::heap_blocks();
    sweep_failures([&] {
        zarn_endpoint_t *child = ep_spawn_endpoint(listener_);
        test_kernel::fail_nothing();
        if (test_kernel::refusals() != 0) {
            EXPECT_EQ(child, nullptr);
            EXPECT_EQ(listener_->room, 1);
            EXPECT_EQ(pending(), endpoints{});
            EXPECT_EQ(test_kernel::heap_blocks(), blocks);
            ASSERT_NE(child = ep_spawn_endpoint(listener_), nullptr);
        }
        ep_ready_endpoint(child);
        EXPECT_EQ(ep_dequeue_endpoint(listener_), child);
        remove(child);
    });
}

TEST_F(accept_queue_test, a_closed_listener_leaves_its_lists_alone) {
    ep_set_backlog(listener_, 3);
    const endpoints made = spawn(2);
    ep_ready_endpoint(made[0]);
    const int32_t room = std::exchange(listener_->room, kRoomClosed);
    EXPECT_EQ(ep_spawn_endpoint(listener_), nullptr);
    EXPECT_EQ(ep_dequeue_endpoint(listener_), nullptr);
    ep_ready_endpoint(made[1]);
    EXPECT_EQ(pending(), endpoints{made[1]});
    EXPECT_EQ(ready(), endpoints{made[0]});
    listener_->room = room;
}

TEST_F(accept_queue_test, deleting_a_listener_takes_its_whole_tree_and_their_references) {
    ep_set_backlog(listener_, 1);
    zarn_endpoint_t *accepted = spawn(1)[0];
    ep_ready_endpoint(accepted);
    ASSERT_EQ(ep_dequeue_endpoint(listener_), accepted);

    // What was handed out is a listener of its own, with pending and ready children and one grandchild.
    ep_set_backlog(accepted, 4);
    endpoints made;
    for (uint32_t i = 0; i < 4; ++i) {
        made.push_back(ep_spawn_endpoint(accepted));
        made[i]->protocols->data = 10 + i;
    }
    ep_ready_endpoint(made[2]);
    ep_ready_endpoint(made[0]);
    ep_set_backlog(made[3], 1);
    ep_spawn_endpoint(made[3])->protocols->data = 20;
    accepted->protocols->data = 30;

    protocols::watch_data = true;
    protocols::take_trace();
    remove(accepted);
    EXPECT_EQ(protocols::take_trace(),
              (lines{"uninit alpha 20", "uninit beta 1", "uninit alpha 13", "uninit beta 1",
                     "uninit alpha 11", "uninit beta 1", "uninit alpha 12", "uninit beta 1",
                     "uninit alpha 10", "uninit beta 1", "uninit alpha 30", "uninit beta 1"}));
}

}  // namespace
