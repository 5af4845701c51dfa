// SPDX-License-Identifier: MIT

#include "roster/family_cache.h"

#include <zarn/status.h>

#include "module/allocator.h"
#include "module/read_int32.h"
#include "platform/libc.h"

skiplist *gFamilyCaches;

// The sections of a family, by stack type. Level-4 keys are numbers in `key1_base`; "in" has no such level.
static const struct {
    const char *name;
    int key1_base;
} kSections[kStackTypes] = {{"in", 0}, {"out", 10}, {"dl", 16}};

module_path::module_path(const char *module_name) {
    size_t length = 0;
    const char *const pieces[] = {"network/", module_name};
    for (const char *piece : pieces) {
        while (*piece != '\0' && length < sizeof text - 1)
            text[length++] = *piece++;
    }
    text[length] = '\0';
}

// ---- Orders and ends of the records

// The sign of a wrapped difference is the order wherever two keys lie within 2^31 of each other.
static int32_t difference(uint32_t a, uint32_t b) {
    return (int32_t)(a - b);
}

int32_t compare_family_caches(const void *a, const void *b) {
    return difference(*(const uint32_t *)a, *(const uint32_t *)b);
}

static int32_t compare_stack_cache(const void *a, const void *b) {
    const auto *left = (const stack_key *)a, *right = (const stack_key *)b;
    const auto left_key2 = (uint32_t)left->key2, right_key2 = (uint32_t)right->key2;
    if (left->type != right->type) return difference(left->type, right->type);
    if (left->key1 != right->key1) return difference(left->key1, right->key1);
    if (left_key2 == kAnyKey2 || right_key2 == kAnyKey2) return 0;
    return difference(left_key2, right_key2);
}

static int32_t compare_names(const void *a, const void *b) {
    return strcmp(*(const char *const *)a, *(const char *const *)b);
}

static int32_t delete_copied_name(copied_name *node) {
    free(node->name);
    zarn_free(node);
    return 0;
}

static int32_t delete_copied_names(void *node, void *) {
    return delete_copied_name((copied_name *)node);
}

static int32_t free_stack_cache(void *item) {
    auto *stack = (stack_cache *)item;
    if (stack->loaded) {
        for (int32_t i = 0; i < stack->module_count; ++i)
            kern_module_release(module_path(stack->module_names[i]).text);
        if (stack->type != kStackIn) zarn_free(stack->modules);
    }
    zarn_free(stack->module_names);
    zarn_free(stack);
    return 0;
}

int32_t free_family_cache(void *item) {
    auto *cache = (family_cache *)item;
    kern_log("zarn_util: free_family_cache(): unloading address family %x\n", (unsigned)cache->family);
    skiplist_free(cache->stacks);  // before the names: the paths of the modules are built from them
    while (copied_name *node = cache->names) {
        cache->names = node->next;
        delete_copied_name(node);
    }
    zarn_free(cache);
    return 0;
}

// ---- Reading the settings

// The family's copy of `*name`, made at its first use, or null when it can't be had. `names` finds the copies
// while the settings are read; the list in `cache` is what lasts.
static const char *intern_name(family_cache *cache, skiplist *names, const char *const *name) {
    if (auto *known = (copied_name *)skiplist_search(names, name)) return known->name;

    auto *node = (copied_name *)zarn_malloc(sizeof(copied_name));
    if (node == nullptr) return nullptr;
    node->name = strdup(*name);
    if (node->name == nullptr) goto free_node;
    if (skiplist_insert(names, node) != 1) goto free_node;
    node->next = cache->names;
    cache->names = node;
    return node->name;

free_node:
    delete_copied_name(node);
    return nullptr;
}

static bool module_count_fits(uint32_t type, int32_t count) {
    return type == kStackIn ? count == 1 : type != kStackOut || count >= 1;
}

// Caches the stack of one entry.
//
//     ERR_BAD_VALUE    the name is no number, or the section can't have that many modules
//     ERR_DUPLICATE    the family has a stack that compares equal
//     ERR_NO_MEMORY    out of memory
//     -1               the skip list refuses
static int32_t parse_line(uint32_t type, uint32_t key1, family_cache *cache, skiplist *names,
                          const settings_parameter *entry) {
    int32_t status = ERR_NO_MEMORY;
    int32_t key2 = -1;
    int32_t inserted;
    bool is_number;
    auto *stack = (stack_cache *)zarn_malloc(sizeof(stack_cache));
    if (stack == nullptr) goto failed;

    is_number = read_int32(entry->name, 10, &key2);
    stack->type = type;
    stack->key1 = key1;
    stack->key2 = key2;
    if (!is_number || !module_count_fits(type, entry->value_count)) {
        status = ERR_BAD_VALUE;
        goto free_stack;
    }

    stack->module_count = entry->value_count;
    stack->module_names = (const char **)zarn_malloc((uint32_t)entry->value_count * (uint32_t)sizeof(char *));
    if (stack->module_names == nullptr) goto free_stack;
    for (int32_t i = 0; i < entry->value_count; ++i) {
        stack->module_names[i] = intern_name(cache, names, &entry->values[i]);
        if (stack->module_names[i] == nullptr) goto free_module_names;
    }

    inserted = skiplist_insert(cache->stacks, stack);
    if (inserted == 1) return 0;
    status = inserted == -1 ? ERR_DUPLICATE : -1;

free_module_names:
    zarn_free(stack->module_names);
free_stack:
    zarn_free(stack);
failed:
    kern_log("zarn_util: parse_line(): failed to cache protocol stack %x %d %d %d (%08lx)\n",
             (unsigned)cache->family, (int)type, (int)key1, (int)key2, (unsigned long)(uint32_t)status);
    return status;
}

