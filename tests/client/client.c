// SPDX-License-Identifier: MIT
//
// What a protocol module does with the table, compiled as C and as C++: it sees the headers of include/ and
// nothing else, and calls every operation, once by its name and once by its position behind the head of the
// record.

#include <stdio.h>
#include <string.h>

#include <zarn/zarn_endpoint_hooks.h>
#include <zarn/zarn_profiler.h>
#include <zarn/zarn_util.h>

enum { kOperations = 77, kHeadWords = 3, kFamily = 2, kKind = 1, kTcp = 6 };

static zarn_util_module_t *gUtil;
static int gByPosition, gCalls[kOperations + 1];
static int gFailures, gFreed, gFired;

#define CHECK(condition)                                                    \
    do {                                                                    \
        if (!(condition)) {                                                 \
            gFailures++;                                                    \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
        }                                                                   \
    } while (0)

// The operation at `position`, which must be where the member of that name is.
typedef void (*operation)(void);
static operation find_operation(int position, size_t offset) {
    operation found;
    CHECK(offset == (kHeadWords + position - 1) * sizeof found);
    memcpy(&found, (const char *)gUtil + offset, sizeof found);
    gCalls[position]++;
    return gByPosition ? ((const operation *)(const void *)gUtil)[kHeadWords + position - 1] : found;
}
#define OP(position, name) \
    ((__typeof__(gUtil->name))find_operation(position, offsetof(zarn_util_module_t, name)))

static void count_free(void *element) {
    (void)element;
    gFreed++;
}

static void count_free_for(void *ext_arg, void *element) {
    (void)element;
    ++*(int *)ext_arg;
}

static void use_buffers(void) {
    static uint8_t header[] = {0x45, 0x00, 0x00, 0x1c}, payload[] = {1, 2, 3, 4, 5, 6, 7}, option[] = {8, 9};
    const uint32_t sum = (uint16_t)~0x2855;  // 4500 + 001c + 0102 + 0304 + 0506 + 0700 = 5528
    uint8_t bytes[16] = {0};
    zarn_iovec pieces[4];
    const int freed_before = gFreed;
    int freed_with_argument = 0;
    void *mapped = NULL;
    zarn_data_t *packet = OP(1, new_zarn_data)(), *slice = gUtil->new_zarn_data();

    CHECK(OP(9, append_zarn_data)(packet, payload, sizeof payload, count_free) == 0);
    CHECK(OP(8, prepend_zarn_data)(packet, header, sizeof header, NULL) == 0);
    CHECK(OP(4, add_free_element)(packet, bytes, &freed_with_argument,
                                  zarn_free_func_from_ext(count_free_for), FREE_INTERRUPT_SAFE) == 0);
    CHECK(packet->length == 11 && OP(14, count_zarn_data_iovecs)(packet) == 2);
    CHECK(OP(13, get_zarn_data_iovecs)(packet, pieces, 4) == 2);
    CHECK(pieces[0].base == header && pieces[1].length == sizeof payload);

    CHECK(OP(18, get_zarn_data_checksum)(packet, 0, 11) == sum);
    CHECK(OP(19, copy_and_checksum_data)(packet, 0, bytes, 11) == sum && memcmp(bytes + 4, payload, 7) == 0);
    CHECK(OP(20, get_zarn_checksum)(bytes, 11, 0) == sum && OP(21, incremental_checksum)(0, 5, 5) == 0);
    CHECK(OP(10, insert_zarn_data)(packet, 4, option, 2, NULL) == 0);
    CHECK(OP(15, copy_from_zarn_data)(packet, 2, bytes, 5) == 5 && memcmp(bytes, "\0\x1c\x8\x9\1", 5) == 0);
    CHECK(OP(11, trim_zarn_data)(packet, 4, 2) == 0);
    CHECK(OP(16, map_to_zarn_data)(packet, 3, &mapped, 2) == 0 && memcmp(mapped, "\x1c\1", 2) == 0);

    CHECK(OP(6, clone_zarn_data)(slice, packet, 3, 5) == 0 &&
          OP(5, copy_zarn_data)(slice, packet, 0, 2) == 0);
    CHECK(OP(17, disassociate_zarn_data)(slice, 0, 2) == 0 && OP(7, coalesce_zarn_data)(slice, 0, 7) == 0);
    CHECK(packet->length == 11 && slice->length == 7);
    OP(2, delete_zarn_data)(packet);
    CHECK(gFreed == freed_before && freed_with_argument == 0);  // the slice shares the memory
    OP(3, isafe_delete_zarn_data)(slice);
    CHECK(freed_with_argument == 1);
}

