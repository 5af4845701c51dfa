// SPDX-License-Identifier: MIT
//
// Every C library function that the module may call. It includes no header of a C library, so that a kernel
// which brings its own only has to resolve these symbols; the test of the built module's symbols reads this
// list.
//
// They do what C says. Of the heap that includes the alignment: `malloc` and `calloc` give memory that is
// aligned to 16 bytes. With less, the exchange of the pair in a pool's record (platform/processor.h) faults
// on LP64, and may lie across two cache lines on ILP32, which is slow and which some processors refuse.

#ifndef ZARN_PLATFORM_LIBC_H
#define ZARN_PLATFORM_LIBC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#define ZARN_LIBC_NOTHROW noexcept
#else
#define ZARN_LIBC_NOTHROW
#endif

void *malloc(size_t size) ZARN_LIBC_NOTHROW;
void *calloc(size_t count, size_t size) ZARN_LIBC_NOTHROW;
void free(void *block) ZARN_LIBC_NOTHROW;
char *strdup(const char *text) ZARN_LIBC_NOTHROW;

void *memcpy(void *dest, const void *src, size_t size) ZARN_LIBC_NOTHROW;
void *memset(void *dest, int value, size_t size) ZARN_LIBC_NOTHROW;

int strcmp(const char *a, const char *b) ZARN_LIBC_NOTHROW;
long strtol(const char *text, char **end, int base) ZARN_LIBC_NOTHROW;
unsigned long strtoul(const char *text, char **end, int base) ZARN_LIBC_NOTHROW;

#ifdef __cplusplus
}
#endif
#undef ZARN_LIBC_NOTHROW

#endif
