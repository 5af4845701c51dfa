// SPDX-License-Identifier: MIT
//
// A lock-free stack of linked nodes. Any thread and any interrupt level may push and pop at any time.
//
// - A node is any record whose first word the stack may overwrite: that word is the link to the next node.
// - The end of the list is the stack's own `sentinel`, a node that links to itself. There is no null and no
//   count.
// - Whoever frees nodes must know that no other pop is under way: a pop reads the link of a node that another
//   pop may just have taken. Nodes that are never freed while the stack lives need no such care.

#ifndef ZARN_MEMORY_ATOMIC_STACK_H
#define ZARN_MEMORY_ATOMIC_STACK_H

#include <stddef.h>
#include <stdint.h>

#include "platform/processor.h"

// The link word of a node, whatever pointer type the node's own record declares there.
typedef void *__attribute__((may_alias)) stack_link;

struct atomic_stack_t {
    // Head and generation: the top node or the address of `sentinel`, and the number of changes.
    tagged_pointer top;
    void *sentinel;  // always its own address
};

static_assert(offsetof(atomic_stack_t, sentinel) == 2 * sizeof(void *));

// Makes `stack` empty. The caller has it to itself.
inline void init_atomic_stack(atomic_stack_t *stack) {
    stack->sentinel = &stack->sentinel;
    stack->top.pointer = &stack->sentinel;
}

// A lost exchange means that another caller made progress; pausing lets it finish instead of fighting for the
// cache line. The pauses grow between two bounds, so that even at interrupt level the wait between two tries
// is bounded. docs/performance.md has what was measured: fewer than these to begin with leave two callers
// that take turns in each other's way.
constexpr uint32_t kFirstPauses = 16;
constexpr uint32_t kLongestPauses = 64;

inline void pause_after_lost_exchange(uint32_t *pauses) {
    for (uint32_t i = 0; i < *pauses; ++i)
        pause_processor();
    if (*pauses < kLongestPauses) *pauses *= 2;
}

// Generation first, then head: when the exchange finds the generation unchanged, the head and whatever was
// read through it after that are still current. The acquire loads keep this order and pair with the exchange
// in the push, behind which the link of the node is visible.
inline tagged_pointer read_stack_top(const atomic_stack_t *stack) {
    tagged_pointer top;
    top.generation = __atomic_load_n(&stack->top.generation, __ATOMIC_ACQUIRE);
    top.pointer = __atomic_load_n(&stack->top.pointer, __ATOMIC_ACQUIRE);
    return top;
}

// Takes the top node off. On an empty stack the result is the address of `sentinel`: its link is itself, so
// that the exchange writes it back and no branch is needed.
inline void *atomic_pop(atomic_stack_t *stack) {
    for (uint32_t pauses = kFirstPauses;; pause_after_lost_exchange(&pauses)) {
        tagged_pointer top = read_stack_top(stack);
        // The node may be taken, used and pushed again by others right now. Then this link is stale, but the
        // generation has moved on and the exchange fails.
        void *next = __atomic_load_n((stack_link *)top.pointer, __ATOMIC_RELAXED);
        if (compare_exchange_tagged(&stack->top, top, {next, top.generation + 1})) return top.pointer;
    }
}

// Puts `node` on top; overwrites its first word.
inline void atomic_push(atomic_stack_t *stack, void *node) {
    for (uint32_t pauses = kFirstPauses;; pause_after_lost_exchange(&pauses)) {
        tagged_pointer top = read_stack_top(stack);
        // Atomic only for a pop that still reads the link of this node from before it was taken. The exchange
        // orders it.
        __atomic_store_n((stack_link *)node, top.pointer, __ATOMIC_RELAXED);
        if (compare_exchange_tagged(&stack->top, top, {node, top.generation + 1})) return;
    }
}

#endif
