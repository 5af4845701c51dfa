// SPDX-License-Identifier: MIT
//
// What the benchmarks share. A benchmark is named group/details/variant, "packet_life/1460/module": the
// variants of one group and details do the same work by different means, the module's first, and bench/run
// prints the others as ratios to it.
//
// The module is started before the first benchmark and stopped behind the last.

#ifndef ZARN_BENCH_BENCH_H
#define ZARN_BENCH_BENCH_H

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include <zarn/zarn_util.h>

// The table, as a client gets it.
extern const zarn_util_module_t *util;

template <typename body>
benchmark::internal::Benchmark *add_benchmark(const std::string &name, body function) {
    return benchmark::RegisterBenchmark(name.c_str(), function);
}

// Forgets what the compiler knows about `value`.
template <typename type>
inline type hide(type value) {
    asm volatile("" : "+r"(value));
    return value;
}

// The library's memcpy, which the compiler neither replaces by instructions of its own nor leaves out.
inline void copy_memory(void *to, const void *from, size_t size) {
    hide (&std::memcpy)(to, from, size);
}

// The sum as everybody writes it first. What the compiler makes of it is part of the comparison.
[[gnu::noinline]] inline uint32_t rfc1071_loop(const void *data, uint32_t length) {
    const uint8_t *from = static_cast<const uint8_t *>(data);
    uint32_t sum = 0;
    for (; length > 1; length -= 2, from += 2) {
        uint16_t word;
        std::memcpy(&word, from, 2);
        sum += word;
    }
    if (length > 0) sum += *from;
    while (sum >> 16 != 0)
        sum = (sum & 0xffff) + (sum >> 16);
    return sum;
}

#endif
