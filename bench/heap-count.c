/*
 * Preloaded, counts what a process does with its heap. Where the environment
 * names a file in HEAP_COUNTS, the number of calls is in it after the process.
 */
#include <errno.h>
#include <malloc.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include "heap-count.h"

/* The C library's own, under names that nothing replaces. */
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);

static struct heap_counts counts;

struct heap_counts *heap_counts(void)
{
    return &counts;
}

__attribute__((destructor)) static void write_calls(void)
{
    const char *const path = getenv("HEAP_COUNTS");
    const uint64_t calls = counts.calls;
    FILE *const file = path ? fopen(path, "w") : NULL;
    if (!file) return;
    fprintf(file, "%llu\n", (unsigned long long)calls);
    fclose(file);
}

static void *given(void *block, size_t size)
{
    ++counts.calls;
    for (uint64_t known = counts.largest; size > known;)
        if (atomic_compare_exchange_weak(&counts.largest, &known, size)) break;
    if (block) counts.live += (int64_t)malloc_usable_size(block);
    return block;
}

static void taken_back(void *block)
{
    if (block) counts.live -= (int64_t)malloc_usable_size(block);
}

void *malloc(size_t size)
{
    return given(__libc_malloc(size), size);
}

void *calloc(size_t n, size_t size)
{
    return given(__libc_calloc(n, size), n * size);
}

void *realloc(void *old, size_t size)
{
    taken_back(old);
    return given(__libc_realloc(old, size), size);
}

void *memalign(size_t alignment, size_t size)
{
    return given(__libc_memalign(alignment, size), size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size)
{
    void *block = memalign(alignment, size);
    if (!block) return ENOMEM;
    *out = block;
    return 0;
}

void free(void *block)
{
    if (block) ++counts.calls;
    taken_back(block);
    __libc_free(block);
}
