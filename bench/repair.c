/*
 * Repairs a recording, or does the least that any repair must do: reads its
 * journal in blocks of 8 KiB and writes a file as large as the movie header,
 * with one fsync. Prints the nanoseconds that it took.
 *
 *     bench-repair library FILE JOURNAL
 *     bench-repair limit JOURNAL FILE BYTES
 */
#include <string.h>
#include <time.h>

#include <mediafiles/fix.h>

#include "work.h"

static uint64_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec;
}

static void limit(const char *journal, const char *path, size_t bytes)
{
    static char block[8192];
    const int in = open(journal, O_RDONLY), out = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0) fail("open");
    while (read(in, block, sizeof block) > 0) {}
    char *header = calloc(1, bytes);
    if (!header || write(out, header, bytes) != (ssize_t)bytes || fsync(out) != 0) fail(path);
}

int main(int argc, char **argv)
{
    const uint64_t begin = now();
    if (argc == 4 && strcmp(argv[1], "library") == 0) {
        if (mp4_fix(argv[2], argv[3], NULL, NULL) != 0) fail("mp4_fix");
    } else if (argc == 5 && strcmp(argv[1], "limit") == 0) {
        limit(argv[2], argv[3], strtoul(argv[4], NULL, 10));
    } else {
        return 2;
    }
    fprintf(stderr, "%llu\n", (unsigned long long)(now() - begin));
}
