// SPDX-License-Identifier: MIT
//
// The wheel beside two timer queues under a mutex: a std::multimap and a binary heap whose entries know their
// place. Arming and cancelling, and moving an armed timer, with so many others armed; and firing 100,000 that
// are due together, from the first hook to the last, with the lock down around each hook in all three.

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/bench.h"
#include "platform/kern.h"

namespace {

constexpr int64_t kFar = 100'000'000;  // nothing of what is armed comes due while a benchmark runs
constexpr int kDue = 100'000;

// Between one and two times kFar, from a short list so that drawing costs nothing.
int64_t some_delay() {
    static const std::vector<int64_t> delays = [] {
        std::vector<int64_t> result(1024);
        uint32_t state = 1;
        for (int64_t &delay : result) {
            state = state * 1664525u + 1013904223u;
            delay = kFar + state % kFar;
        }
        return result;
    }();
    static size_t next;
    return delays[next++ % delays.size()];
}

// Counts what fires, and takes the time of the first and the last.
struct firing {
    void fired() {
        if (count++ == 0) first = std::chrono::steady_clock::now();
        if (count == kDue) {
            last = std::chrono::steady_clock::now();
            __atomic_store_n(&done, true, __ATOMIC_RELEASE);
        }
    }
    int count = 0;
    bool done = false;
    std::chrono::steady_clock::time_point first, last;
};

class wheel {
 public:
    static constexpr bool kOwnThread = true;
    using timer = zarn_timer_t *;
    timer create(firing *f) {
        return util->create_zarn_timer([](zarn_timer_t *, void *arg) { static_cast<firing *>(arg)->fired(); },
                                       f);
    }
    void destroy(timer t) { util->delete_zarn_timer(t); }
    void arm(timer t, int64_t delay) { util->zarn_set_timer(t, delay, 1); }
    void cancel(timer t) { util->zarn_cancel_timer(t); }
    void run(const firing &f) {
        while (!__atomic_load_n(&f.done, __ATOMIC_ACQUIRE))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
};

class multimap_queue {
 public:
    static constexpr bool kOwnThread = false;
    struct entry;
    using map = std::multimap<int64_t, entry *>;
    struct entry {
        firing *f;
        map::iterator at;
        bool armed = false;
    };
    using timer = entry *;
    timer create(firing *f) { return new entry{f, {}}; }
    void destroy(timer t) {
        cancel(t);
        delete t;
    }
    void arm(timer t, int64_t delay) {
        std::lock_guard guard(lock_);
        if (t->armed) queue_.erase(t->at);
        t->at = queue_.emplace(kern_time_us() + delay, t);
        t->armed = true;
    }
    void cancel(timer t) {
        std::lock_guard guard(lock_);
        if (t->armed) queue_.erase(t->at);
        t->armed = false;
    }
    void run(const firing &f) {
        std::unique_lock guard(lock_);
        while (!f.done) {
            auto at = queue_.begin();
            if (at->first > kern_time_us()) continue;
            timer t = at->second;
            queue_.erase(at);
            t->armed = false;
            guard.unlock();
            hide(t->f)->fired();
            guard.lock();
        }
    }

 private:
    std::mutex lock_;
    map queue_;
};

class heap_queue {
 public:
    static constexpr bool kOwnThread = false;
    struct entry {
        firing *f;
        int64_t appt = 0;
        size_t place = kIdle;
    };
    using timer = entry *;
    timer create(firing *f) { return new entry{f}; }
    void destroy(timer t) {
        cancel(t);
        delete t;
    }
    void arm(timer t, int64_t delay) {
        std::lock_guard guard(lock_);
        t->appt = kern_time_us() + delay;
        if (t->place == kIdle) {
            t->place = heap_.size();
            heap_.push_back(t);
        }
        settle(t);
    }
    void cancel(timer t) {
        std::lock_guard guard(lock_);
        if (t->place != kIdle) remove(t);
    }
    void run(const firing &f) {
        std::unique_lock guard(lock_);
        while (!f.done) {
            timer t = heap_.front();
            if (t->appt > kern_time_us()) continue;
            remove(t);
            guard.unlock();
            hide(t->f)->fired();
            guard.lock();
        }
    }

 private:
    static constexpr size_t kIdle = SIZE_MAX;
    void put(size_t place, timer t) {
        heap_[place] = t;
        t->place = place;
    }
    void settle(timer t) {
        size_t place = t->place;
        for (; place > 0 && heap_[(place - 1) / 2]->appt > t->appt; place = (place - 1) / 2)
            put(place, heap_[(place - 1) / 2]);
        for (size_t child; (child = 2 * place + 1) < heap_.size(); place = child) {
            if (child + 1 < heap_.size() && heap_[child + 1]->appt < heap_[child]->appt) ++child;
            if (heap_[child]->appt >= t->appt) break;
            put(place, heap_[child]);
        }
        put(place, t);
    }
    void remove(timer t) {
        timer last = heap_.back();
        heap_.pop_back();
        if (last != t) {
            put(t->place, last);
            settle(last);
        }
        t->place = kIdle;
    }

    std::mutex lock_;
    std::vector<timer> heap_;
};

// A queue with so many timers, all armed.
template <typename queue>
struct armed {
    armed(size_t count, firing *f) {
        for (size_t i = 0; i < count; ++i) {
            timers.push_back(q.create(f));
            q.arm(timers.back(), some_delay());
        }
    }
    ~armed() {
        for (auto t : timers)
            q.cancel(t);
        for (auto t : timers)
            q.destroy(t);
    }
    queue q;
    std::vector<typename queue::timer> timers;
};

template <typename queue>
void arm_and_cancel(benchmark::State &state, size_t others) {
    armed<queue> all(others, nullptr);
    auto timer = all.q.create(nullptr);
    for (auto _ : state) {
        all.q.arm(timer, some_delay());
        all.q.cancel(timer);
    }
    all.q.destroy(timer);
}

template <typename queue>
void arm_again(benchmark::State &state, size_t others) {
    armed<queue> all(others, nullptr);
    size_t next = 0;
    for (auto _ : state) {
        all.q.arm(all.timers[next], some_delay());
        next = (next + 7919) % others;
    }
}

template <typename queue>
void fire(benchmark::State &state) {
    firing f;
    armed<queue> all(kDue, &f);
    for (auto _ : state) {
        f.count = 0;
        f.done = false;
        // All for the same moment, far enough away for the arming to end before.
        const int64_t due = kern_time_us() + 150'000;
        for (auto t : all.timers)
            all.q.arm(t, due - kern_time_us());
        if (queue::kOwnThread && kern_time_us() >= due) state.SkipWithError("arming took too long");
        all.q.run(f);
        state.SetIterationTime(std::chrono::duration<double>(f.last - f.first).count());
    }
    state.SetItemsProcessed(state.iterations() * kDue);
}

template <typename queue>
void add_queue(const std::string &variant) {
    for (size_t others : {1, 1000, 100000}) {
        auto named = [&](std::string name) {
            name += std::to_string(others);
            name += '/';
            return name += variant;
        };
        add_benchmark(named("timer_arm_cancel/"),
                      [=](benchmark::State &state) { arm_and_cancel<queue>(state, others); });
        add_benchmark(named("timer_arm_again/"),
                      [=](benchmark::State &state) { arm_again<queue>(state, others); });
    }
    add_benchmark("timer_fire_100000/" + variant, fire<queue>)->UseManualTime()->Iterations(3);
}

const int gRegistered = [] {
    add_queue<wheel>("module");
    add_queue<multimap_queue>("multimap");
    add_queue<heap_queue>("binary_heap");
    return 0;
}();

}  // namespace
