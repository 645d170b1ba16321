#include "medium.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

gate &syncs = *new gate, &writes = *new gate; // threads that a test abandons outlive it
std::atomic<int> failing_sync = 0;
std::atomic<int64_t> free_room = -1;
std::atomic<long> system_type = 0;

void gate::pass()
{
    std::unique_lock guard(lock_);
    ++waiting_;
    moved_.notify_all();
    moved_.wait(guard, [this] { return !closed_; });
    --waiting_;
}

void gate::await_someone()
{
    std::unique_lock guard(lock_);
    moved_.wait(guard, [this] { return waiting_ != 0; });
}

void gate::set(bool closed)
{
    const std::lock_guard guard(lock_);
    closed_ = closed;
    moved_.notify_all();
}

namespace medium {

bool failing::fails(call kind)
{
    if (is_lifted_) return false;
    const long n = made_[kind]++;
    if (kind != orders_.kind || orders_.nth < 0 || n < orders_.nth || (n > orders_.nth && !orders_.forever))
        return false;
    has_hit_ = true;
    errno = orders_.error;
    return true;
}

int64_t failing::carry_out(const operation &what, real_call call)
{
    return fails(what.what) ? -1 : call();
}

template <class Call>
static int64_t pass(const operation &what, Call call)
{
    watch *const by = watch::current;
    return by ? by->carry_out(what, call) : call();
}

/* The descriptor of events is none of the medium's. */
static bool is_memory_alone(int file)
{
    struct stat status;
    return fstat(file, &status) != 0 || !S_ISREG(status.st_mode);
}

static bool may_allocate()
{
    watch *const by = watch::current;
    return !by || is_own_memory || by->allocates();
}

} // namespace medium

using namespace medium;

extern "C" {

ssize_t __real_write(int, const void *, size_t);
ssize_t __wrap_write(int file, const void *data, size_t size)
{
    const auto call = [=] { return __real_write(file, data, size); };
    if (!watch::current || is_memory_alone(file)) return call();
    const iovec piece = {const_cast<void *>(data), size};
    return static_cast<ssize_t>(pass({.what = writing, .file = file, .pieces = {&piece, 1}}, call));
}

ssize_t __real_pwrite64(int, const void *, size_t, off64_t);
ssize_t __wrap_pwrite64(int file, const void *data, size_t size, off64_t at)
{
    const iovec piece = {const_cast<void *>(data), size};
    return static_cast<ssize_t>(pass({.what = writing, .file = file, .pieces = {&piece, 1}, .at = at},
                                     [=] { return __real_pwrite64(file, data, size, at); }));
}

ssize_t __real_writev(int, const iovec *, int);
ssize_t __wrap_writev(int file, const iovec *pieces, int count)
{
    writes.pass();
    return static_cast<ssize_t>(pass({.what = writing, .file = file, .pieces = {pieces, static_cast<size_t>(count)}},
                                     [=] { return __real_writev(file, pieces, count); }));
}

int __real_fdatasync(int);
int __wrap_fdatasync(int file)
{
    syncs.pass();
    if ((errno = failing_sync.exchange(0)) != 0) return -1;
    return static_cast<int>(pass({.what = syncing, .file = file}, [=] { return __real_fdatasync(file); }));
}

#define WRAP(name, parameters, arguments, ...) \
    int __real_##name parameters; \
    int __wrap_##name parameters \
    { \
        return static_cast<int>(pass({__VA_ARGS__}, [=] { return __real_##name arguments; })); \
    }

WRAP(fsync, (int file), (file), .what = syncing, .file = file)
WRAP(ftruncate64, (int file, off64_t size), (file, size), .what = cutting, .file = file, .at = size)
WRAP(fallocate64, (int file, int mode, off64_t at, off64_t size), (file, mode, at, size), .what = reserving,
     .file = file)
WRAP(unlinkat, (int at, const char *name, int flags), (at, name, flags), .what = unlinking, .file = at, .name = name,
     .is_directory = (flags & AT_REMOVEDIR) != 0)
WRAP(renameat, (int at, const char *name, int to, const char *new_name), (at, name, to, new_name), .what = renaming,
     .file = at, .name = name, .to = new_name)
WRAP(mkdirat, (int at, const char *name, mode_t mode), (at, name, mode), .what = opening, .file = at, .name = name,
     .makes = true, .is_directory = true)

int __real_openat64(int, const char *, int, ...);
int __wrap_openat64(int at, const char *name, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;
    va_end(more);
    return static_cast<int>(pass({.what = opening, .file = at, .name = name, .makes = (flags & O_CREAT) != 0},
                                 [=] { return __real_openat64(at, name, flags, mode); }));
}

int __real_fstatvfs64(int file, struct statvfs *room);
int __wrap_fstatvfs64(int file, struct statvfs *room)
{
    const int result = __real_fstatvfs64(file, room);
    if (free_room >= 0) room->f_bavail = static_cast<fsblkcnt_t>(free_room / static_cast<int64_t>(room->f_frsize));
    return result;
}

int __real_fstatfs64(int file, struct statfs *system);
int __wrap_fstatfs64(int file, struct statfs *system)
{
    const int result = __real_fstatfs64(file, system);
    if (system_type != 0) system->f_type = static_cast<decltype(system->f_type)>(system_type.load());
    return result;
}

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
void *__wrap_malloc(size_t size)
{
    return may_allocate() ? __real_malloc(size) : nullptr;
}
void *__wrap_calloc(size_t count, size_t size)
{
    return may_allocate() ? __real_calloc(count, size) : nullptr;
}
void *__wrap_realloc(void *block, size_t size)
{
    return may_allocate() ? __real_realloc(block, size) : nullptr;
}

} // extern "C"

void *operator new(size_t size)
{
    void *const made = may_allocate() ? __real_malloc(size) : nullptr;
    if (!made) throw std::bad_alloc();
    return made;
}
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return may_allocate() ? __real_malloc(size) : nullptr;
}
void operator delete(void *block) noexcept
{
    free(block);
}
void operator delete(void *block, size_t) noexcept
{
    free(block);
}
