// SPDX-License-Identifier: MIT
//
// The settings operations of kern.h on files of the process. What a file may look like stands in
// platform/hosted/settings_parser.h.
//
// - A file is looked for by its bare name in the settings directory, unless hosted_set_settings_file tells of
//   another.
// - A load reads the whole file at once. It is refused whole, with one line in the log, when it can't be read
//   or has a mistake: "settings: FILE:LINE:COLUMN: expected ...".
// - Flat keys are the parameters outside of all blocks that have one value; a block beside the value doesn't
//   matter. Where a name stands more than once, the first parameter of the name is the one. One that has no
//   value gives `if_no_value`; one that has several is no flat key and gives `if_unknown`.
// - True are true, yes, on, enable, enabled and 1; false are false, no, off, disable, disabled and 0; in any
//   case. Any other word gives `if_unknown` and a line in the log.
// - Thread level, any thread. What was loaded belongs to the caller until the unload and never changes.

#ifndef ZARN_PLATFORM_HOSTED_SETTINGS_H
#define ZARN_PLATFORM_HOSTED_SETTINGS_H

#include <cstdint>

// From now on kern_settings_load(name) reads the file `path`, wherever it lies. One name can be redirected
// so; a null `path` ends it. Both texts are copied. Returns 0, or KERN_ERR_BAD_VALUE when one is empty or too
// long.
int32_t hosted_set_settings_file(const char *name, const char *path);

// From now on the flat key `key` has this value, whatever a file says. One key can be forced so; a null `key`
// ends it. The texts have to stay. Not while anybody reads settings.
void hosted_force_setting(const char *key, const char *value);

// How many loads have not been unloaded yet.
int32_t hosted_count_settings();

#endif
