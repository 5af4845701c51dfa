// SPDX-License-Identifier: MIT
//
// The families are read by the roster's own code, which is linked into the program for this, and what it
// refused is taken from its lines in the log. Only the words that explain a refusal are found here, by a look
// at the entry.
#include "host/conf.h"

#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/exit_codes.h"
#include "host/places.h"
#include "host/stack_loader.h"
#include "module/read_int32.h"
#include "platform/hosted/hosted_kernel.h"
#include "platform/hosted/settings.h"
#include "roster/family_cache.h"
#include "roster/zarn_roster.h"

namespace {

constexpr char kUsage[] =
    "usage: zarn conf [--load] [--modules DIRECTORY] [FILE]\n\n"
    "Checks a settings file and prints what the module makes of it: the stacks of each address family with\n"
    "their keys, in the base that the file uses, and their modules; then each entry that was refused or is\n"
    "read by nobody, and why. Without FILE it is the settings file beside the program.\n\n"
    "  --load               load every stack as well, and create and delete an endpoint on each out stack\n"
    "  --modules DIRECTORY  where to load the modules from\n\n"
    "Exit status: 0 the whole file counts; 1 a part of it doesn't, or it has a mistake; 2 wrong usage;\n"
    "3 a stack can't be loaded; 4 a module stayed behind.\n";

constexpr const char *kSections[kStackTypes] = {"in", "out", "dl"};

using log_lines = std::vector<std::string>;

void keep_line(void *lines, const char *text) {
    static_cast<log_lines *>(lines)->emplace_back(text);
}

const settings_parameter *find(const settings_parameter *parameters, int32_t count, const std::string &name) {
    for (int32_t i = 0; i < count; ++i)
        if (name == parameters[i].name) return &parameters[i];
    return nullptr;
}

const settings_parameter *find_child(const settings_parameter *parameter, const std::string &name) {
    return parameter == nullptr ? nullptr : find(parameter->children, parameter->child_count, name);
}

std::string quote(const char *text) {
    return std::string("'") + text + "'";
}

// What stands in the file and counts for nothing.
class complaints {
 public:
    void add(const char *verdict, const std::string &place, const std::string &reason) {
        printf("  %s: %s: %s\n", verdict, place.c_str(), reason.c_str());
        ++count_;
    }
    void add_unread_values(const std::string &place, const settings_parameter &parameter) {
        if (parameter.value_count > 0) add("ignored", place, "its values, which nobody reads");
    }
    void add_unread_block(const std::string &place, const settings_parameter &parameter) {
        if (parameter.child_count > 0) add("ignored", place, "its block, which nobody reads");
    }
    int count() const { return count_; }

 private:
    int count_ = 0;
};

// One family: its section in the file, and what the roster made of it.
class family_report {
 public:
    // Appends the stacks that the roster made.
    family_report(const settings_parameter &section, std::vector<configured_stack> *stacks,
                  complaints *complaints)
        : section_(section),
          number_(static_cast<uint32_t>(strtoul(section.name, nullptr, 16))),
          place_(std::string("family ") + section.name),
          stacks_(stacks),
          complaints_(complaints) {}

    // False when the roster can't read the family at all.
    bool print() {
        log_lines lines;
        family_cache *cache = nullptr;
        hosted_set_log(keep_line, &lines);
        const int32_t status = cache_family(number_, &cache);
        hosted_set_log(nullptr, nullptr);
        if (status != 0) {
            for (const std::string &line : lines)
                fputs(line.c_str(), stderr);
            return false;
        }

        printf("family %s", section_.name);
        printf(number_ > 9 ? " (%" PRIu32 " in base 10)\n" : "\n", number_);
        skiplist_for_each(cache->stacks, print_stack, this);
        printf("  modules:");
        for (const std::string &module : modules_)
            printf(" %s", module.c_str());
        printf("%s\n", modules_.empty() ? " none" : "");
        for (const std::string &line : lines)
            explain(line);
        print_unread();

        lines.clear();
        hosted_set_log(keep_line, &lines);  // it tells that the family goes
        skiplist_delete(gFamilyCaches, &number_);
        hosted_set_log(nullptr, nullptr);
        return true;
    }

 private:
    static int32_t print_stack(void *item, void *argument) {
        const auto *stack = static_cast<const stack_cache *>(item);
        auto *report = static_cast<family_report *>(argument);
        char keys[32];
        if (stack->type == kStackIn) {
            snprintf(keys, sizeof keys, "%" PRId32, stack->key2);
        } else {
            snprintf(keys, sizeof keys,
                     stack->type == kStackOut ? "%" PRIu32 " %" PRId32 : "%" PRIx32 " %" PRId32, stack->key1,
                     stack->key2);
        }
        printf("  %-4s %-16s", kSections[stack->type], keys);
        report->stacks_->push_back({report->number_,
                                    stack->type,
                                    stack->key1,
                                    stack->key2,
                                    std::string(kSections[stack->type]) + " " + keys,
                                    {}});
        for (int32_t i = 0; i < stack->module_count; ++i) {
            report->stacks_->back().modules.emplace_back(stack->module_names[i]);
            report->modules_.insert(stack->module_names[i]);
            printf(" %s", stack->module_names[i]);
        }
        printf("%s\n", stack->module_count == 0 ? " (no modules)" : "");
        return 0;
    }