static void use_physical_memory(void) {
    static uint8_t frame[64];
    const uintptr_t page_offset = (uintptr_t)frame % 4096;
    memory_run runs[4];
    address_spec *spec = OP(63, cache_address_spec)(frame, sizeof frame, 0);
    zarn_data_t *packet = gUtil->new_zarn_data();
    lock_token *token;

    CHECK(OP(65, get_cached_memory_map)(frame, sizeof frame, runs, 4) >= 1);
    CHECK(runs[0].address % 4096 == page_offset);
    OP(64, free_address_spec)(spec);
    CHECK(gUtil->get_cached_memory_map(frame, sizeof frame, runs, 4) == 0);

    gUtil->append_zarn_data(packet, frame, sizeof frame, NULL);
    packet->flags |= DATA_NEEDS_LOCK;
    token = OP(22, lock_zarn_data)(packet);
    CHECK(token != NULL && (packet->flags & DATA_LOCKED) != 0);
    CHECK(OP(12, get_data_memory_map)(packet, runs, 4, 1) >= 1 && runs[0].address % 4096 == page_offset);
    OP(23, unlock_zarn_data)(token);
    gUtil->zarn_free(token);
    CHECK(gUtil->get_data_memory_map(packet, runs, 4, 1) == -1);
    gUtil->delete_zarn_data(packet);
}

static void use_queues(void) {
    static uint8_t bytes[] = {1, 2, 3, 4};
    zarn_fifo_t fifo;
    zarn_data_t *data = gUtil->new_zarn_data(), *look = NULL, *out = NULL;

    gUtil->append_zarn_data(data, bytes, sizeof bytes, NULL);
    CHECK(OP(42, create_zarn_fifo)(&fifo, "client", 4) == 0);
    CHECK(OP(44, enqueue_zarn_fifo_data)(&fifo, data) == 0);
    CHECK(gUtil->enqueue_zarn_fifo_data(&fifo, data) == ERR_NO_BUFFER_SPACE);
    CHECK(OP(45, dequeue_zarn_fifo_data)(&fifo, &look, 0, 1) == 4 && look != data);
    CHECK(gUtil->dequeue_zarn_fifo_data(&fifo, &out, 0, 0) == 4 && out == data);
    CHECK(gUtil->enqueue_zarn_fifo_data(&fifo, look) == 0 && OP(46, clear_zarn_fifo)(&fifo) == 0);
    CHECK(gUtil->enqueue_zarn_fifo_data(&fifo, data) == 0);
    OP(43, delete_zarn_fifo)(&fifo);
}

static void wake_client(zarn_timer_t *timer, void *lock) {
    CHECK(OP(33, zarn_timer_appointment)(timer) == 0);
    gFired++;
    CHECK(OP(27, zarn_unlock_tallylock)((zarn_tallylock_t *)lock) == 0);
}

// Takes a lock twice; the timer gives it back in between.
static void use_locks_and_timers(void) {
    zarn_tallylock_t lock;
    rwlock_t rwlock;
    zarn_timer_t *timer = OP(28, create_zarn_timer)(NULL, NULL);

    CHECK(OP(24, zarn_create_tallylock)(&lock, NULL) >= 0 && OP(26, zarn_lock_tallylock)(&lock) == 0);
    OP(30, zarn_set_timer_hook)(timer, wake_client, &lock);
    OP(31, zarn_set_timer)(timer, 1000000, 0);
    CHECK(gUtil->zarn_timer_appointment(timer) > 0);
    OP(32, zarn_cancel_timer)(timer);
    gUtil->zarn_set_timer(timer, 1, 1);
    CHECK(gUtil->zarn_lock_tallylock(&lock) == 0 && gFired == 1 + gByPosition);
    OP(29, delete_zarn_timer)(timer);
    CHECK(OP(25, zarn_delete_tallylock)(&lock) == 0);

    CHECK(OP(34, create_rwlock)(&rwlock, "client") == 0 && OP(36, read_lock)(&rwlock) == 0);
    CHECK(OP(40, upgrade_to_write)(&rwlock) == 0 && OP(38, write_lock)(&rwlock) == 0 && rwlock.depth == 2);
    CHECK(OP(39, write_unlock)(&rwlock) == 0 && OP(41, downgrade_to_read)(&rwlock) == 0);
    CHECK(OP(37, read_unlock)(&rwlock) == 0 && rwlock.count == 0 && OP(35, delete_rwlock)(&rwlock) == 0);
}

