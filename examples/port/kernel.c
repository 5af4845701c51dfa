// SPDX-License-Identifier: MIT
//
// The smallest port: every operation of platform/kern.h on POSIX threads, each as short as it can be and
// still right. To be read beside docs/porting.md. What it leaves out: interrupts, a debugger, physical
// memory, settings in a file, and the unloading of code.

#define _GNU_SOURCE  // RUSAGE_THREAD
#include <dlfcn.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include <zarn/module.h>

#include "platform/kern.h"

// One lock for all objects of the kernel, and one condition that is signalled whenever any of them changes.
// It is never held while the module's or a client's code runs.
static pthread_mutex_t gKernel = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gChanged = PTHREAD_COND_INITIALIZER;

static int32_t gLastId;  // of semaphores and threads; no id comes twice

static int32_t new_id(void) {
    return kern_fetch_add(&gLastId, 1) + 1;
}

// ---- Semaphores

typedef struct waiter {
    struct waiter *next;
    int32_t units;
    int32_t outcome;  // 1 while it waits
} waiter;

typedef struct semaphore {
    struct semaphore *next;
    int32_t id;
    int32_t count;
    waiter *first;
} semaphore;

static semaphore *gSemaphores;

static semaphore **find_sem_locked(int32_t id) {
    semaphore **link = &gSemaphores;
    while (*link != NULL && (*link)->id != id)
        link = &(*link)->next;
    return link;
}

// Units go to who is first in line, as soon as there are enough for that one; nobody behind overtakes.
static void hand_over_locked(semaphore *sem) {
    while (sem->first != NULL && sem->first->units <= sem->count) {
        sem->count -= sem->first->units;
        sem->first->outcome = 0;
        sem->first = sem->first->next;
    }
    pthread_cond_broadcast(&gChanged);
}

int32_t kern_sem_create(int32_t count, const char *name) {
    semaphore *sem = calloc(1, sizeof(semaphore));
    (void)name;
    if (sem == NULL || count < 0) {
        free(sem);
        return -1;
    }
    const int32_t id = sem->id = new_id();
    sem->count = count;
    pthread_mutex_lock(&gKernel);
    sem->next = gSemaphores;
    gSemaphores = sem;
    pthread_mutex_unlock(&gKernel);
    return id;
}

int32_t kern_sem_delete(int32_t id) {
    pthread_mutex_lock(&gKernel);
    semaphore **link = find_sem_locked(id), *sem = *link;
    if (sem != NULL) {
        *link = sem->next;
        for (waiter *each = sem->first; each != NULL; each = each->next)
            each->outcome = -1;
        pthread_cond_broadcast(&gChanged);
    }
    pthread_mutex_unlock(&gKernel);
    free(sem);
    return sem != NULL ? 0 : -1;
}

int32_t kern_sem_acquire_ex(int32_t id, int32_t units, uint32_t flags, int64_t timeout) {
    const int limited = (flags & KERN_SEM_RELATIVE_TIMEOUT) != 0 && timeout != KERN_TIMEOUT_FOREVER;
    struct timespec end;
    clock_gettime(CLOCK_REALTIME, &end);
    if (limited) {
        const int64_t nanoseconds = end.tv_nsec + timeout % 1000000 * 1000;
        end.tv_sec += (time_t)(timeout / 1000000 + nanoseconds / 1000000000);
        end.tv_nsec = (long)(nanoseconds % 1000000000);
    }

    waiter self = {NULL, units, 1};
    pthread_mutex_lock(&gKernel);
    semaphore *sem = *find_sem_locked(id);
    if (sem == NULL || units < 1) {
        self.outcome = -1;
    } else {
        waiter **link = &sem->first;
        while (*link != NULL)
            link = &(*link)->next;
        *link = &self;
        hand_over_locked(sem);
    }
    int expired = 0;
    while (self.outcome == 1 && !expired) {
        if (limited)
            expired = pthread_cond_timedwait(&gChanged, &gKernel, &end) != 0;
        else
            pthread_cond_wait(&gChanged, &gKernel);
    }
    if (self.outcome == 1) {
        // Out of time, and out of the line: those behind may have been waiting for this one only.
        waiter **link = &sem->first;
        while (*link != &self)
            link = &(*link)->next;
        *link = self.next;
        hand_over_locked(sem);
        self.outcome = -1;
    }
    pthread_mutex_unlock(&gKernel);
    return self.outcome;
}

