// SPDX-License-Identifier: MIT

#include "memory/mempool.h"

#include "platform/libc.h"

// The smallest shift that reaches the block size; 0 for the sizes 0 and 1.
static uint32_t shift_of(uint32_t block_size) {
    return block_size <= 1 ? 0 : 32 - (uint32_t)__builtin_clz(block_size - 1);
}

mempool_t *new_mempool(void *base, uint32_t block_size, int32_t count) {
    size_t blocks = count > 0 ? (size_t)count : 0;
    if (blocks > (SIZE_MAX - sizeof(mempool_t)) / sizeof(mp_descriptor)) return nullptr;
    mempool_t *pool = (mempool_t *)malloc(sizeof(mempool_t) + blocks * sizeof(mp_descriptor));
    if (pool == nullptr) return nullptr;

    pool->base = base;
    pool->shift = shift_of(block_size);
    init_atomic_stack(&pool->free_stack);

    mp_descriptor *descriptors = pool->descriptors();
    for (size_t i = 0; i < blocks; ++i) {
        descriptors[i].next = i + 1 < blocks ? (void *)&descriptors[i + 1] : &pool->free_stack.sentinel;
        descriptors[i].block = (uint8_t *)base + i * block_size;
    }
    if (blocks != 0) pool->free_stack.top.pointer = descriptors;
    return pool;
}

void delete_mempool(mempool_t *pool) {
    free(pool);
}

void *mp_alloc(mempool_t *pool) {
    void *top = atomic_pop(&pool->free_stack);
    return top == &pool->free_stack.sentinel ? nullptr : ((mp_descriptor *)top)->block;
}

void mp_free(mempool_t *pool, void *block) {
    int32_t distance = (int32_t)((uintptr_t)block - (uintptr_t)pool->base);
    atomic_push(&pool->free_stack, &pool->descriptors()[distance >> pool->shift]);
}
