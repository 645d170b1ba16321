/*
 * Drives a subject through one recording and measures it.
 *
 *     SUBJECT VARIANT steady SET FRAMES
 *     SUBJECT VARIANT heap SET FRAMES WARM
 *     SUBJECT VARIANT time SET FRAMES FILE
 *     SUBJECT VARIANT latency SET FRAMES RESULT
 *     SUBJECT VARIANT abandon SET FRAMES FILE JOURNAL
 *
 * steady records and does nothing else. heap reports the frames after the
 * first WARM, time the CPU's time for adding and for closing, both in JSON
 * on standard output. latency writes the nanoseconds that each frame took,
 * 32 bits each. abandon leaves what a power cut would: a file without movie
 * header and its journal, both on the medium. FILE may be /dev/null.
 */
#include <dlfcn.h>
#include <string.h>
#include <time.h>

#include "heap-count.h"
#include "subject.h"

static struct work work;
static int journal_fd;

static int open_file(const char *path)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) fail(path);
    return fd;
}

static uint64_t now(clockid_t clock)
{
    struct timespec time;
    clock_gettime(clock, &time);
    return (uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec;
}

static int second_begins(uint64_t index, const struct work_unit *unit)
{
    return index > 0 && unit->track == 0 && unit->time_ns % 1000000000 == 0;
}

/* Adds frames from an index on, with what the application does once a second. */
static void add_frames(uint64_t from, uint64_t to)
{
    for (uint64_t i = from; i < to; ++i) {
        const struct work_unit unit = work_unit_at(&work, i);
        subject.add(&unit);
        if (second_begins(i, &unit)) subject.each_second(journal_fd);
    }
}

/* Heap of the frames after the first `warm`; the largest request of them all. */
static void heap(uint64_t frames, uint64_t warm)
{
    struct heap_counts *(*find)(void);
    *(void **)&find = dlsym(RTLD_DEFAULT, "heap_counts");
    if (!find) fail("libheap-count.so is not preloaded");
    struct heap_counts *counts = find();
    counts->largest = 0;
    add_frames(0, warm);
    const uint64_t calls = counts->calls;
    const int64_t live = counts->live;
    add_frames(warm, frames);
    printf("{\"calls\": %llu, \"kept\": %lld, \"largest\": %llu}\n", (unsigned long long)(counts->calls - calls),
           (long long)(counts->live - live), (unsigned long long)counts->largest);
}

static void time_recording(uint64_t frames)
{
    const uint64_t begin = now(CLOCK_PROCESS_CPUTIME_ID);
    add_frames(0, frames);
    const uint64_t added = now(CLOCK_PROCESS_CPUTIME_ID);
    subject.close();
    const uint64_t closed = now(CLOCK_PROCESS_CPUTIME_ID);
    printf("{\"add_ns\": %llu, \"close_ns\": %llu}\n", (unsigned long long)(added - begin),
           (unsigned long long)(closed - added));
}

static void latency(uint64_t frames, const char *result)
{
    uint32_t *took = calloc(frames, sizeof *took);
    if (!took) fail("latency");
    memset(took, 1, frames * sizeof *took); /* its pages are there before the first frame */
    for (uint64_t i = 0; i < frames; ++i) {
        const struct work_unit unit = work_unit_at(&work, i);
        const uint64_t begin = now(CLOCK_MONOTONIC);
        subject.add(&unit);
        took[i] = (uint32_t)(now(CLOCK_MONOTONIC) - begin);
        if (second_begins(i, &unit)) subject.each_second(journal_fd);
    }
    const int fd = open_file(result);
    for (size_t done = 0; done < frames * sizeof *took;) {
        const ssize_t n = write(fd, (const char *)took + done, frames * sizeof *took - done);
        if (n <= 0) fail(result);
        done += (size_t)n;
    }
}

int main(int argc, char **argv)
{
    if (argc < 5) return 2;
    const char *variant = argv[1], *mode = argv[2], *argument = argc > 5 ? argv[5] : "/dev/null";
    work = work_open(argv[3]);
    const uint64_t frames = strtoull(argv[4], NULL, 10);
    const int to_file = strcmp(mode, "time") == 0 || strcmp(mode, "abandon") == 0;
    const int fd = open_file(to_file ? argument : "/dev/null");
    journal_fd = open_file(argc > 6 ? argv[6] : "/dev/null");

    subject.open(variant, &work, fd);
    if (strcmp(mode, "steady") == 0) {
        add_frames(0, frames);
    } else if (strcmp(mode, "heap") == 0) {
        heap(frames, strtoull(argument, NULL, 10));
    } else if (strcmp(mode, "time") == 0) {
        time_recording(frames);
    } else if (strcmp(mode, "latency") == 0) {
        latency(frames, argument);
    } else if (strcmp(mode, "abandon") == 0) {
        add_frames(0, frames);
        subject.abandon(journal_fd);
        if (fsync(fd) != 0 || fsync(journal_fd) != 0) fail("fsync");
    } else {
        return 2;
    }
    fflush(stdout);
    _exit(0); /* what a process does at its end is no part of a recording */
}