int32_t kern_sem_acquire(int32_t id) {
    return kern_sem_acquire_ex(id, 1, 0, 0);
}

int32_t kern_sem_release_ex(int32_t id, int32_t units, uint32_t flags) {
    (void)flags;  // the caller always keeps the processor
    pthread_mutex_lock(&gKernel);
    semaphore *sem = units > 0 ? *find_sem_locked(id) : NULL;
    if (sem != NULL) {
        sem->count += units;
        hand_over_locked(sem);
    }
    pthread_mutex_unlock(&gKernel);
    return sem != NULL ? 0 : -1;
}

int32_t kern_sem_release(int32_t id) {
    return kern_sem_release_ex(id, 1, 0);
}

int32_t kern_sem_set_owner(int32_t id, int32_t team) {
    (void)id, (void)team;
    return 0;
}

// ---- Threads and time

typedef struct spawned_thread {
    int32_t (*function)(void *);
    void *argument;
    int32_t id;  // also of the semaphore that it waits for: a resume is a release
} spawned_thread;

static _Thread_local int32_t gSelf;

int32_t kern_thread_self(void) {
    if (gSelf == 0) gSelf = new_id();
    return gSelf;
}

static void *run_thread(void *argument) {
    const spawned_thread self = *(spawned_thread *)argument;
    free(argument);
    gSelf = self.id;
    kern_sem_acquire(self.id);
    kern_sem_delete(self.id);
    self.function(self.argument);
    return NULL;
}

int32_t kern_thread_spawn(int32_t (*function)(void *), const char *name, int32_t priority, void *argument) {
    pthread_t thread;
    spawned_thread *spawned = malloc(sizeof(spawned_thread));
    const int32_t id = kern_sem_create(0, name);
    (void)priority;
    if (spawned != NULL) *spawned = (spawned_thread){function, argument, id};
    if (spawned == NULL || id < 0 || pthread_create(&thread, NULL, run_thread, spawned) != 0) {
        kern_sem_delete(id);
        free(spawned);
        return -1;
    }
    pthread_detach(thread);
    return id;
}

int32_t kern_thread_resume(int32_t thread) {
    return kern_sem_release(thread);
}

static int64_t to_usec(struct timeval time) {
    return (int64_t)time.tv_sec * 1000000 + time.tv_usec;
}

int32_t kern_thread_info(int32_t thread, void *record, uint32_t size) {
    struct rusage usage;
    if (thread != kern_thread_self() || size != 76 || getrusage(RUSAGE_THREAD, &usage) != 0) return -1;
    const int64_t user = to_usec(usage.ru_utime), kernel = to_usec(usage.ru_stime);
    memcpy((char *)record + 52, &user, sizeof user);  // unaligned
    memcpy((char *)record + 60, &kernel, sizeof kernel);
    return 0;
}

int64_t kern_time_us(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000 + 1;  // never 0
}

int32_t kern_sleep_us(int64_t microseconds) {
    const int64_t end = kern_time_us() + microseconds;
    for (int64_t left = microseconds; left > 0; left = end - kern_time_us()) {
        const struct timespec piece = {(time_t)(left / 1000000), (long)(left % 1000000 * 1000)};
        nanosleep(&piece, NULL);
    }
    return 0;
}

// ---- Memory

static void *gRegions[16];

