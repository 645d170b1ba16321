/*
 * The work that every program here does: a set of coded frames, read from a
 * file that bench/run makes once, and repeated as often as a run needs.
 *
 * A set is exactly periodic in time, so that a recording of any length has
 * even timing: 240 frames of video at 30 a second and 375 of audio at 48 kHz
 * are eight seconds both.
 *
 * The file, little-endian: a work_header, its work_frames, their bytes.
 */
#ifndef BENCH_WORK_H
#define BENCH_WORK_H

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

struct work_frame {
    uint32_t offset;  /* in the file */
    uint32_t length;  /* bytes */
    uint32_t track;   /* 0 video, 1 audio */
    uint32_t key;     /* sync sample */
    uint64_t time_ns; /* within the set */
};

struct work_header {
    uint32_t codec; /* type code of the video track, as in mediafiles/movie.h */
    uint32_t frames;
    uint64_t period_ns;
    uint32_t parameter_sets; /* bytes before the first slice, at the front of the first frame */
    uint32_t unused;
};

struct work {
    const struct work_header *header;
    const struct work_frame *frames;
    const uint8_t *bytes; /* the file */
};

enum { work_width = 1920, work_height = 1080, work_channels = 2, work_rate = 48000 };

static inline _Noreturn void fail(const char *step)
{
    perror(step);
    exit(1);
}

/* Maps a set; its pages are touched once, so that no run pays for reading them. */
static inline struct work work_open(const char *path)
{
    const int fd = open(path, O_RDONLY);
    struct stat file;
    if (fd < 0 || fstat(fd, &file) != 0) fail(path);
    uint8_t *bytes = mmap(NULL, (size_t)file.st_size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (bytes == MAP_FAILED) fail(path);
    close(fd);
    const struct work_header *header = (const void *)bytes;
    return (struct work){header, (const void *)(header + 1), bytes};
}

/* One frame of a recording that repeats the set. */
struct work_unit {
    const uint8_t *data;
    uint32_t length, track, key;
    uint64_t time_ns;
};

static inline struct work_unit work_unit_at(const struct work *work, uint64_t index)
{
    const struct work_frame *frame = &work->frames[index % work->header->frames];
    return (struct work_unit){work->bytes + frame->offset, frame->length, frame->track, frame->key,
                              index / work->header->frames * work->header->period_ns + frame->time_ns};
}

#endif
