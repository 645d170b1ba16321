/* What records streams into a directory: streams.c with one of these is a program. */
#ifndef BENCH_STREAMS_H
#define BENCH_STREAMS_H

#include "work.h"

enum { segment_seconds = 60 }; /* length of a file */

struct recording {
    /* Begins to record a stream below a directory of its own; a second of media lasts 1 / speed seconds. */
    void *(*begin)(const struct work *work, const char *directory, unsigned speed);
    void (*add)(void *stream, const struct work_unit *unit);
};

extern const struct recording recording;

#endif
