// SPDX-License-Identifier: MIT
//
// The module loader.
//
//     (not in the list) --acquire--> busy: open, find, std_ops(1) --ok--> in service, references 1
//            ^                                  |                          |         ^
//            +---- failed: close ---------------+         last release ----+         | acquire
//            |                                                             v         |
//            +---- ok: close <-------- busy: std_ops(2) --refused--> in service, references 0
//
// gLoader guards the list and is never held across std_ops, dlopen or dlclose: a module's start and stop may
// acquire and release others. An entry that is busy belongs to the thread that works on it; others wait for
// the end of that. A wait that could never end, because the owner waits for something of the caller's own,
// fails instead.
//
// The code of a module is unmapped only after every kernel thread that runs a function of it has returned:
// such a thread tells the stop of its end while it is still on its way out.

#include <dlfcn.h>
#include <zarn/module.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hosted/internal.h"

namespace {

constexpr size_t kLongestPath = sizeof(hosted_module_info::path);
constexpr size_t kLongestFile = 4096 + kLongestPath + 8;
constexpr int64_t kThreadPatience = 10'000'000;  // usec

struct loaded_module {
    char path[kLongestPath];
    // Of the owner while `owner` is not 0, else under gLoader and constant.
    void *file;
    const module_head *record;
    uintptr_t image;
    // Under gLoader.
    int32_t owner;  // the thread that starts or stops the module, 0 for none
    int32_t references;
    loaded_module *next;
};

// A thread that waits for the end of another thread's work on a module. `module` is null once that work is
// done.
struct waiting_thread {
    int32_t thread;
    const loaded_module *module;
    waiting_thread *next;
};

hosted::lock gLoader;
// Under gLoader.
loaded_module *gFirst;
waiting_thread *gWaiting;
uint32_t gWorkDone;  // atomic for those who sleep on it; changes whenever work on a module is done

void take_loader() {
    hosted::enter_section();
    gLoader.take();
}
void give_loader() {
    gLoader.give();
    hosted::leave_section();
}

loaded_module **find_locked(const char *path) {
    loaded_module **link = &gFirst;
    while (*link && strcmp((*link)->path, path) != 0)
        link = &(*link)->next;
    return link;
}

// Whether the work on `module` waits, over however many threads, for this one.
bool would_wait_for_itself_locked(const loaded_module *module, int32_t self) {
    while (module && module->owner != self) {
        waiting_thread *w = gWaiting;
        while (w && w->thread != module->owner)
            w = w->next;
        module = w ? w->module : nullptr;
    }
    return module != nullptr;
}

// Waits until the work on this module is done. The module may be gone afterwards.
void wait_for_work_locked(const loaded_module *module, int32_t self) {
    waiting_thread waits = {self, module, gWaiting};
    gWaiting = &waits;
    while (waits.module) {
        uint32_t done = gWorkDone;
        give_loader();
        hosted::futex_wait(&gWorkDone, done, KERN_TIMEOUT_FOREVER);
        take_loader();
    }
    waiting_thread **link = &gWaiting;
    while (*link != &waits)
        link = &(*link)->next;
    *link = waits.next;
}

bool path_is_sound(const char *path) {
    size_t length = strlen(path);
    if (length == 0 || length >= kLongestPath) return false;
    for (const char *part = path;;) {
        size_t size = strcspn(part, "/");
        if (size == 0 || strncmp(part, "..", size) == 0) return false;  // empty, "." and ".."
        if (part[size] == '\0') return true;
        part += size + 1;
    }
}

// Opens the file behind the module's path and finds its record. Complains and returns below 0 with nothing
// left open.
int32_t open_module(loaded_module *module) {
    char directory[4096], name[kLongestFile];
    if (!hosted::copy_module_directory(directory, sizeof(directory))) return KERN_ERR_BAD_VALUE;
    // The slash keeps dlopen from searching the system's directories.
    int length = snprintf(name, sizeof(name), "%s/%s.so", directory, module->path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(name)) return KERN_ERR_BAD_VALUE;

    void *file = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!file) {
        hosted::complain("module \"%s\" can't be loaded: %s", module->path, dlerror());
        return KERN_ERR_BAD_MODULE;
    }
    const void *const *records = static_cast<const void *const *>(dlsym(file, "modules"));
    const module_head *found = nullptr;
    for (const void *const *at = records; at && *at && !found; at++) {
        const module_head *head = static_cast<const module_head *>(*at);
        if (head->name && strcmp(head->name, module->path) == 0) found = head;
    }
    if (!records)
        hosted::complain("module \"%s\": %s is no module, it exports no list \"modules\"", module->path,
                         name);
    else if (!found)
        hosted::complain("module \"%s\": the list of %s has no record of this name", module->path, name);
    else if (!found->std_ops)
        hosted::complain("module \"%s\": its record in %s has no std_ops", module->path, name);
    if (!found || !found->std_ops) {
        dlclose(file);
        return KERN_ERR_BAD_MODULE;
    }
    module->file = file;
    module->record = found;
    module->image = hosted::image_of(reinterpret_cast<const void *>(found->std_ops));
    return 0;
}