static void log_malformed(uint32_t type, const family_cache *cache, int32_t entry_number, const char *fault) {
    kern_log("zarn_util: malformed '%s' section in family %x - entry %d is %s\n", kSections[type].name,
             (unsigned)cache->family, (int)entry_number, fault);
}

// One stack entry, with what is wrong with it told. Only a failure that has nothing to do with the entry
// comes back.
static int32_t parse_entry(uint32_t type, uint32_t key1, family_cache *cache, skiplist *names,
                           const settings_parameter *entry, int32_t entry_number) {
    const int32_t status = parse_line(type, key1, cache, names, entry);
    if (status == ERR_BAD_VALUE) {
        log_malformed(type, cache, entry_number, "messed up");
    } else if (status == ERR_DUPLICATE) {
        log_malformed(type, cache, entry_number, "a duplicate");
    } else {
        return status;
    }
    return 0;
}

// One sub-section of a family. Entries are numbered by their place on level 4, whatever lies below.
static int32_t parse_section(uint32_t type, family_cache *cache, skiplist *names,
                             const settings_parameter *section) {
    int32_t status = 0;
    for (int32_t i = 0; status == 0 && i < section->child_count; ++i) {
        const settings_parameter *child = &section->children[i];
        if (type == kStackIn) {
            status = parse_entry(type, 0, cache, names, child, i);
            continue;
        }
        int32_t key1;
        if (!read_int32(child->name, kSections[type].key1_base, &key1) || key1 < 0) {
            log_malformed(type, cache, i, "messed up");
            continue;
        }
        for (int32_t j = 0; status == 0 && j < child->child_count; ++j)
            status = parse_entry(type, (uint32_t)key1, cache, names, &child->children[j], i);
    }
    return status;
}

static const settings_parameter *find_parameter(const char *name, const settings_parameter *parameters,
                                                int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        if (strcmp(parameters[i].name, name) == 0) return &parameters[i];
    }
    return nullptr;
}

// The family's section: its name is the number in hexadecimal, lower case and without leading zeros.
static const settings_parameter *find_family_section(const settings_tree *tree, uint32_t family) {
    char text[2 * sizeof family + 1];
    char *digit = &text[sizeof text - 1];
    *digit = '\0';
    for (uint32_t rest = family; rest != 0 || *digit == '\0'; rest >>= 4)
        *--digit = "0123456789abcdef"[rest & 15];

    if (tree == nullptr) return nullptr;
    const settings_parameter *domains = find_parameter("domains", tree->parameters, tree->parameter_count);
    return domains == nullptr ? nullptr : find_parameter(digit, domains->children, domains->child_count);
}

static void find_sub_sections(uint32_t family, const settings_parameter *family_section,
                              const settings_parameter *(&sections)[kStackTypes]) {
    for (int32_t i = 0; i < family_section->child_count; ++i) {
        const settings_parameter *child = &family_section->children[i];
        for (int type = 0; type < kStackTypes; ++type) {
            if (strcmp(child->name, kSections[type].name) != 0) continue;
            if (sections[type] == nullptr) {
                sections[type] = child;
            } else {
                kern_log(
                    "zarn_util: discovered duplicate '%s' sub-section in family %x's section in zarn.conf - "
                    "ignoring\n",
                    child->name, (unsigned)family);
            }
        }
    }
}

int32_t cache_family(uint32_t family, family_cache **out) {
    int32_t status = ERR_NO_MEMORY;
    const settings_parameter *family_section;
    const settings_parameter *sections[kStackTypes] = {};
    family_cache *cache;
    skiplist *names;
    void *settings = kern_settings_load("zarn.conf");
    if (settings == nullptr) {
        kern_log("zarn_util: failed loading zarn.conf");
        status = -1;
        goto failed;
    }

    family_section = find_family_section(kern_settings_tree(settings), family);
    if (family_section == nullptr) {
        kern_log("zarn_util: unable to find address family %x's section in zarn.conf\n", (unsigned)family);
        status = ERR_NO_FAMILY;
        goto unload_settings;
    }
    find_sub_sections(family, family_section, sections);
    kern_log("zarn_util: cache_family(%x): found sections - in = %p, out = %p, dl = %p\n", (unsigned)family,
             (const void *)sections[kStackIn], (const void *)sections[kStackOut],
             (const void *)sections[kStackDatalink]);

    cache = (family_cache *)zarn_malloc(sizeof(family_cache));
    if (cache == nullptr) goto unload_settings;
    cache->family = family;
    cache->stacks = skiplist_new(compare_stack_cache, free_stack_cache, 0);
    if (cache->stacks == nullptr) goto free_cache;
    names = skiplist_new(compare_names, nullptr, 0);
    if (names == nullptr) goto free_stacks;

    for (uint32_t type = 0; type < kStackTypes; ++type) {
        const int32_t parsed =
            sections[type] == nullptr ? 0 : parse_section(type, cache, names, sections[type]);
        if (parsed != 0) {
            status = parsed;
            goto delete_names;
        }
    }
    if (skiplist_insert(gFamilyCaches, cache) != 1) {
        status = -1;
        goto delete_names;
    }

    kern_settings_unload(settings);
    skiplist_free(names);
    *out = cache;
    return 0;

delete_names:
    skiplist_for_each(names, delete_copied_names, nullptr);
    skiplist_free(names);
free_stacks:
    skiplist_free(cache->stacks);
free_cache:
    zarn_free(cache);
unload_settings:
    kern_settings_unload(settings);
failed:
    kern_log("zarn_util: cache_family(): failed to cache 'domains' for family %x (%08lx)\n", (unsigned)family,
             (unsigned long)(uint32_t)status);
    return status;
}
