// SPDX-License-Identifier: MIT
//
// Storms on the roster and on listeners, with modules that are really loaded and unloaded.

#include "roster/zarn_roster.h"

#include <zarn/module.h>

#include <shared_mutex>
#include <string>

#include "roster/zarn_endpoint.h"
#include "tests/support/stress.h"

namespace {

constexpr int32_t kFamily = 2;

class roster_stress : public stress_test {
 protected:
    void SetUp() override {
        hosted_set_module_directory(ZARN_TEST_PROTOCOLS);
        hosted_set_settings_directory(ZARN_TEST_PROTOCOLS);
        stress_test::SetUp();
        ASSERT_EQ(init_roster(), 0);
    }

    void TearDown() override {
        // A reference too few would have unloaded modules that are in use, one too many keeps them here.
        EXPECT_EQ(uninit_roster(), 0);
        EXPECT_EQ(hosted_count_objects().modules, 0);
        stress_test::TearDown();
    }

    static std::string name_of(const void *table) { return static_cast<const module_head *>(table)->name; }
};

TEST_F(roster_stress, threads_that_look_up_release_and_drop_one_family) {
    const int rounds = stress_rounds(200);
    run_threads(3, [&](int i) {
        dice random(i);
        for (int round = 0; round < rounds; ++round) {
            void **tables, *inbound = nullptr;
            int32_t modules;
            // Held by nobody or by another thread: either answer is right.
            const int32_t status = get_inbound_proto(kFamily, 6, &inbound);
            EXPECT_EQ(status, inbound == nullptr ? -1 : 0);

            const bool three = random.roll(2) == 0;
            ASSERT_EQ(get_outbound_protos(0, kFamily, 1, three ? 6 : 17, &tables, &modules), 0);
            ASSERT_EQ(modules, three ? 3 : 2);
            EXPECT_EQ(name_of(tables[modules - 2]), "network/second");
            if (random.roll(2) == 0) {
                ASSERT_EQ(get_inbound_proto(kFamily, 17, &inbound), 0);
                ASSERT_EQ(get_family_ref(kFamily), 0);
                ASSERT_EQ(release_family_ref(kFamily), 0);
                EXPECT_EQ(name_of(inbound), "network/second");
            }
            EXPECT_EQ(name_of(tables[modules - 1]), "network/third");
            ASSERT_EQ(release_family_ref(kFamily), 0);
        }
    });
    EXPECT_EQ(release_family_ref(kFamily), -1);
}

TEST_F(roster_stress, threads_that_spawn_ready_accept_and_change_the_backlog) {
    for (int round = stress_rounds(20); round > 0; --round) {
        zarn_endpoint_t *listener;
        ASSERT_EQ(ep_new_endpoint(&listener, kFamily, 1, 6), 0);
        ep_set_backlog(listener, 4);
        int32_t raised = 0;
        std::atomic<int32_t> made_ready = 0;
        ep_hook counter = {nullptr,
                           [](zarn_endpoint_t *, uint32_t value, uintptr_t count, uintptr_t) {
                               *reinterpret_cast<int32_t *>(count) += static_cast<int32_t>(value);
                           },
                           reinterpret_cast<uintptr_t>(&raised), 0, 0};
        listener->hooks[EP_EVENT_READY] = &counter;
        std::shared_mutex spawning;
        run_threads(4, [&](int role) {
            for (uint32_t step = 0; step < 150; ++step) {
                if (role == 0) {
                    std::unique_lock rule(spawning);
                    ep_set_backlog(listener, step % 3 == 0 ? 0 : 2);
                    rule.unlock();
                    ep_set_backlog(listener, 6);
                    ep_notify_endpoint(listener, EP_EVENT_STORED, step);
                } else if (role == 1) {
                    zarn_endpoint_t *child = ep_dequeue_endpoint(listener);
                    if (child == nullptr) continue;
                    EXPECT_EQ(child->parent, nullptr);
                    ep_delete_endpoint(child);
                    EXPECT_EQ(release_family_ref(kFamily), 0);
                } else {
                    std::shared_lock rule(spawning);
                    zarn_endpoint_t *one = ep_spawn_endpoint(listener), *other = ep_spawn_endpoint(listener);
                    for (zarn_endpoint_t *child : {other, one}) {
                        if (child == nullptr) continue;
                        ep_ready_endpoint(child);
                        ++made_ready;
                    }
                    ep_spawn_endpoint(listener);  // stays pending
                }
            }
        });
        int32_t left = 0;
        for (zarn_endpoint_t *head : {listener->pending_head, listener->ready_head}) {
            for (; head != nullptr; head = head->next)
                ++left;
        }
        EXPECT_EQ(listener->backlog - listener->room, left);
        EXPECT_EQ(raised, made_ready);
        listener->hooks[EP_EVENT_READY] = nullptr;
        ep_delete_endpoint(listener);
        EXPECT_EQ(release_family_ref(kFamily), 0);
        EXPECT_EQ(release_family_ref(kFamily), -1) << "children have left references behind";
    }
}

}  // namespace
