// SPDX-License-Identifier: MIT
//
// A lookup in a cached family, alone and with a second thread, beside a map of stacks under a mutex; an
// endpoint made and deleted, and a child from its spawning to its accepting, beside the heap calls that
// either cannot do without.

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "bench/bench.h"
#include "platform/hosted/hosted_kernel.h"

namespace {

constexpr int32_t kFamily = 2, kKey1 = 1, kKey2 = 6;  // three modules

// A family that is held, and silence about it.
class held_family {
 public:
    held_family() {
        hosted_set_module_directory(ZARN_TEST_PROTOCOLS);
        hosted_set_settings_directory(ZARN_TEST_PROTOCOLS);
        hosted_set_log([](void *, const char *) {}, nullptr);
        void **tables;
        int32_t count;
        held_ = util->get_outbound_protos(0, kFamily, kKey1, kKey2, &tables, &count) == 0 && count == 3;
    }
    ~held_family() {
        if (held_) util->release_family_ref(kFamily);
        hosted_set_log(nullptr, nullptr);
    }
    bool held() const { return held_; }

 private:
    bool held_;
};

std::unique_ptr<held_family> gFamily;

void hold_family(const benchmark::State &) {
    gFamily = std::make_unique<held_family>();
}

void let_family_go(const benchmark::State &) {
    gFamily.reset();
}

void lookup_in_module(benchmark::State &state) {
    void **tables;
    int32_t count = 0;
    for (auto _ : state) {
        util->get_outbound_protos(0, kFamily, kKey1, kKey2, &tables, &count);
        util->release_family_ref(kFamily);
    }
    if (!gFamily->held() || count != 3) state.SkipWithError("no such stack");
}

// What one writes first: a map of families and one of their stacks, a count of users, one mutex.
void lookup_in_map(benchmark::State &state) {
    struct family {
        std::map<std::tuple<uint32_t, uint32_t, int32_t>, std::vector<void *>> stacks;
        int32_t users = 1;
    };
    static std::mutex lock;
    static std::map<uint32_t, family> families{{kFamily, {{{{1, kKey1, kKey2}, {&lock, &lock, &lock}}}, 1}}};
    size_t count = 0;
    for (auto _ : state) {
        {
            std::lock_guard guard(lock);
            family &found = families.find(kFamily)->second;
            count = found.stacks.find({1, kKey1, kKey2})->second.size();
            ++found.users;
        }
        std::lock_guard guard(lock);
        --families.find(kFamily)->second.users;
    }
    if (count != 3) state.SkipWithError("no such stack");
}

void endpoint_in_module(benchmark::State &state) {
    zarn_endpoint_t *ep = nullptr;
    for (auto _ : state) {
        if (util->ep_new_endpoint(&ep, kFamily, kKey1, kKey2) != 0) return state.SkipWithError("no endpoint");
        util->ep_delete_endpoint(ep);
        util->release_family_ref(kFamily);
    }
}

// The record, three nodes and the semaphore of the lock.
void endpoint_in_heap(benchmark::State &state) {
    for (auto _ : state) {
        void *blocks[] = {calloc(1, sizeof(zarn_endpoint_t)), calloc(1, sizeof(proto_node)),
                          calloc(1, sizeof(proto_node)), calloc(1, sizeof(proto_node))};
        const int32_t sem = kern_sem_create(0, "ep lock");
        benchmark::DoNotOptimize(blocks);
        kern_sem_delete(sem);
        for (void *block : blocks)
            free(block);
    }
}

void accept_in_module(benchmark::State &state) {
    zarn_endpoint_t *listener, *child = nullptr;
    if (util->ep_new_endpoint(&listener, kFamily, kKey1, kKey2) != 0)
        return state.SkipWithError("no listener");
    util->ep_set_backlog(listener, 4);
    bool accepted = true;
    for (auto _ : state) {
        child = util->ep_spawn_endpoint(listener);
        util->ep_ready_endpoint(child);
        accepted = accepted && util->ep_dequeue_endpoint(listener) == child;
        util->ep_delete_endpoint(child);
        util->release_family_ref(kFamily);
    }
    if (!accepted) state.SkipWithError("another child");
    util->ep_delete_endpoint(listener);
    util->release_family_ref(kFamily);
}

[[maybe_unused]] const bool gAdded = [] {
    const struct {
        const char *name;
        void (*run)(benchmark::State &);
        bool alone;
    } runs[] = {
        {"roster_lookup/cached/module", lookup_in_module, false},
        {"roster_lookup/cached/map_under_mutex", lookup_in_map, false},
        {"endpoint/new_delete/module", endpoint_in_module, true},
        {"endpoint/new_delete/heap_and_semaphore", endpoint_in_heap, true},
        {"endpoint/spawn_to_dequeue/module", accept_in_module, true},
        {"endpoint/spawn_to_dequeue/heap_and_semaphore", endpoint_in_heap, true},
    };
    for (const auto &each : runs) {
        auto *added = add_benchmark(each.name, each.run)->Setup(hold_family)->Teardown(let_family_go);
        if (!each.alone) added->Threads(1)->Threads(2)->UseRealTime();
    }
    return true;
}();

}  // namespace
