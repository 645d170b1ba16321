/*
 * Preloaded into a program that repairs recordings, each in a directory of its own below $CASES: at each change that
 * it makes to a directory's files, that is before the change and in the middle of a write, it copies the directory with
 * its times to $SNAPSHOTS/NAME@N. That is what a kill at this moment leaves. In a directory NAME~full=N the medium is full from the
 * Nth change on, in NAME~bad=N the Nth change alone fails, in NAME~gap=N that
 * and the next: a write comes out short, and its continuation fails. With $EXFAT the file system is like exFAT.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#define REAL(function) (__extension__(__typeof__(&function)) dlsym(RTLD_NEXT, #function))

static void copy(const char *from, const char *to)
{
    int in = open(from, O_RDONLY), out = open(to, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    struct stat status;
    if (in < 0 || out < 0 || fstat(in, &status) != 0) abort();
    while (sendfile(out, in, NULL, 1 << 20) > 0) continue;
    REAL(futimens)(out, (struct timespec[]){status.st_atim, status.st_mtim});
    close(in);
    close(out);
}

static void snapshot(const char *directory, const char *name, int n)
{
    char to[PATH_MAX], file[2 * PATH_MAX], copied[2 * PATH_MAX];
    if (!getenv("SNAPSHOTS")) return;
    snprintf(to, sizeof to, "%s/%s@%d", getenv("SNAPSHOTS"), name, n);
    DIR *listing = opendir(directory);
    if (mkdir(to, 0755) != 0 || !listing) abort();
    for (struct dirent *entry; (entry = readdir(listing));) {
        if (entry->d_type != DT_REG) continue;
        snprintf(file, sizeof file, "%s/%s", directory, entry->d_name);
        snprintf(copied, sizeof copied, "%s/%s", to, entry->d_name);
        copy(file, copied);
    }
    closedir(listing);
}

/* Whether a change of the file may go on; else errno is set. */
static int allowed(const char *path)
{
    static char last[PATH_MAX];
    static int count;
    const char *cases = getenv("CASES");
    char directory[PATH_MAX];
    struct stat status;
    if (!cases || !realpath(path, directory) || strncmp(directory, cases, strlen(cases)) != 0) return 1;
    if (stat(directory, &status) != 0 || !S_ISDIR(status.st_mode)) *strrchr(directory, '/') = 0;
    if (directory[strlen(cases)] != '/') return 1;
    if (strcmp(directory, last) != 0) count = 0;
    strcpy(last, directory);
    ++count;
    const char *name = strrchr(directory, '/') + 1, *fault = strchr(name, '~');
    if (!fault) snapshot(directory, name, count);
    if (!fault) return 1;
    const int fails = count - atoi(strchr(fault, '=') + 1), is_full = fault[1] == 'f';
    errno = is_full ? ENOSPC : EIO;
    return fails < 0 || fails >= (is_full ? INT_MAX : fault[1] == 'g' ? 2 : 1);
}

static int allowed_for(int fd)
{
    char link[64], path[PATH_MAX] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return readlink(link, path, sizeof path - 1) < 0 || allowed(path);
}

static ssize_t put(int fd, const char *data, size_t length, off64_t at)
{
    return at < 0 ? REAL(write)(fd, data, length) : REAL(pwrite64)(fd, data, length, at);
}

static ssize_t put_halves(int fd, const char *data, size_t length, off64_t at)
{
    const size_t half = length / 2;
    if (!allowed_for(fd)) return -1;
    ssize_t written = half ? put(fd, data, half, at) : 0;
    if (written < (ssize_t)half || (half && !allowed_for(fd))) return written;
    ssize_t rest = put(fd, data + half, length - half, at < 0 ? at : at + (off64_t)half);
    return rest < 0 && half == 0 ? rest : written + (rest < 0 ? 0 : rest);
}

ssize_t write(int fd, const void *data, size_t length)
{
    return put_halves(fd, data, length, -1);
}

ssize_t pwrite64(int fd, const void *data, size_t length, off64_t at)
{
    return put_halves(fd, data, length, at);
}

ssize_t writev(int fd, const struct iovec *parts, int count)
{
    ssize_t total = 0;
    for (int i = 0; i < count; i++) {
        if (parts[i].iov_len == 0) continue;
        ssize_t written = write(fd, parts[i].iov_base, parts[i].iov_len);
        if (written < 0) return total ? total : -1;
        total += written;
        if ((size_t)written < parts[i].iov_len) break;
    }
    return total;
}

#define GUARDED(name, parameters, arguments, is_allowed) \
    int name parameters \
    { \
        return (is_allowed) ? REAL(name) arguments : -1; \
    }

GUARDED(ftruncate, (int fd, off_t length), (fd, length), allowed_for(fd))
GUARDED(ftruncate64, (int fd, off64_t length), (fd, length), allowed_for(fd))
GUARDED(fsync, (int fd), (fd), allowed_for(fd))
GUARDED(fchmod, (int fd, mode_t mode), (fd, mode), allowed_for(fd))
GUARDED(futimens, (int fd, const struct timespec times[2]), (fd, times), allowed_for(fd))
GUARDED(renameat, (int from, const char *old, int to, const char *name), (from, old, to, name), allowed_for(to))
GUARDED(unlink, (const char *path), (path), allowed(path) || errno == ENOSPC)
GUARDED(unlinkat, (int at, const char *name, int flags), (at, name, flags), allowed_for(at) || errno == ENOSPC)
GUARDED(linkat, (int from, const char *a, int to, const char *b, int flags), (from, a, to, b, flags), allowed_for(to))

int fstatfs64(int fd, struct statfs64 *system)
{
    const int result = REAL(fstatfs64)(fd, system);
    if (getenv("EXFAT")) system->f_type = 0x2011BAB0;
    return result;
}

int fallocate64(int fd, int mode, off64_t offset, off64_t length)
{
    errno = EOPNOTSUPP;
    return getenv("EXFAT") ? -1 : REAL(fallocate64)(fd, mode, offset, length);
}

int openat64(int at, const char *name, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;
    va_end(more);
    return flags & O_CREAT && !allowed_for(at) ? -1 : REAL(openat64)(at, name, flags, mode);
}

long syscall(long number, ...)
{
    long given[6];
    va_list more;
    va_start(more, number);
    for (int i = 0; i < 6; i++) given[i] = va_arg(more, long);
    va_end(more);
    if (number == SYS_renameat2 && !allowed_for((int)given[2])) return -1;
    return REAL(syscall)(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}
