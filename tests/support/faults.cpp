/** The wrappers of faults.h: the linker sends calls of f to __wrap_f; __real_f is the f that was meant. */
#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

#include <mediafiles/support/log.h>

namespace faults {

lines log_lines;

void log_all_but(int level)
{
    log_lines.clear();
    for (const int each : {4, 5, 8}) __logLevels[16 * each + 15] = each != level;
}

lines logged(lines all)
{
    std::erase_if(all, [](const std::string &line) { return !__logLevels[16 * (line[0] - '0') + 15]; });
    return all;
}

static constexpr injection *&current = injection::current;
static bool shorten; // the call that goes on moves half of its bytes

static bool fail(int error, bool harmless)
{
    if (!harmless) {
        if (current->cause == 0) current->cause = error;
        std::copy(std::begin(current->made), std::end(current->made), current->made_then);
    }
    errno = error;
    return true;
}

static bool fails(call kind)
{
    if (!current) return false;
    const plan &orders = current->orders;
    const long n = current->made[kind]++;
    const bool full = kind == output && orders.room == 0;
    const bool planned = kind == orders.kind && orders.nth >= 0;
    const bool due = planned && (n == orders.nth || (n > orders.nth && orders.forever));
    current->hit |= due || (full && orders.nth < 0);
    if (!due || (orders.error == 0 && !orders.pretend)) {
        if (full) return fail(ENOSPC, false);
        shorten = due || (planned && orders.torn && n == orders.nth - 1);
        return false;
    }
    const int before = errno;
    fail(orders.error, orders.harmless);
    if (kind == advice) errno = before;
    return true;
}

/** Bytes of n that a call may move. */
static size_t limited(call kind, size_t n)
{
    if (!current) return n;
    plan &orders = current->orders;
    if (orders.cut) n = std::min(n, orders.cut);
    if (std::exchange(shorten, false)) n = (n + 1) / 2;
    if (kind == output && orders.room >= 0) {
        n = std::min(n, static_cast<size_t>(orders.room));
        orders.room -= static_cast<long>(n);
    }
    return n;
}

/** What a call returns that fails. */
static constexpr auto refusal = [](call kind) {
    return current->orders.pretend ? 0 : kind == advice ? current->orders.error : -1;
};
/** What a write has moved. */
static constexpr auto wrote = [](int fd, ssize_t n) {
    if (current && current->wrote && n > 0) current->wrote(fd, size_t(n));
    return n;
};
static constexpr auto hold = [](const void *block, long blocks) { current &&block ? current->held += blocks : 0; };
static constexpr auto spoil_errno = [] { errno = current && current->orders.spoil ? EDOM : errno; };

} // namespace faults

using namespace faults;

extern "C" {

uint32_t __logLevels[256];

void __printLog(int level, const char *format, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    log_lines.push_back(std::to_string(level) + " " + line);
    spoil_errno();
}

void *__real_realloc(void *, size_t);
void __real_free(void *);
ssize_t __real_writev(int, const iovec *, int);

void *__wrap_realloc(void *block, size_t size)
{
    if (fails(memory)) return nullptr;
    if (block && current) current->largest_growth = std::max(current->largest_growth, size);
    void *grown = __real_realloc(block, size);
    hold(grown, block ? 0 : 1);
    return grown;
}

void *__real_calloc(size_t, size_t);
void *__wrap_malloc(size_t size)
{
    return __wrap_realloc(nullptr, size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    if (fails(memory)) return nullptr;
    void *block = __real_calloc(count, size);
    hold(block, 1);
    return block;
}

void __wrap_free(void *block)
{
    hold(block, -1);
    __real_free(block);
    spoil_errno();
}

#define WRAP(kind, result, name, parameters, arguments) \
    result __real_##name parameters; \
    result __wrap_##name parameters \
    { \
        return fails(kind) ? refusal(kind) : __real_##name arguments; \
    }

WRAP(input, ssize_t, read, (int fd, void *data, size_t n), (fd, data, limited(input, n)))
WRAP(syncing, int, fsync, (int fd), (fd))
WRAP(opening, int, open, (const char *path, int flags, mode_t mode), (path, flags, mode))
WRAP(opening, int, open64, (const char *path, int flags, mode_t mode), (path, flags, mode))
WRAP(sizing, int, fstat, (int fd, struct stat *out), (fd, out))
WRAP(sizing, int, fstat64, (int fd, struct stat64 *out), (fd, out))
WRAP(cutting, int, ftruncate, (int fd, long length), (fd, length))
WRAP(cutting, int, ftruncate64, (int fd, int64_t length), (fd, length))
WRAP(advice, int, posix_fadvise, (int fd, long from, long n, int what), (fd, from, n, what))
WRAP(advice, int, posix_fadvise64, (int fd, int64_t from, int64_t n, int what), (fd, from, n, what))

ssize_t __real_write(int, const void *, size_t);
ssize_t __wrap_write(int fd, const void *data, size_t n)
{
    return fails(output) ? refusal(output) : wrote(fd, __real_write(fd, data, limited(output, n)));
}

// EOVERFLOW concerns the result alone: the offset has moved.
#define WRAP_SEEK(offset, name) \
    offset __real_##name(int, offset, int); \
    offset __wrap_##name(int fd, offset to, int whence) \
    { \
        const bool refused = fails(seeking); \
        if (refused && errno != EOVERFLOW) return refusal(seeking); \
        const offset position = __real_##name(fd, to, whence); \
        return refused ? errno = EOVERFLOW, -1 : position; \
    }

WRAP_SEEK(long, lseek) // off_t under its plain name
WRAP_SEEK(int64_t, lseek64)

ssize_t __wrap_writev(int fd, const iovec *list, int count)
{
    if (fails(output)) return refusal(output);
    std::vector<iovec> part(list, list + count);
    size_t all = 0;
    for (const iovec &entry : part) all += entry.iov_len;
    size_t left = limited(output, all);
    for (iovec &entry : part) left -= entry.iov_len = std::min(left, entry.iov_len);
    return wrote(fd, __real_writev(fd, part.data(), count));
}

int __real_close(int);
int __wrap_close(int fd)
{
    const int result = __real_close(fd);
    spoil_errno();
    return result;
}

} // extern "C"
