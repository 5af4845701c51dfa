// SPDX-License-Identifier: MIT

#include "roster/zarn_endpoint.h"

#include <zarn/status.h>

#include "module/tallylock.h"
#include "tests/roster/roster_fixture.h"
#include "tests/support/failures.h"

namespace {

class zarn_endpoint_test : public roster_test {
 protected:
    void SetUp() override {
        roster_test::SetUp();
        protocols::provide({"alpha", "beta", "gamma"});
        provide_domains("1a {; out {; 1 {; 3 alpha beta gamma; }; }; dl {; 2 {; 2 alpha; }; }; }");
    }

    zarn_endpoint_t *ep_ = reinterpret_cast<zarn_endpoint_t *>(this);
};

TEST_F(zarn_endpoint_test, builds_the_chain_from_the_last_module_and_takes_it_down_from_the_first) {
    ASSERT_EQ(ep_new_endpoint(&ep_, 26, 1, 3), 0);
    EXPECT_EQ(protocols::take_trace(), (lines{"init gamma", "init beta", "init alpha"}));
    const proto_node *node = ep_->protocols, *before = nullptr;
    EXPECT_EQ(ep_->top_module, node->module);
    for (const char *name : {"alpha", "beta", "gamma"}) {
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(protocols::name_of(node->module), name);
        EXPECT_EQ(node->endpoint, ep_);
        EXPECT_EQ(node->prev, before);
        before = std::exchange(node, node->next);
    }
    EXPECT_EQ(node, nullptr);

    EXPECT_TRUE(ep_->family == 26 && ep_->key1 == 1 && ep_->key2 == 3 && ep_->backlog == 0);
    for (const ep_tuning &tuning : {ep_->tuning_a, ep_->tuning_b})
        EXPECT_TRUE(tuning.word == 0 && tuning.mark == 1 && tuning.timeout == INT64_MAX);
    for (const ep_blob *blob : {&ep_->inherited_blob, &ep_->own_blob})
        EXPECT_TRUE(blob->data == blob->storage && blob->length == 0);
    EXPECT_EQ(ep_spawn_endpoint(ep_), nullptr);
    EXPECT_EQ(test_kernel::journal("sem_create"), (lines{"sem_create \"ep lock\" 0"}));

    zarn_delete_tallylock(&ep_->lock);
    ep_delete_endpoint(ep_);
    EXPECT_EQ(test_kernel::journal("sem_delete").size(), 1u);
    EXPECT_EQ(protocols::take_trace(), (lines{"uninit alpha", "uninit beta", "uninit gamma"}));
    EXPECT_EQ(release_family_ref(26), 0) << "the reference is the client's to give back";
    EXPECT_EQ(ep_new_endpoint(&ep_, 27, 1, 3), ERR_NO_FAMILY);
    EXPECT_EQ(ep_new_endpoint(&ep_, 26, 2, 2), ERR_NO_STACK) << "datalink stacks are no endpoint's";
}

TEST_F(zarn_endpoint_test, a_protocol_that_refuses_takes_down_those_below_it_and_the_reference) {
    const struct {
        const char *refusing;
        lines trace;
    } cases[] = {
        {"beta", {"init gamma", "init beta refused", "uninit gamma"}},
        {"alpha", {"init gamma", "init beta", "init alpha refused", "uninit beta", "uninit gamma"}},
    };
    for (const auto &each : cases) {
        protocols::refusing = each.refusing;
        EXPECT_EQ(ep_new_endpoint(&ep_, 26, 1, 3), -1);
        EXPECT_EQ(ep_, nullptr);
        EXPECT_EQ(protocols::take_trace(), each.trace);
        EXPECT_EQ(take_log(), (lines{"zarn_util: loading stack 1a 1 1 3\n",
                                     "zarn_util:add_proto_node: error initializing protocol\n",
                                     "zarn_util: free_family_cache(): unloading address family 1a\n"}));
    }
}

TEST_F(zarn_endpoint_test, a_failed_creation_gives_back_its_own_reference_and_no_other) {
    const lines calloc_failed = {"zarn_util:add_proto_node: calloc failed\n"};
    int32_t failures = 0;
    const auto create = [&] {
        const int32_t blocks = test_kernel::heap_blocks(), nodes = protocols::nodes;
        take_log();
        const int32_t status = ep_new_endpoint(&ep_, 26, 1, 3);
        test_kernel::fail_nothing();
        if (test_kernel::refusals() != 0) {
            EXPECT_LT(status, 0);
            EXPECT_EQ(ep_, nullptr);
            EXPECT_EQ(test_kernel::heap_blocks(), blocks);
            EXPECT_EQ(protocols::nodes, nodes);
            // With the stack loaded nothing else can fail than the record, the lock, and three nodes.
            const bool node_failed = nodes != 0 && failures++ % 5 >= 2;
            EXPECT_TRUE(nodes == 0 || take_log() == (node_failed ? calloc_failed : lines{}));
            ASSERT_EQ(ep_new_endpoint(&ep_, 26, 1, 3), 0);
        }
        ep_delete_endpoint(ep_);
        EXPECT_EQ(release_family_ref(26), 0);
    };
    sweep_failures([&] {
        create();
        EXPECT_EQ(release_family_ref(26), -1);
    });
    zarn_endpoint_t *held;
    ASSERT_EQ(ep_new_endpoint(&held, 26, 1, 3), 0);
    sweep_failures(create);
    EXPECT_EQ(failures, 10);
    ep_delete_endpoint(held);
    EXPECT_EQ(release_family_ref(26), 0);
}

}  // namespace
