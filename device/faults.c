/*
 * Faults that a recorder could have, for a rig that has to find them. The
 * environment names one (FAULT):
 *
 *     journal-first    the journal is synced each time, the media with every second round alone
 *     no-sync          neither is synced
 *     no-directory     the directory is not synced
 *     mark-first       the journal is synced when a round's mark is written, and its records come after that
 */
#define _GNU_SOURCE
#include <limits.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <mediafiles/recovery.h>

int __real_fdatasync(int file);
int __wrap_fdatasync(int file);
int __real_fsync(int file);
int __wrap_fsync(int file);
ssize_t __real_write(int file, const void *data, size_t size);
ssize_t __wrap_write(int file, const void *data, size_t size);

static int has(const char *fault)
{
    const char *name = getenv("FAULT");
    return name && strcmp(name, fault) == 0;
}

static int is_journal(int file)
{
    char link[32], path[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    const ssize_t size = readlink(link, path, sizeof path);
    return size > 8 && memcmp(path + size - 8, ".journal", 8) == 0;
}

int __wrap_fdatasync(int file)
{
    static atomic_uint rounds;
    if (has("no-sync")) return 0;
    if (has("journal-first") && !is_journal(file) && rounds++ % 2 == 0) return 0;
    if (has("mark-first") && is_journal(file)) return 0; /* it was when the mark was written */
    return __real_fdatasync(file);
}

int __wrap_fsync(int file)
{
    struct stat status;
    if (has("no-directory") && fstat(file, &status) == 0 && S_ISDIR(status.st_mode)) return 0;
    return __real_fsync(file);
}

ssize_t __wrap_write(int file, const void *data, size_t size)
{
    if (!has("mark-first") || size <= MEDIAFILES_ROUND_MARK_SIZE || !is_journal(file))
        return __real_write(file, data, size);
    const size_t before = size - MEDIAFILES_ROUND_MARK_SIZE;
    const off_t end = lseek(file, 0, SEEK_CUR);
    const char *mark = (const char *)data + before;
    if (pwrite(file, mark, MEDIAFILES_ROUND_MARK_SIZE, end + (off_t)before) < 0 || __real_fdatasync(file) != 0)
        return -1;
    return __real_write(file, data, size);
}