    // A line that the roster logged. The one about a stack comes just before the one about its entry.
    void explain(const std::string &line) {
        char section[8], fault[16];
        int entry, type, key1, key2;
        unsigned family;
        if (sscanf(line.c_str(), "zarn_util: parse_line(): failed to cache protocol stack %x %d %d %d",
                   &family, &type, &key1, &key2) == 4) {
            stack_key2_ = key2;
            about_stack_ = true;
        } else if (sscanf(line.c_str(),
                          "zarn_util: malformed '%7[^']' section in family %x - entry %d is %15[^\n]",
                          section, &family, &entry, fault) == 4) {
            explain_entry(section, entry, strcmp(fault, "a duplicate") == 0);
            about_stack_ = false;
        } else if (sscanf(line.c_str(), "zarn_util: discovered duplicate '%7[^']' sub-section", section) ==
                   1) {
            complaints_->add("refused", place_ + ", " + section,
                             "a duplicate, the first section of this name counts");
        }
    }

    void explain_entry(const std::string &section_name, int32_t index, bool duplicate) {
        const uint32_t type = section_name == "in"    ? kStackIn
                              : section_name == "out" ? kStackOut
                                                      : kStackDatalink;
        const settings_parameter *section = find_child(&section_, section_name);
        if (section == nullptr || index < 0 || index >= section->child_count) return;
        const settings_parameter *entry = &section->children[index];
        std::string place =
            place_ + ", " + section_name + " entry " + std::to_string(index) + " " + quote(entry->name);
        if (!about_stack_) {
            complaints_->add("refused", place,
                             "messed up, its key is no number from 0 on in base " +
                                 std::string(type == kStackOut ? "10" : "16"));
            return;
        }
        if (type != kStackIn) {
            entry = find_refused(section_name, index, *entry, type, duplicate);
            if (entry == nullptr) return;
            place += ", stack " + quote(entry->name);
        }
        complaints_->add("refused", place, duplicate ? kDuplicate : why_messed_up(type, *entry));
    }

    // The next stack below an entry of "out" or "dl" that the roster's line can be about.
    const settings_parameter *find_refused(const std::string &section, int32_t index,
                                           const settings_parameter &entry, uint32_t type, bool duplicate) {
        int32_t &next = next_stack_[section + std::to_string(index)];
        while (next < entry.child_count) {
            const settings_parameter &stack = entry.children[next++];
            int32_t key2 = 0;
            const bool number = read_int32(stack.name, 10, &key2);
            if (key2 == stack_key2_ && duplicate == (number && modules_fit(type, stack))) return &stack;
        }
        return nullptr;
    }

    static bool modules_fit(uint32_t type, const settings_parameter &entry) {
        return type == kStackIn ? entry.value_count == 1 : type != kStackOut || entry.value_count >= 1;
    }

    static std::string why_messed_up(uint32_t type, const settings_parameter &entry) {
        int32_t key2;
        if (!read_int32(entry.name, 10, &key2)) return "messed up, its key is no number in base 10";
        return type == kStackIn ? "messed up, it names " + std::to_string(entry.value_count) +
                                      " modules and an in entry names one"
                                : "messed up, it names no module and an out stack names at least one";
    }

    // What the roster passes over without a word.
    void print_unread() {
        complaints_->add_unread_values(place_, section_);
        for (int32_t i = 0; i < section_.child_count; ++i) {
            const settings_parameter &section = section_.children[i];
            const std::string place = place_ + ", " + section.name;
            if (std::find(std::begin(kSections), std::end(kSections), std::string(section.name)) ==
                std::end(kSections)) {
                complaints_->add("ignored", place, "a section is named in, out or dl");
                continue;
            }
            if (find_child(&section_, section.name) != &section) continue;
            complaints_->add_unread_values(place, section);
            for (int32_t j = 0; j < section.child_count; ++j) {
                const settings_parameter &entry = section.children[j];
                const std::string entry_place =
                    place + " entry " + std::to_string(j) + " " + quote(entry.name);
                if (strcmp(section.name, "in") == 0) {
                    complaints_->add_unread_block(entry_place, entry);
                    continue;
                }
                complaints_->add_unread_values(entry_place, entry);
                for (int32_t k = 0; k < entry.child_count; ++k) {
                    complaints_->add_unread_block(entry_place + ", stack " + quote(entry.children[k].name),
                                                  entry.children[k]);
                }
            }
        }
    }

    static constexpr char kDuplicate[] = "a duplicate, an earlier stack answers to these keys";

