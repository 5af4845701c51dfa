// SPDX-License-Identifier: MIT

#include "roster/zarn_endpoint.h"

#include <zarn/status.h>

#include "tests/roster/roster_fixture.h"
#include "tests/support/failures.h"

namespace {

class zarn_endpoint_test : public roster_test {
 protected:
    void SetUp() override {
        roster_test::SetUp();
        protocols::provide({"alpha", "beta", "gamma"});
        provide_domains("1a {; out {; 1 {; 3 alpha beta gamma; 1 beta; }; }; dl {; 2 {; 2 alpha; }; }; }");
    }
};

TEST_F(zarn_endpoint_test, builds_the_chain_from_the_last_module_and_takes_it_down_from_the_first) {
    zarn_endpoint_t *ep = nullptr;
    ASSERT_EQ(ep_new_endpoint(&ep, 26, 1, 3), 0);
    EXPECT_EQ(protocols::take_trace(), (lines{"init gamma", "init beta", "init alpha"}));

    const char *const order[] = {"alpha", "beta", "gamma"};
    const proto_node *node = ep->protocols, *before = nullptr;
    EXPECT_EQ(ep->top_module, node->module);
    for (const char *name : order) {
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(static_cast<const void *>(node->module), protocols::record(name));
        EXPECT_EQ(node->endpoint, ep);
        EXPECT_EQ(node->prev, before);
        before = node;
        node = node->next;
    }
    EXPECT_EQ(node, nullptr);

    ep_delete_endpoint(ep);
    EXPECT_EQ(protocols::take_trace(), (lines{"uninit alpha", "uninit beta", "uninit gamma"}));
    EXPECT_EQ(test_kernel::module_references("network/alpha"), 1)
        << "the reference is the client's to give back";
    EXPECT_EQ(release_family_ref(26), 0);
    EXPECT_EQ(test_kernel::module_references("network/alpha"), 0);
}

TEST_F(zarn_endpoint_test, starts_with_the_promised_fields) {
    zarn_endpoint_t *ep;
    ASSERT_EQ(ep_new_endpoint(&ep, 26, 1, 1), 0);
    EXPECT_EQ(ep->protocols->next, nullptr);
    EXPECT_EQ(ep->protocols->prev, nullptr);
    EXPECT_EQ(static_cast<const void *>(ep->top_module), protocols::record("beta"));
    EXPECT_EQ(ep->family, 26u);
    EXPECT_EQ(ep->key1, 1u);
    EXPECT_EQ(ep->key2, 1u);
    for (const ep_tuning *tuning : {&ep->tuning_a, &ep->tuning_b}) {
        EXPECT_EQ(tuning->word, 0u);
        EXPECT_EQ(tuning->mark, 1u);
        EXPECT_EQ(tuning->timeout, INT64_MAX);
    }
    for (const ep_blob *blob : {&ep->inherited_blob, &ep->own_blob}) {
        EXPECT_EQ(blob->data, blob->storage);
        EXPECT_EQ(blob->length, 0u);
    }
    EXPECT_EQ(ep->backlog, 0);
    EXPECT_EQ(ep->room, 0);
    EXPECT_EQ(ep_spawn_endpoint(ep), nullptr);
    EXPECT_EQ(test_kernel::journal("sem_create"), (lines{"sem_create \"ep lock\" 0"}));
    ep_delete_endpoint(ep);
    EXPECT_EQ(release_family_ref(26), 0);
}

TEST_F(zarn_endpoint_test, a_protocol_that_refuses_takes_down_those_below_it_and_the_reference) {
    const struct {
        const char *refusing;
        lines trace;
    } cases[] = {
        {"gamma", {"init gamma refused"}},
        {"beta", {"init gamma", "init beta refused", "uninit gamma"}},
        {"alpha", {"init gamma", "init beta", "init alpha refused", "uninit beta", "uninit gamma"}},
    };
    for (const auto &each : cases) {
        protocols::refusing = each.refusing;
        zarn_endpoint_t *ep = reinterpret_cast<zarn_endpoint_t *>(this);
        EXPECT_EQ(ep_new_endpoint(&ep, 26, 1, 3), -1);
        EXPECT_EQ(ep, nullptr);
        EXPECT_EQ(protocols::take_trace(), each.trace);
        EXPECT_EQ(take_log(), (lines{"zarn_util: loading stack 1a 1 1 3\n",
                                     "zarn_util:add_proto_node: error initializing protocol\n",
                                     "zarn_util: free_family_cache(): unloading address family 1a\n"}));
        EXPECT_EQ(release_family_ref(26), -1);
        take_log();
    }
}

TEST_F(zarn_endpoint_test, gives_the_status_of_the_lookup) {
    zarn_endpoint_t *ep = reinterpret_cast<zarn_endpoint_t *>(this);
    EXPECT_EQ(ep_new_endpoint(&ep, 27, 1, 3), ERR_NO_FAMILY);
    EXPECT_EQ(ep, nullptr);
    ep = reinterpret_cast<zarn_endpoint_t *>(this);
    EXPECT_EQ(ep_new_endpoint(&ep, 26, 2, 2), ERR_NO_STACK) << "datalink stacks are no endpoint's";
    EXPECT_EQ(ep, nullptr);
}

TEST_F(zarn_endpoint_test, any_failure_of_a_creation_leaves_nothing_and_the_next_one_works) {
    const int32_t blocks = test_kernel::heap_blocks();
    sweep_failures([&] {
        zarn_endpoint_t *ep = reinterpret_cast<zarn_endpoint_t *>(this);
        const int32_t status = ep_new_endpoint(&ep, 26, 1, 3);
        test_kernel::fail_nothing();
        if (test_kernel::refusals() != 0) {
            EXPECT_LT(status, 0);
            EXPECT_EQ(ep, nullptr);
            EXPECT_EQ(test_kernel::heap_blocks(), blocks);
            EXPECT_EQ(protocols::nodes(), 0);
            EXPECT_EQ(release_family_ref(26), -1);
            ASSERT_EQ(ep_new_endpoint(&ep, 26, 1, 3), 0);
        }
        ep_delete_endpoint(ep);
        EXPECT_EQ(release_family_ref(26), 0);
    });
}

TEST_F(zarn_endpoint_test, a_failed_creation_gives_back_its_own_reference_and_no_other) {
    zarn_endpoint_t *held, *ep;
    ASSERT_EQ(ep_new_endpoint(&held, 26, 1, 3), 0);
    const int32_t blocks = test_kernel::heap_blocks();
    take_log();
    // The record, the lock, three nodes: with the stack loaded nothing else can fail.
    for (int32_t k = 1; k <= 5; ++k) {
        test_kernel::fail_call(k);
        EXPECT_EQ(ep_new_endpoint(&ep, 26, 1, 3), -1) << k;
        EXPECT_EQ(test_kernel::refusals(), 1);
        EXPECT_EQ(take_log(), k <= 2 ? lines{} : lines{"zarn_util:add_proto_node: calloc failed\n"}) << k;
        EXPECT_EQ(test_kernel::heap_blocks(), blocks);
        EXPECT_EQ(protocols::nodes(), 3);
    }
    test_kernel::fail_nothing();
    ep_delete_endpoint(held);
    EXPECT_EQ(release_family_ref(26), 0);
    EXPECT_EQ(release_family_ref(26), -1);
}

}  // namespace
