// SPDX-License-Identifier: MIT
//
// The module record: the table of operations, and the order in which the services start and stop.

#include "module/zarn_util.h"

#include <zarn/zarn_util.h>

#include "data/purgatory.h"
#include "data/zarn_data.h"
#include "diagnostics/profiler.h"
#include "memory/address_cache.h"
#include "module/allocator.h"
#include "module/incremental_checksum.h"
#include "module/masked.h"
#include "module/notify.h"
#include "module/settings_utils.h"
#include "module/tallylock.h"
#include "platform/kern.h"
#include "roster/zarn_endpoint.h"
#include "roster/zarn_roster.h"
#include "sync/zarn_fifo.h"
#include "sync/zarn_rwlock.h"
#include "sync/zarn_timer.h"

// The services, in the order of their start. The stop goes backwards: the memory goes last, after all that
// allocate from it.
struct service {
    int32_t (*start)();
    int32_t (*stop)();
};

static constexpr service kServices[] = {
    {init_mempool, uninit_mempool},
    {init_address_cache,
     [] {
         uninit_address_cache();
         return 0;
     }},
    {init_zarn_timers, uninit_zarn_timers},
    {[] { return init_data_purgatory(kPurgatoryThreshold); }, uninit_data_purgatory},
};
static constexpr int32_t kServiceCount = sizeof(kServices) / sizeof(kServices[0]);

// Stops the first `count` services, the latest first.
static int32_t stop_services(int32_t count) {
    int32_t status = 0;
    while (count > 0)
        status = kServices[--count].stop();
    return status;
}

int32_t init_pools() {
    for (int32_t i = 0; i < kServiceCount; ++i) {
        int32_t status = kServices[i].start();
        if (status < 0) {
            stop_services(i);
            return status;
        }
    }
    return 0;
}

int32_t uninit_pools() {
    return stop_services(kServiceCount);
}

int32_t init_util() {
    kern_debug_add_command("zarn_data", zarn_data_dump, "dump a zarn_data_t");
    if (init_pools() != 0) goto remove_command;
    if (init_roster() != 0) goto stop_pools;
    return 0;

stop_pools:
    uninit_pools();
remove_command:
    kern_debug_remove_command("zarn_data", zarn_data_dump);
    return -1;
}

int32_t uninit_util() {
    // The roster refuses while a family is cached. Its modules use the services, so those stay as well.
    const int32_t status = uninit_roster();
    if (status == 0) {
        uninit_pools();
        // Behind the services: until their threads are gone, a hook or a free function of a client may still
        // run through a bracket. The profiler needs none of them, its records come from the heap.
        uninit_profiler();
    }
    kern_debug_remove_command("zarn_data", zarn_data_dump);
    return status;
}

int32_t std_ops(int32_t op) {
    switch (op) {
        case MODULE_START:
            return init_util();
        case MODULE_STOP:
            return uninit_util();
        default:
            return -1;
    }
}

// Two positions that are there only so that those behind them keep theirs.
static void log_data_path() {}
static void print_memuse() {}

static const zarn_util_module_t zarn_util_module = {
    .head = {.name = ZARN_UTIL_MODULE_NAME, .flags = 0, .std_ops = std_ops},
    .new_zarn_data = new_zarn_data,
    .delete_zarn_data = delete_zarn_data,
    .isafe_delete_zarn_data = isafe_delete_zarn_data,
    .add_free_element = add_free_element,
    .copy_zarn_data = copy_zarn_data,
    .clone_zarn_data = clone_zarn_data,
    .coalesce_zarn_data = coalesce_zarn_data,
    .prepend_zarn_data = prepend_zarn_data,
    .append_zarn_data = append_zarn_data,
    .insert_zarn_data = insert_zarn_data,
    .trim_zarn_data = trim_zarn_data,
    .get_data_memory_map = get_data_memory_map,
    .get_zarn_data_iovecs = get_zarn_data_iovecs,
    .count_zarn_data_iovecs = count_zarn_data_iovecs,
    .copy_from_zarn_data = copy_from_zarn_data,
    .map_to_zarn_data = map_to_zarn_data,
    .disassociate_zarn_data = disassociate_zarn_data,
    .get_zarn_data_checksum = get_zarn_data_checksum,
    .copy_and_checksum_data = copy_and_checksum_data,
    .get_zarn_checksum = get_zarn_checksum,
    .incremental_checksum = incremental_checksum,
    .lock_zarn_data = lock_zarn_data,
    .unlock_zarn_data = unlock_zarn_data,
    .zarn_create_tallylock = zarn_create_tallylock,
    .zarn_delete_tallylock = zarn_delete_tallylock,
    .zarn_lock_tallylock = zarn_lock_tallylock,
    .zarn_unlock_tallylock = zarn_unlock_tallylock,
    .create_zarn_timer = create_zarn_timer,
    .delete_zarn_timer = delete_zarn_timer,
    .zarn_set_timer_hook = zarn_set_timer_hook,
    .zarn_set_timer = zarn_set_timer,
    .zarn_cancel_timer = zarn_cancel_timer,
    .zarn_timer_appointment = zarn_timer_appointment,
    .create_rwlock = create_rwlock,
    .delete_rwlock = delete_rwlock,
    .read_lock = read_lock,
    .read_unlock = read_unlock,
    .write_lock = write_lock,
    .write_unlock = write_unlock,
    .upgrade_to_write = upgrade_to_write,
    .downgrade_to_read = downgrade_to_read,
    .create_zarn_fifo = create_zarn_fifo,
    .delete_zarn_fifo = delete_zarn_fifo,
    .enqueue_zarn_fifo_data = enqueue_zarn_fifo_data,
    .dequeue_zarn_fifo_data = dequeue_zarn_fifo_data,
    .clear_zarn_fifo = clear_zarn_fifo,
    .zarn_masked_cmp = zarn_masked_cmp,
    .zarn_masked_copy = zarn_masked_copy,
    .get_outbound_protos = get_outbound_protos,
    .get_inbound_proto = get_inbound_proto,
    .get_family_ref = get_family_ref,
    .release_family_ref = release_family_ref,
    .get_config_int32 = get_config_int32,
    .get_config_bool = get_config_bool,
    .zarn_falloc = zarn_falloc,
    .zarn_zalloc = zarn_zalloc,
    .zarn_malloc = zarn_malloc,
    .zarn_free = zarn_free,
    .new_mempool = new_mempool,
    .delete_mempool = delete_mempool,
    .mp_alloc = mp_alloc,
    .mp_free = mp_free,
    .cache_address_spec = cache_address_spec,
    .free_address_spec = free_address_spec,
    .get_cached_memory_map = get_cached_memory_map,
    ._enter_prof_func = _enter_prof_func,
    ._exit_prof_func = _exit_prof_func,
    .log_data_path = log_data_path,
    .print_memuse = print_memuse,
    .ep_new_endpoint = ep_new_endpoint,
    .ep_delete_endpoint = ep_delete_endpoint,
    .ep_spawn_endpoint = ep_spawn_endpoint,
    .ep_dequeue_endpoint = ep_dequeue_endpoint,
    .ep_ready_endpoint = ep_ready_endpoint,
    .ep_set_backlog = ep_set_backlog,
    .ep_notify_endpoint = ep_notify_endpoint,
    .zarn_notify = zarn_notify,
};

extern "C" __attribute__((visibility("default"))) const void *const modules[] = {&zarn_util_module, nullptr};