    const settings_parameter &section_;
    const uint32_t number_;
    const std::string place_;
    std::vector<configured_stack> *const stacks_;
    complaints *const complaints_;
    std::set<std::string> modules_;
    int32_t stack_key2_ = 0;
    bool about_stack_ = false;
    std::map<std::string, int32_t> next_stack_;  // by section and entry: where the search goes on
};

// Whether the roster would look for a family under this name.
bool is_family_name(const char *name) {
    char text[16];
    snprintf(text, sizeof text, "%" PRIx32, static_cast<uint32_t>(strtoul(name, nullptr, 16)));
    return strcmp(text, name) == 0;
}

// Everything outside of `domains`.
void print_flat_keys(const settings_tree &tree, const settings_parameter *domains, complaints *complaints) {
    for (int32_t i = 0; i < tree.parameter_count; ++i) {
        const settings_parameter &parameter = tree.parameters[i];
        const std::string place = quote(parameter.name);
        if (&parameter == domains) continue;
        if (find(tree.parameters, tree.parameter_count, parameter.name) != &parameter) {
            complaints->add("ignored", place, "a duplicate, the first parameter of this name counts");
        } else if (parameter.value_count > 1) {
            complaints->add("ignored", place, "a key has one value, and this one several");
        } else {
            printf("%s %s\n", parameter.name,
                   parameter.value_count == 0 ? "(no value)" : parameter.values[0]);
            complaints->add_unread_block(place, parameter);
        }
    }
}

// Returns how much of the file doesn't count, or -1 when the roster can't read a family.
int print_settings_file(const settings_tree &tree, std::vector<configured_stack> *stacks) {
    complaints complaints;
    const settings_parameter *domains = find(tree.parameters, tree.parameter_count, "domains");
    print_flat_keys(tree, domains, &complaints);
    if (domains == nullptr) {
        printf("no address family: there is no section 'domains'\n");
        return complaints.count();
    }
    complaints.add_unread_values("'domains'", *domains);
    for (int32_t i = 0; i < domains->child_count; ++i) {
        const settings_parameter &section = domains->children[i];
        const std::string place = "family " + quote(section.name);
        if (!is_family_name(section.name)) {
            complaints.add("ignored", place,
                           "a family is named by its number in base 16, lower case, no leading zeros");
        } else if (find_child(domains, section.name) != &section) {
            complaints.add("ignored", place, "a duplicate, the first section of this family counts");
        } else if (!family_report(section, stacks, &complaints).print()) {
            return -1;
        }
    }
    return complaints.count();
}

}  // namespace

int run_conf(int argc, char **argv) {
    enum { kLoad = 256, kModules, kHelp };
    static const option kOptions[] = {{"load", no_argument, nullptr, kLoad},
                                      {"modules", required_argument, nullptr, kModules},
                                      {"help", no_argument, nullptr, kHelp},
                                      {}};
    bool load = false;
    std::string modules = default_module_directory();
    opterr = 0;
    optind = 1;
    for (int found; (found = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        switch (found) {
            case kLoad:
                load = true;
                break;
            case kModules:
                modules = optarg;
                break;
            case kHelp:
            case 'h':
                fputs(kUsage, stdout);
                return kExitOk;
            default:
                fprintf(stderr, "zarn conf: %s %s; try 'zarn conf --help'\n",
                        found == ':' ? "a value is missing behind" : "no option", argv[optind - 1]);
                return kExitUsage;
        }
    }
    if (argc - optind > 1) {
        fputs("zarn conf: takes one file at most; try 'zarn conf --help'\n", stderr);
        return kExitUsage;
    }
    const std::string path = argc > optind ? argv[optind] : default_settings_file();
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        // It is read again for each family.
        fprintf(stderr, "zarn conf: %s is no regular file\n", path.c_str());
        return kExitInput;
    }
    if (hosted_set_settings_file("zarn.conf", path.c_str()) != 0 ||
        hosted_set_module_directory(modules.c_str()) != 0) {
        fputs("zarn conf: a name is empty or too long\n", stderr);
        return kExitUsage;
    }
    void *settings = kern_settings_load("zarn.conf");
    if (settings == nullptr) return kExitInput;  // the log tells why
    if (init_roster() != 0) {
        kern_settings_unload(settings);
        return kExitModule;
    }
    std::vector<configured_stack> stacks;
    const int complaints = print_settings_file(*kern_settings_tree(settings), &stacks);
    uninit_roster();
    kern_settings_unload(settings);
    if (complaints == 0) printf("%s: good\n", path.c_str());
    if (complaints > 0)
        printf("%s: %d part%s of it do%s not count\n", path.c_str(), complaints, complaints == 1 ? "" : "s",
               complaints == 1 ? "es" : "");
    const int loaded = load ? load_stacks(stacks) : kExitOk;
    return complaints == 0 ? loaded : kExitInput;
}
