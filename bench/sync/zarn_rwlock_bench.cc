// SPDX-License-Identifier: MIT
//
// Reading and writing under a read-write lock, alone and with a second thread that does the same.

#include <pthread.h>

#include <shared_mutex>

#include "bench/bench.h"

namespace {

struct alignas(64) locks {
    rwlock_t module;
    alignas(64) std::shared_mutex standard;
    alignas(64) pthread_rwlock_t posix = PTHREAD_RWLOCK_INITIALIZER;
    alignas(64) uint64_t guarded = 0;
} gLocks;

bool rwlock_is_made() {
    static const int32_t status = util->create_rwlock(&gLocks.module, "bench");
    return status == 0;
}

template <typename enter, typename leave>
void add_pair(const std::string &name, bool writes, enter in, leave out) {
    add_benchmark(name,
                  [=](benchmark::State &state) {
                      if (!rwlock_is_made()) state.SkipWithError("no lock");
                      for (auto _ : state) {
                          in();
                          if (writes)
                              benchmark::DoNotOptimize(++gLocks.guarded);
                          else
                              benchmark::DoNotOptimize(gLocks.guarded);
                          out();
                      }
                  })
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
}

const int gRegistered = [] {
    add_pair(
        "read_pair/module", false, [] { util->read_lock(&gLocks.module); },
        [] { util->read_unlock(&gLocks.module); });
    add_pair(
        "read_pair/std_shared_mutex", false, [] { gLocks.standard.lock_shared(); },
        [] { gLocks.standard.unlock_shared(); });
    add_pair(
        "read_pair/pthread_rwlock", false, [] { pthread_rwlock_rdlock(&gLocks.posix); },
        [] { pthread_rwlock_unlock(&gLocks.posix); });
    add_pair(
        "write_pair/module", true, [] { util->write_lock(&gLocks.module); },
        [] { util->write_unlock(&gLocks.module); });
    add_pair(
        "write_pair/std_shared_mutex", true, [] { gLocks.standard.lock(); },
        [] { gLocks.standard.unlock(); });
    add_pair(
        "write_pair/pthread_rwlock", true, [] { pthread_rwlock_wrlock(&gLocks.posix); },
        [] { pthread_rwlock_unlock(&gLocks.posix); });
    return 0;
}();

}  // namespace
