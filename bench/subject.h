/*
 * What is measured: something that records frames. Each program here is
 * drive.c with one subject; a subject may come in variants.
 */
#ifndef BENCH_SUBJECT_H
#define BENCH_SUBJECT_H

#include "work.h"

enum { subject_buffer = 65536 }; /* bytes that each of them may collect before it writes */

struct subject {
    /* Begins a recording into an empty file. */
    void (*open)(const char *variant, const struct work *work, int fd);
    void (*add)(const struct work_unit *unit);
    /* What the application does once a second; journal_fd takes what it writes then. */
    void (*each_second)(int journal_fd);
    /* Completes the file. */
    void (*close)(void);
    /* Writes out what is buffered, and leaves the file without an end. */
    void (*abandon)(int journal_fd);
};

extern const struct subject subject;

/* For the subjects without a journal */
static inline void without_journal(int journal_fd)
{
    (void)journal_fd;
}

#endif