void close_module(loaded_module *module) {
    if (!hosted::wait_for_threads_of(module->image, kThreadPatience)) {
        hosted::complain("module \"%s\" stopped, but a thread still runs in it; it stays mapped",
                         module->path);
        return;
    }
    if (dlclose(module->file) != 0)
        hosted::complain("module \"%s\" can't be unmapped: %s", module->path, dlerror());
}

int32_t start_module(loaded_module *module) {
    int32_t status = open_module(module);
    if (status < 0) return status;
    int32_t result = module->record->std_ops(MODULE_START);
    if (result == 0) return 0;
    hosted::complain("module \"%s\" failed to start (%08x)", module->path, static_cast<unsigned>(result));
    close_module(module);
    return result < 0 ? result : KERN_ERR_BAD_MODULE;
}

// Ends the work of this thread on an entry; `gone` takes it out of the list.
void end_work(loaded_module *module, bool gone) {
    take_loader();
    module->owner = 0;
    for (waiting_thread *w = gWaiting; w; w = w->next)
        if (w->module == module) w->module = nullptr;
    if (gone) {
        loaded_module **link = &gFirst;
        while (*link != module)
            link = &(*link)->next;
        *link = module->next;
    }
    __atomic_fetch_add(&gWorkDone, 1, __ATOMIC_RELAXED);
    hosted::futex_wake(&gWorkDone, INT_MAX);
    give_loader();
    if (gone) free(module);
}

// Calls `visit` for every module in the list, under gLoader.
template <typename visitor>
int32_t for_each_module(visitor visit) {
    int32_t found = 0;
    take_loader();
    for (const loaded_module *module = gFirst; module; module = module->next, found++)
        visit(module, found);
    give_loader();
    return found;
}

}  // namespace

int32_t kern_module_acquire(const char *path, void **table) {
    if (!path || !table) return KERN_ERR_BAD_VALUE;
    if (!path_is_sound(path)) {
        hosted::complain("module \"%.*s\": not a path below the module directory",
                         static_cast<int>(kLongestPath), path);
        return KERN_ERR_BAD_VALUE;
    }
    int32_t self = kern_thread_self();
    take_loader();
    for (;;) {
        loaded_module *module = *find_locked(path);
        if (module && module->owner == 0) {
            module->references++;
            *table = const_cast<module_head *>(module->record);
            give_loader();
            return 0;
        }
        if (!module) break;
        if (would_wait_for_itself_locked(module, self)) {
            give_loader();
            hosted::complain("module \"%s\" is asked for by its own start or stop", path);
            return KERN_ERR_BAD_MODULE;
        }
        wait_for_work_locked(module, self);
    }

    loaded_module *module = static_cast<loaded_module *>(calloc(1, sizeof(loaded_module)));
    if (module) {
        hosted::copy_name(module->path, sizeof(module->path), path);
        module->owner = self;
        module->next = gFirst;
        gFirst = module;
    }
    give_loader();
    if (!module) return KERN_ERR_NO_MEMORY;

    int32_t status = start_module(module);
    if (status == 0) {
        module->references = 1;
        *table = const_cast<module_head *>(module->record);
    }
    end_work(module, status < 0);
    return status;
}

int32_t kern_module_release(const char *path) {
    if (!path) return KERN_ERR_BAD_VALUE;
    int32_t self = kern_thread_self();
    take_loader();
    loaded_module *module = *find_locked(path);
    // While a start or a stop runs nobody holds a reference either.
    if (!module || module->owner != 0 || module->references == 0) {
        const char *what = module ? "nobody holds the module" : "there is no module";
        give_loader();
        hosted::complain("release: %s \"%s\"", what, path);
        return KERN_ERR_NOT_FOUND;
    }
    bool last = --module->references == 0;
    if (last) module->owner = self;
    give_loader();
    if (!last) return 0;

    int32_t result = module->record->std_ops(MODULE_STOP);
    if (result == 0)
        close_module(module);
    else
        hosted::complain("module \"%s\" refused to stop (%08x) and stays in service", path,
                         static_cast<unsigned>(result));
    end_work(module, result == 0);
    return 0;
}

int32_t hosted_list_modules(hosted_module_info *table, int32_t capacity) {
    return for_each_module([&](const loaded_module *module, int32_t index) {
        if (index >= capacity) return;
        hosted_module_info *info = &table[index];
        *info = {"", module->references, module->owner};
        hosted::copy_name(info->path, sizeof(info->path), module->path);
    });
}

namespace hosted {

void count_modules(hosted_counts *counts) {
    counts->modules += for_each_module(
        [&](const loaded_module *module, int32_t) { counts->module_references += module->references; });
}

int32_t log_modules() {
    return for_each_module([](const loaded_module *module, int32_t) {
        kern_log("kernel: module \"%s\", %d references\n", module->path, module->references);
    });
}

void visit_module_code(void (*visit)(void *context, const void *code), void *context) {
    for_each_module([&](const loaded_module *module, int32_t) {
        // The owner writes the rest of an entry.
        if (module->owner == 0) visit(context, reinterpret_cast<const void *>(module->record->std_ops));
    });
}

}  // namespace hosted