static void use_memory(void) {
    static uint8_t memory[2 * 64];
    uint8_t a[] = {0x81}, b[] = {0x01}, mask[] = {0x7f};
    mempool_t *pool = OP(59, new_mempool)(memory, 64, 2);
    void *blocks[] = {OP(55, zarn_falloc)(100), OP(56, zarn_zalloc)(100), OP(57, zarn_malloc)(100)};

    CHECK(memcmp(blocks[1], blocks[2], 100) == 0);
    for (int i = 0; i < 3; i++)
        OP(58, zarn_free)(blocks[i]);
    CHECK(OP(61, mp_alloc)(pool) == memory);
    OP(62, mp_free)(pool, memory);
    CHECK(gUtil->mp_alloc(pool) == memory && gUtil->mp_alloc(pool) == memory + 64);
    OP(60, delete_mempool)(pool);

    CHECK(OP(47, zarn_masked_cmp)(a, b, mask, 1) == 0);
    OP(48, zarn_masked_copy)(b, a, mask, 1);
    CHECK(b[0] == 0x01);
    OP(66, _enter_prof_func)("client", "profiled", PROF_RECORD);
    OP(67, _exit_prof_func)("client", "profiled", PROF_RECORD);
    OP(66, _enter_prof_func)("client", __func__, PROF_RECORD);
    OP(67, _exit_prof_func)("client", __func__, PROF_RECORD);
    OP(68, log_data_path)();
    OP(69, print_memuse)();
}

static void note_ready(zarn_endpoint_t *listener, uint32_t value, uintptr_t sum, uintptr_t arg2) {
    (void)listener;
    *(uint32_t *)sum += value + (uint32_t)arg2;
}

// The settings are the sample ones, and so are the modules that they name.
static void use_families(void) {
    void **tables = NULL, *inbound = NULL;
    int32_t count = 0;
    uint32_t raised = 0;
    char message[] = "from a client";
    zarn_endpoint_t *listener = NULL, *child;

    CHECK(OP(53, get_config_int32)("no such key", 7) == 7 && OP(54, get_config_bool)("no such key", 1) == 1);
    CHECK(OP(77, zarn_notify)(1, 2, message, sizeof message) == 0);

    CHECK(OP(52, release_family_ref)(kFamily) == -1);
    CHECK(gUtil->get_outbound_protos(0, kFamily + 1, kKind, kTcp, &tables, &count) == ERR_NO_FAMILY);
    CHECK(OP(70, ep_new_endpoint)(&listener, kFamily, kKind, kTcp) == 0);
    if (listener == NULL) return;
    CHECK(OP(49, get_outbound_protos)(0, kFamily, kKind, kTcp, &tables, &count) == 0 && count == 2);
    CHECK(OP(50, get_inbound_proto)(kFamily, kTcp, &inbound) == 0 && inbound == tables[0]);
    CHECK(OP(51, get_family_ref)(kFamily) == 0);
    CHECK(listener->top_module == tables[0] && listener->protocols->next->module == tables[1]);

    ep_hook hook = {NULL, note_ready, (uintptr_t)&raised, 10, 0};
    CHECK(ep_add_hook(gUtil, listener, EP_EVENT_READY, &hook) == 0);
    CHECK(gUtil->ep_spawn_endpoint(listener) == NULL && OP(75, ep_set_backlog)(listener, 1) == 0);
    child = OP(72, ep_spawn_endpoint)(listener);
    OP(74, ep_ready_endpoint)(child);
    CHECK(OP(76, ep_notify_endpoint)(listener, EP_EVENT_READY, 100) == 0 && raised == 11 + 110);
    CHECK(OP(73, ep_dequeue_endpoint)(listener) == child && child->parent == NULL);
    CHECK(ep_remove_hook(gUtil, listener, EP_EVENT_READY, &hook) == 0);
    OP(71, ep_delete_endpoint)(child);
    gUtil->ep_delete_endpoint(listener);
    for (int references = 4; references > 0; references--)
        CHECK(gUtil->release_family_ref(kFamily) == 0);
    CHECK(gUtil->get_family_ref(kFamily) == -1);
}

// Returns the number of checks that failed.
#ifdef __cplusplus
extern "C"
#endif
    int
    run_client(void) {
    void *table = NULL, *again = NULL;

    CHECK(kern_module_acquire("network/no_such_module", &table) < 0 && table == NULL);
    CHECK(kern_module_acquire(ZARN_UTIL_MODULE_NAME, &table) == 0);
    if (table == NULL) return gFailures;
    CHECK(kern_module_acquire(ZARN_UTIL_MODULE_NAME, &again) == 0 && again == table);
    CHECK(kern_module_release(ZARN_UTIL_MODULE_NAME) == 0);
    gUtil = (zarn_util_module_t *)table;
    CHECK(strcmp(gUtil->head.name, ZARN_UTIL_MODULE_NAME) == 0 && gUtil->head.flags == 0);

    for (gByPosition = 0; gByPosition < 2; gByPosition++) {
        use_buffers();
        use_physical_memory();
        use_queues();
        use_locks_and_timers();
        use_memory();
        use_families();
        for (int position = 1; position <= kOperations; position++) {
            CHECK(gCalls[position] > 0);
            gCalls[position] = 0;
        }
    }
    CHECK(kern_module_release(ZARN_UTIL_MODULE_NAME) == 0);
    CHECK(gFreed == 2);  // the clones were still waiting for the thread that deletes; the stop waited for it
    return gFailures;
}
