// SPDX-License-Identifier: MIT
//
// Taking a lock and giving it back, alone and against a second thread. "two_adds" is the least that two calls
// through a table can cost: one atomic add in each.

#include <pthread.h>

#include <mutex>

#include "bench/bench.h"
#include "platform/kern.h"

namespace {

[[gnu::noinline]] int32_t add(int32_t *count) {
    return kern_fetch_add(count, 1) == INT32_MAX;
}
[[gnu::noinline]] int32_t subtract(int32_t *count) {
    return kern_fetch_add(count, -1) == INT32_MAX;
}

struct table {
    int32_t (*up)(int32_t *) = add;
    int32_t (*down)(int32_t *) = subtract;
};

// Apart from each other, so that only the lock under test is shared.
struct alignas(64) locks {
    zarn_tallylock_t tally;
    alignas(64) int32_t count = 0;
    alignas(64) std::mutex standard;
    alignas(64) pthread_mutex_t posix = PTHREAD_MUTEX_INITIALIZER;
    alignas(64) uint64_t guarded = 0;
} gLocks;

bool tallylock_is_made() {
    static const int32_t sem = util->zarn_create_tallylock(&gLocks.tally, "bench");
    return sem >= 0;
}

template <typename lock_it, typename unlock_it>
void add_lock(const std::string &variant, lock_it lock, unlock_it unlock) {
    add_benchmark("lock_pair/" + variant,
                  [=](benchmark::State &state) {
                      if (!tallylock_is_made()) state.SkipWithError("no lock");
                      for (auto _ : state) {
                          lock();
                          benchmark::DoNotOptimize(++gLocks.guarded);
                          unlock();
                      }
                  })
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
}

const int gRegistered = [] {
    static const table *two_adds = hide(new table);
    add_lock(
        "module", [] { return util->zarn_lock_tallylock(&gLocks.tally); },
        [] { return util->zarn_unlock_tallylock(&gLocks.tally); });
    add_lock(
        "std_mutex", [] { gLocks.standard.lock(); }, [] { gLocks.standard.unlock(); });
    add_lock(
        "pthread_mutex", [] { pthread_mutex_lock(&gLocks.posix); },
        [] { pthread_mutex_unlock(&gLocks.posix); });
    add_benchmark("lock_pair/two_adds",
                  [](benchmark::State &state) {
                      for (auto _ : state) {
                          two_adds->up(&gLocks.count);
                          benchmark::DoNotOptimize(++gLocks.guarded);
                          two_adds->down(&gLocks.count);
                      }
                  })
        ->Threads(1)
        ->UseRealTime();
    return 0;
}();

}  // namespace
