// SPDX-License-Identifier: MIT
//
// Taking a block and giving it back, alone and with a second thread at the same pool, beside the heap and
// beside a list of free blocks under a mutex.

#include "memory/mempool.h"

#include <cstdlib>
#include <mutex>

#include "bench/bench.h"

namespace {

constexpr uint32_t kBlock = 256;
constexpr int32_t kBlocks = 64;
alignas(64) uint8_t gMemory[kBlock * kBlocks];

mempool_t *client_pool() {
    static mempool_t *pool = util->new_mempool(gMemory, kBlock, kBlocks);
    return pool;
}

class guarded_list {
 public:
    guarded_list() {
        for (int32_t i = 0; i < kBlocks; ++i)
            put(memory_ + i * kBlock);
    }
    void *take() {
        std::lock_guard guard(lock_);
        node *top = head_;
        if (top != nullptr) head_ = top->next;
        return top;
    }
    void put(void *block) {
        std::lock_guard guard(lock_);
        head_ = new (block) node{head_};
    }

 private:
    struct node {
        node *next;
    };
    std::mutex lock_;
    node *head_ = nullptr;
    alignas(64) uint8_t memory_[kBlock * kBlocks];
};
guarded_list gList;

template <typename take_block, typename put_block>
void add_pair(const std::string &variant, take_block take, put_block put) {
    add_benchmark("block_pair/" + variant,
                  [=](benchmark::State &state) {
                      for (auto _ : state) {
                          void *block = take();
                          if (block == nullptr) state.SkipWithError("no block");
                          // A pair of the heap whose block is not used may be left out altogether.
                          benchmark::DoNotOptimize(block);
                          put(block);
                      }
                  })
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
}

// The pair with other pauses behind a lost exchange; from 0 is none.
template <uint32_t kLongest>
void wait(uint32_t *pauses) {
    for (uint32_t i = 0; i < *pauses; ++i)
        pause_processor();
    if (*pauses < kLongest) *pauses *= 2;
}

template <uint32_t kFirst, uint32_t kLongest>
void *pop(atomic_stack_t *stack) {
    for (uint32_t pauses = kFirst;; wait<kLongest>(&pauses)) {
        tagged_pointer top = read_stack_top(stack);
        void *next = __atomic_load_n(static_cast<stack_link *>(top.pointer), __ATOMIC_RELAXED);
        if (compare_exchange_tagged(&stack->top, top, {next, top.generation + 1})) return top.pointer;
    }
}

template <uint32_t kFirst, uint32_t kLongest>
void push(atomic_stack_t *stack, void *node) {
    for (uint32_t pauses = kFirst;; wait<kLongest>(&pauses)) {
        tagged_pointer top = read_stack_top(stack);
        __atomic_store_n(static_cast<stack_link *>(node), top.pointer, __ATOMIC_RELAXED);
        if (compare_exchange_tagged(&stack->top, top, {node, top.generation + 1})) return;
    }
}

// Two callers that do nothing else soon run in bursts; with a little work in between they take turns, which
// is the harder case.
template <uint32_t kFirst, uint32_t kLongest>
void add_pauses() {
    for (uint32_t work : {0u, 50u}) {
        std::string name = "pauses/" + std::string(work > 0 ? "with_work" : "back_to_back") + "/from_" +
                           std::to_string(kFirst) + "_to_" + std::to_string(kLongest);
        add_benchmark(name,
                      [work](benchmark::State &state) {
                          auto spin = [work] {
                              for (uint32_t i = 0; i < work; ++i)
                                  hide(i);
                          };
                          atomic_stack_t *stack = &client_pool()->free_stack;
                          for (auto _ : state) {
                              void *node = pop<kFirst, kLongest>(stack);
                              spin();
                              push<kFirst, kLongest>(stack, node);
                              spin();
                          }
                      })
            ->Threads(2)
            ->UseRealTime();
    }
}

[[maybe_unused]] const bool gAdded = [] {
    add_pair(
        "mp_alloc", [] { return util->mp_alloc(client_pool()); },
        [](void *block) { util->mp_free(client_pool(), block); });
    add_pair(
        "zarn_falloc", [] { return util->zarn_falloc(kBlock); }, [](void *block) { util->zarn_free(block); });
    add_pair(
        "malloc", [] { return std::malloc(kBlock); }, [](void *block) { std::free(block); });
    add_pair(
        "mutex_list", [] { return gList.take(); }, [](void *block) { gList.put(block); });
    add_pauses<kFirstPauses, kLongestPauses>();
    add_pauses<0, 0>();
    add_pauses<1, 64>();
    add_pauses<8, 64>();
    add_pauses<64, 64>();
    add_pauses<16, 256>();
    return true;
}();

}  // namespace
