/* What libheap-count.so, preloaded, counts of the heap of the process. */
#ifndef BENCH_HEAP_COUNT_H
#define BENCH_HEAP_COUNT_H

#include <stdatomic.h>
#include <stdint.h>

struct heap_counts {
    _Atomic uint64_t calls;   /* to malloc and its kin, and to free */
    _Atomic uint64_t largest; /* request, bytes */
    _Atomic int64_t live;     /* bytes handed out, as the allocator rounds them */
};

/* Exported by libheap-count.so. */
struct heap_counts *heap_counts(void);

#endif