int32_t kern_region_create(const char *name, void **address, uint32_t address_spec, uint32_t size,
                           uint32_t lock_mode, uint32_t protection) {
    (void)name, (void)address_spec, (void)lock_mode, (void)protection;
    int32_t region = 0;
    pthread_mutex_lock(&gKernel);
    while (region < 16 && gRegions[region] != NULL)
        region++;
    if (region < 16) *address = gRegions[region] = aligned_alloc(4096, size);
    if (region == 16 || *address == NULL) region = -1;
    pthread_mutex_unlock(&gKernel);
    return region;
}

int32_t kern_region_delete(int32_t region) {
    if (region < 0 || region >= 16 || gRegions[region] == NULL) return -1;
    free(gRegions[region]);
    gRegions[region] = NULL;
    return 0;
}

// Everything is where it is, and stays there.
int32_t kern_memory_lock(void *address, uint32_t length, uint32_t flags) {
    (void)address, (void)length, (void)flags;
    return 0;
}

int32_t kern_memory_unlock(void *address, uint32_t length, uint32_t flags) {
    (void)address, (void)length, (void)flags;
    return 0;
}

// A page is one run or a part of one.
int32_t kern_memory_map(const void *address, uint32_t length, memory_run *table, int32_t entries) {
    uintptr_t at = (uintptr_t)address;
    int32_t filled = 0;
    for (; length > 0 && filled < entries; filled++) {
        const uint32_t rest = 4096 - (uint32_t)(at % 4096), size = rest < length ? rest : length;
        table[filled] = (memory_run){at, size};
        at += size;
        length -= size;
    }
    return filled;
}

// ---- Settings: compiled in

static const char *const kTcp[] = {"tcp"}, *const kTcpOverIpv4[] = {"tcp", "ipv4"};
static const settings_parameter kStreams[] = {{"6", 2, kTcpOverIpv4, 0, NULL}};
static const settings_parameter kIn[] = {{"6", 1, kTcp, 0, NULL}};
static const settings_parameter kOut[] = {{"1", 0, NULL, 1, kStreams}};
static const settings_parameter kSections[] = {{"in", 0, NULL, 1, kIn}, {"out", 0, NULL, 1, kOut}};
static const settings_parameter kFamilies[] = {{"2", 0, NULL, 2, kSections}};
static const settings_parameter kParameters[] = {{"domains", 0, NULL, 1, kFamilies}};
static settings_tree gSettings = {1, kParameters};

void *kern_settings_load(const char *name) {
    return strcmp(name, "zarn.conf") == 0 ? &gSettings : NULL;
}

int32_t kern_settings_unload(void *handle) {
    (void)handle;
    return 0;
}

const settings_tree *kern_settings_tree(void *handle) {
    return handle;
}

const char *kern_settings_string(void *handle, const char *key, const char *if_unknown,
                                 const char *if_no_value) {
    const settings_tree *tree = handle;
    for (int32_t i = 0; i < tree->parameter_count; i++) {
        const settings_parameter *parameter = &tree->parameters[i];
        if (strcmp(parameter->name, key) != 0) continue;
        if (parameter->value_count > 1) return if_unknown;
        return parameter->value_count == 1 ? parameter->values[0] : if_no_value;
    }
    return if_unknown;
}

uint8_t kern_settings_bool(void *handle, const char *key, uint8_t if_unknown, uint8_t if_no_value) {
    const char *value = kern_settings_string(handle, key, "", NULL);
    if (value == NULL) return if_no_value;
    return strcmp(value, "true") == 0 ? 1 : strcmp(value, "false") == 0 ? 0 : if_unknown;
}

// ---- Modules: the file PATH.so under a directory. Code is never unmapped.

typedef struct loaded_module {
    struct loaded_module *next;
    const char *path;  // the module's own copy
    const module_head *record;
    int32_t references;
    int busy;  // one thread starts or stops it
} loaded_module;

static const char *gModuleDirectory = ".";
static loaded_module *gModules;

