// SPDX-License-Identifier: MIT

#include <zarn/zarn_endpoint_hooks.h>

#include "roster/zarn_endpoint.h"
#include "tests/roster/roster_fixture.h"

extern "C" const void *const modules[];

namespace {

class event_hooks_test : public roster_test {
 protected:
    void SetUp() override {
        roster_test::SetUp();
        protocols::provide({"alpha"});
        provide_domains("1 {; out {; 1 {; 1 alpha; }; }; }");
        ASSERT_EQ(ep_new_endpoint(&ep_, 1, 1, 1), 0);
        calls_.clear();
    }

    void TearDown() override {
        for (uint32_t event = 0; event < EP_EVENTS; ++event)
            remove_all(event);
        ep_delete_endpoint(ep_);
        EXPECT_EQ(release_family_ref(1), 0);
        roster_test::TearDown();
    }

    ep_hook *add(uint32_t event, char name, bool one_shot = false) {
        auto *hook = static_cast<ep_hook *>(zarn_falloc(sizeof(ep_hook)));
        *hook = {hook, record, static_cast<uintptr_t>(name), 7, one_shot};
        EXPECT_EQ(ep_add_hook(util_, ep_, event, hook), 0);
        return hook;
    }

    void remove_all(uint32_t event) {
        while (ep_hook *hook = ep_->hooks[event]) {
            EXPECT_EQ(ep_remove_hook(util_, ep_, event, hook), 0);
            zarn_free(hook);
        }
    }

    static void record(zarn_endpoint_t *ep, uint32_t value, uintptr_t arg1, uintptr_t arg2) {
        EXPECT_EQ(ep->lock.count, 1) << "hooks run with the endpoint's lock held";
        EXPECT_EQ(arg2, 7u);
        calls_ += static_cast<char>(arg1) + std::to_string(value) + ' ';
    }

    std::string raise(uint32_t event, uint32_t value) {
        EXPECT_EQ(ep_notify_endpoint(ep_, event, value), 0);
        return std::exchange(calls_, "");
    }

    static inline std::string calls_;
    const zarn_util_module_t *util_ = static_cast<const zarn_util_module_t *>(modules[0]);
    zarn_endpoint_t *ep_;
};

TEST_F(event_hooks_test, one_shots_leave_the_others_linked_wherever_they_stand) {
    for (uint32_t one_shots = 0; one_shots < 32; ++one_shots) {
        std::string all, rest;
        for (uint32_t i = 0; i < 5; ++i) {
            const char name = static_cast<char>('a' + i);
            const bool one_shot = (one_shots >> i & 1) != 0;
            add(0, name, one_shot);
            all += name + std::string("3 ");
            if (!one_shot) rest += name + std::string("4 ");
        }
        EXPECT_EQ(raise(0, 3), all) << one_shots;
        EXPECT_EQ(raise(0, 4), rest) << one_shots;
        remove_all(0);
    }
}

TEST_F(event_hooks_test, hooks_are_removed_from_any_place_and_misuse_is_refused) {
    ep_hook *const a = add(2, 'a'), *const b = add(2, 'b'), *const c = add(2, 'c');
    ep_hook empty = {};
    for (int32_t status : {ep_add_hook(util_, ep_, 2, b), ep_add_hook(util_, ep_, 2, &empty),
                           ep_add_hook(util_, ep_, EP_EVENTS, a), ep_remove_hook(util_, ep_, EP_EVENTS, a),
                           ep_remove_hook(util_, ep_, 1, a)})
        EXPECT_EQ(status, ERR_BAD_VALUE);
    EXPECT_EQ(raise(2, 1), "a1 b1 c1 ");
    EXPECT_EQ(raise(1, 7), "");
    EXPECT_EQ(ep_notify_endpoint(ep_, EP_EVENTS, 8), ERR_BAD_VALUE);
    EXPECT_EQ(ep_->event2_value, 1u);
    for (auto &[hook, rest] : {std::pair{b, "a1 c1 "}, {a, "c1 "}, {c, ""}}) {
        EXPECT_EQ(ep_remove_hook(util_, ep_, 2, hook), 0);
        EXPECT_EQ(ep_remove_hook(util_, ep_, 2, hook), ERR_BAD_VALUE);
        EXPECT_EQ(raise(2, 1), rest);
        zarn_free(hook);
    }
}

}  // namespace
