// SPDX-License-Identifier: MIT
//
// What the module asks of the kernel. A port supplies these operations, those of platform/skiplist.h and the
// few C library functions of platform/libc.h, and nothing else.

#ifndef ZARN_PLATFORM_KERN_H
#define ZARN_PLATFORM_KERN_H

#include <stdint.h>

#include <zarn/memory_run.h>

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error \
    "zarn_util supports little-endian targets only: its checksums and masked comparisons read words in host order"
#endif

#ifdef __cplusplus
extern "C" {
#define KERN_NORETURN [[noreturn]]
#else
#define KERN_NORETURN _Noreturn
#endif

// Atomics: full barriers, each returns the value before.
static inline int32_t kern_fetch_add(int32_t *address, int32_t delta) {
    return __atomic_fetch_add(address, delta, __ATOMIC_SEQ_CST);
}

static inline int32_t kern_fetch_or(int32_t *address, int32_t bits) {
    return __atomic_fetch_or(address, bits, __ATOMIC_SEQ_CST);
}

static inline int32_t kern_fetch_and(int32_t *address, int32_t bits) {
    return __atomic_fetch_and(address, bits, __ATOMIC_SEQ_CST);
}

// Semaphores
#define KERN_SEM_INTERRUPTIBLE 1u
#define KERN_SEM_NO_RESCHEDULE 2u
#define KERN_SEM_RELATIVE_TIMEOUT 8u
#define KERN_TIMEOUT_FOREVER INT64_MAX
#define KERN_TEAM 2

int32_t kern_sem_create(int32_t count, const char *name);
int32_t kern_sem_delete(int32_t sem);
int32_t kern_sem_acquire(int32_t sem);
int32_t kern_sem_acquire_ex(int32_t sem, int32_t units, uint32_t flags, int64_t timeout);
int32_t kern_sem_release(int32_t sem);
int32_t kern_sem_release_ex(int32_t sem, int32_t units, uint32_t flags);
int32_t kern_sem_set_owner(int32_t sem, int32_t team);

// Threads and time
int32_t kern_thread_spawn(int32_t (*function)(void *), const char *name, int32_t priority, void *argument);
int32_t kern_thread_resume(int32_t thread);
int32_t kern_thread_self(void);
int32_t kern_thread_info(int32_t thread, void *record, uint32_t size);
int32_t kern_sleep_us(int64_t microseconds);
int64_t kern_time_us(void);

// Memory
int32_t kern_region_create(const char *name, void **address, uint32_t address_spec, uint32_t size,
                           uint32_t lock_mode, uint32_t protection);
int32_t kern_region_delete(int32_t region);
int32_t kern_memory_lock(void *address, uint32_t length, uint32_t flags);
int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t flags);
int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries);

// Settings
typedef struct settings_parameter {
    const char *name;
    int32_t value_count;
    const char *const *values;  // in the order of the file
    int32_t child_count;
    const struct settings_parameter *children;  // in the order of the file
} settings_parameter;

typedef struct settings_tree {
    int32_t parameter_count;
    const settings_parameter *parameters;
} settings_tree;

void *kern_settings_load(const char *name);
int32_t kern_settings_unload(void *handle);
const char *kern_settings_string(void *handle, const char *key, const char *if_unknown,
                                 const char *if_no_value);
uint8_t kern_settings_bool(void *handle, const char *key, uint8_t if_unknown, uint8_t if_no_value);
const settings_tree *kern_settings_tree(void *handle);

// Modules
int32_t kern_module_acquire(const char *path, void **table);
int32_t kern_module_release(const char *path);

// Debugger, log, halt
typedef int32_t (*kern_debug_command)(int32_t argc, char **argv);

int32_t kern_debug_add_command(const char *name, kern_debug_command function, const char *help);
int32_t kern_debug_remove_command(const char *name, kern_debug_command function);
void kern_debug_print(const char *format, ...);
void kern_debug_enter(const char *message);
void kern_log(const char *format, ...);
KERN_NORETURN void kern_halt(const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