static const module_head *find_record(const char *path) {
    char file[4096];
    snprintf(file, sizeof file, "%s/%s.so", gModuleDirectory, path);
    void *image = dlopen(file, RTLD_NOW);
    const module_head *const *records = image != NULL ? dlsym(image, "modules") : NULL;
    while (records != NULL && *records != NULL && strcmp((*records)->name, path) != 0)
        records++;
    return records != NULL ? *records : NULL;
}

// Where the module stands, with nobody at work on it.
static loaded_module **wait_for_module_locked(const char *path) {
    for (;;) {
        loaded_module **link = &gModules;
        while (*link != NULL && strcmp((*link)->path, path) != 0)
            link = &(*link)->next;
        if (*link == NULL || !(*link)->busy) return link;
        pthread_cond_wait(&gChanged, &gKernel);
    }
}

static void remove_module_locked(loaded_module *gone) {
    loaded_module **link = &gModules;
    while (*link != gone)
        link = &(*link)->next;
    *link = gone->next;
    free(gone);
}

int32_t kern_module_acquire(const char *path, void **table) {
    pthread_mutex_lock(&gKernel);
    loaded_module *module = *wait_for_module_locked(path);
    if (module == NULL && (module = calloc(1, sizeof(loaded_module))) != NULL) {
        *module = (loaded_module){gModules, path, NULL, 0, 1};
        gModules = module;
        pthread_mutex_unlock(&gKernel);
        const module_head *record = find_record(path);
        const int32_t status = record != NULL ? record->std_ops(MODULE_START) : -1;
        pthread_mutex_lock(&gKernel);
        if (status == 0) {
            module->path = record->name;
            module->record = record;
            module->busy = 0;
        } else {
            remove_module_locked(module);
            module = NULL;
        }
        pthread_cond_broadcast(&gChanged);
    }
    if (module != NULL) {
        module->references++;
        *table = (void *)(uintptr_t)module->record;
    }
    pthread_mutex_unlock(&gKernel);
    return module != NULL ? 0 : -1;
}

int32_t kern_module_release(const char *path) {
    pthread_mutex_lock(&gKernel);
    loaded_module *module = *wait_for_module_locked(path);
    if (module != NULL && --module->references == 0) {
        module->busy = 1;
        pthread_mutex_unlock(&gKernel);
        const int32_t status = module->record->std_ops(MODULE_STOP);
        pthread_mutex_lock(&gKernel);
        module->busy = 0;  // a module that refuses stays in service
        if (status == 0) remove_module_locked(module);
        pthread_cond_broadcast(&gChanged);
    }
    pthread_mutex_unlock(&gKernel);
    return module != NULL ? 0 : -1;
}

// ---- Log, halt, and no debugger

void kern_log(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

_Noreturn void kern_halt(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    abort();
}

int32_t kern_debug_add_command(const char *name, kern_debug_command function, const char *help) {
    (void)name, (void)function, (void)help;
    return -1;
}

int32_t kern_debug_remove_command(const char *name, kern_debug_command function) {
    (void)name, (void)function;
    return -1;
}

void kern_debug_print(const char *format, ...) {
    (void)format;  // called by commands only
}

void kern_debug_enter(const char *message) {
    kern_log("%s", message);
}

// ---- port DIRECTORY: drives the module with the client of tests/client, and looks for what it leaves behind

int run_client(void);

int main(int argc, char **argv) {
    if (argc > 1) gModuleDirectory = argv[1];
    const int failures = run_client();
    int left = gModules != NULL;
    for (semaphore *sem = gSemaphores; sem != NULL; sem = sem->next)
        left++;
    for (int i = 0; i < 16; i++)
        left += gRegions[i] != NULL;
    if (failures != 0 || left != 0) fprintf(stderr, "%d checks failed, %d objects left\n", failures, left);
    return failures != 0 || left != 0;
}
