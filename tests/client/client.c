// SPDX-License-Identifier: MIT
//
// What a protocol module in C does with the table: it sees the headers of include/ and nothing else.

#include <stdio.h>
#include <string.h>

#include <zarn/zarn_util.h>

static int gFailures;
static int gFreed;

#define CHECK(condition)                                                    \
    do {                                                                    \
        if (!(condition)) {                                                 \
            gFailures++;                                                    \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
        }                                                                   \
    } while (0)

static void count_free(void *element) {
    (void)element;
    gFreed++;
}

static void count_free_for(void *ext_arg, void *element) {
    (void)element;
    ++*(int *)ext_arg;
}

static void use_buffers(const zarn_util_module_t *util) {
    static uint8_t header[] = {0x45, 0x00, 0x00, 0x1c}, payload[] = {1, 2, 3, 4, 5, 6, 7};
    uint8_t bytes[16] = {0};
    zarn_iovec pieces[4];
    int freed_with_argument = 0;
    zarn_data_t *packet = util->new_zarn_data(), *slice = util->new_zarn_data();

    gFreed = 0;
    CHECK(util->append_zarn_data(packet, payload, sizeof payload, count_free) == 0);
    CHECK(util->prepend_zarn_data(packet, header, sizeof header, NULL) == 0);
    CHECK(util->add_free_element(packet, bytes, &freed_with_argument, zarn_free_func_from_ext(count_free_for),
                                 FREE_INTERRUPT_SAFE) == 0);
    CHECK(packet->length == 11);
    CHECK(util->count_zarn_data_iovecs(packet) == 2 && util->get_zarn_data_iovecs(packet, pieces, 4) == 2);
    CHECK(pieces[0].base == header && pieces[1].length == sizeof payload);

    CHECK(util->copy_from_zarn_data(packet, 2, bytes, 5) == 5 && memcmp(bytes, "\0\x1c\1\2\3", 5) == 0);
    // 4500 + 001c + 0102 + 0304 + 0506 + 0700 = 5528
    CHECK(util->get_zarn_data_checksum(packet, 0, 11) == (uint16_t)~0x2855);

    CHECK(util->clone_zarn_data(slice, packet, 3, 5) == 0 && util->trim_zarn_data(packet, 0, 4) == 0);
    CHECK(packet->length == 7 && slice->length == 5);
    util->delete_zarn_data(packet);
    CHECK(gFreed == 0 && freed_with_argument == 0);
    util->isafe_delete_zarn_data(slice);
    CHECK(freed_with_argument == 1);
}

static void wake_client(zarn_timer_t *timer, void *arg) {
    const void *const *pointers = arg;
    const zarn_util_module_t *util = pointers[0];
    CHECK(util->zarn_timer_appointment(timer) == 0);
    CHECK(util->zarn_unlock_tallylock((zarn_tallylock_t *)pointers[1]) == 0);
}

// Takes a lock twice; the timer gives it back in between.
static void use_timers(const zarn_util_module_t *util) {
    zarn_tallylock_t lock;
    const void *pointers[2];
    zarn_timer_t *timer = util->create_zarn_timer(wake_client, pointers);

    pointers[0] = util;
    pointers[1] = &lock;
    CHECK(util->zarn_create_tallylock(&lock, NULL) >= 0);
    CHECK(util->zarn_lock_tallylock(&lock) == 0);
    util->zarn_set_timer(timer, 1000000, 0);
    util->zarn_set_timer(timer, 1, 1);
    CHECK(util->zarn_lock_tallylock(&lock) == 0);
    util->delete_zarn_timer(timer);
    CHECK(util->zarn_delete_tallylock(&lock) == 0);
}

static void use_the_rest(const zarn_util_module_t *util) {
    static const uint8_t a[] = {0x81}, b[] = {0x01}, mask[] = {0x7f};
    zarn_endpoint_t *endpoint;
    void **tables;
    int32_t count;

    CHECK(util->zarn_masked_cmp(a, b, mask, 1) == 0);
    CHECK(util->incremental_checksum(0, 5, 5) == 0);
    CHECK(util->get_config_int32("no such key", 7) == 7 && util->get_config_bool("no such key", 1) == 1);
    // Without settings there are no families. The sample network/zarn_notify is there and takes messages.
    CHECK(util->ep_new_endpoint(&endpoint, 2, 1, 6) < 0);
    CHECK(util->get_outbound_protos(0, 2, 1, 6, &tables, &count) < 0 && util->release_family_ref(2) == -1);
    CHECK(util->zarn_notify(1, 2, (void *)a, sizeof a) == 0);
}

// Returns the number of checks that failed.
int run_client(void) {
    zarn_util_module_t *util = NULL, *again = NULL;

    CHECK(kern_module_acquire("network/no_such_module", (void **)&util) < 0 && util == NULL);
    CHECK(kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&util) == 0);
    if (util == NULL) return gFailures;
    CHECK(kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&again) == 0 && again == util);
    CHECK(kern_module_release(ZARN_UTIL_MODULE_NAME) == 0);
    CHECK(strcmp(util->head.name, ZARN_UTIL_MODULE_NAME) == 0 && util->head.flags == 0);

    use_buffers(util);
    use_timers(util);
    use_the_rest(util);

    CHECK(kern_module_release(ZARN_UTIL_MODULE_NAME) == 0);
    CHECK(gFreed == 1);  // the clone was still waiting for the thread that deletes; the stop waited for it
    return gFailures;
}
