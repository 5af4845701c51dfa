// SPDX-License-Identifier: MIT
//
// What becomes of the kernel's log: its lines go to stderr, but for those that every run brings.

#ifndef ZARN_HOST_KERNEL_LOG_H
#define ZARN_HOST_KERNEL_LOG_H

// From now on lines go to stderr; those of every run only if `all`.
void show_kernel_log(bool all);

#endif
