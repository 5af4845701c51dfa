// SPDX-License-Identifier: MIT
//
// The flags of the profiler's two operations, `_enter_prof_func` and `_exit_prof_func`.
//
// A client brackets a stretch of code with them. Each bracket is one measurement of real, user and kernel
// time of the thread that runs it; the measurements are summed for each name, "prefix:suffix", over all
// threads. The debugger commands "prof_kern", "prof_real" and "prof_func" print the sums, all of them or the
// first n, by kernel time, by real time or by name. Nothing of the profiler exists before the first recorded
// bracket.
//
//     util->_enter_prof_func("ipv4", "receive", PROF_RECORD);
//     ...
//     util->_exit_prof_func("ipv4", "receive", PROF_RECORD);

#ifndef ZARN_PROFILER_H
#define ZARN_PROFILER_H

enum {
    PROF_RECORD = 1,  // start a measurement at the enter, finish it at the exit
    PROF_LOG = 2,     // a line in the kernel's log
    PROF_BREAK = 4    // stop in the kernel debugger, and go on when it is left
};

#endif
