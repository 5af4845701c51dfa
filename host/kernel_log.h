// SPDX-License-Identifier: MIT
//
// What becomes of the kernel's log: lines go to stderr, but what modules tell at their start and stop is held
// back, and shown only if something went wrong. Thread level.

#ifndef ZARN_HOST_KERNEL_LOG_H
#define ZARN_HOST_KERNEL_LOG_H

// From now on lines are kept.
void hold_kernel_log();

// From now on lines go to stderr again. What was kept is printed first, or thrown away.
void release_kernel_log(bool print);

#endif
