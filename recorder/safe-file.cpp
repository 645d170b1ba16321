#include "safe-file.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mediafiles::recovery {

namespace {

constexpr obstacle not_regular = {MEDIAFILES_NOT_OURS, MEDIAFILES_REASON_NOT_REGULAR, ELOOP};
constexpr obstacle in_use = {MEDIAFILES_REFUSED, MEDIAFILES_REASON_IN_USE, EWOULDBLOCK};

constexpr int64_t exfat_magic = 0x2011BAB0; // not every linux/magic.h has it
constexpr size_t buffered_at_once = 256 << 10;

/* Names of temporary files: the two parts and 8 hexadecimal digits between them. */
constexpr std::string_view temporary_begin = ".mediafiles-", temporary_end = ".tmp";
constexpr size_t temporary_digits = 8;

bool is_temporary(std::string_view name)
{
    if (name.size() != temporary_begin.size() + temporary_digits + temporary_end.size() ||
        !name.starts_with(temporary_begin) || !name.ends_with(temporary_end))
        return false;
    const std::string_view digits = name.substr(temporary_begin.size(), temporary_digits);
    return digits.find_first_not_of("0123456789abcdef") == digits.npos;
}

std::string temporary_name()
{
    uint32_t number;
    if (getrandom(&number, sizeof number, 0) != sizeof number) throw system_failure();
    char digits[temporary_digits + 1];
    snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(number));
    return std::string(temporary_begin) + digits + std::string(temporary_end);
}

template <class Call>
void repeat_while_interrupted(Call call)
{
    while (call() != 0)
        if (errno != EINTR) throw system_failure();
}

} // namespace

descriptor::~descriptor()
{
    if (number_ < 0) return;
    const int error = errno;
    close(number_);
    errno = error;
}

struct stat status_of(int descriptor)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0) throw system_failure();
    return status;
}

descriptor open_at(int directory, const char *name, int flags)
{
    flags |= O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    int number = openat(directory, name, flags);
    if (number < 0 && errno == EPERM && (flags & O_NOATIME)) number = openat(directory, name, flags & ~O_NOATIME);
    return descriptor(number);
}

descriptor open_regular(int directory, const char *name, int flags)
{
    const dev_t device = status_of(directory).st_dev;
    const auto check = [device](const struct stat &status) {
        if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_dev != device) throw not_regular;
    };
    /* Opening a device can do something. So it is looked at first, and again once it is open. */
    struct stat seen;
    if (fstatat(directory, name, &seen, AT_SYMLINK_NOFOLLOW) != 0) throw system_failure();
    check(seen);
    descriptor file = open_at(directory, name, flags | O_NOFOLLOW);
    if (!file.is_open()) throw errno == ELOOP ? not_regular : system_failure();
    const struct stat opened = status_of(file);
    check(opened);
    if (identity_of(opened) != identity_of(seen)) throw has_changed();
    return file;
}

bool leads_to(int directory, const char *name, int file)
{
    struct stat named;
    return fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           identity_of(named) == identity_of(status_of(file));
}

lease claim(int file, int directory, const char *name)
{
    if (flock(file, LOCK_EX | LOCK_NB) != 0) throw errno == EWOULDBLOCK ? in_use : system_failure();
    /* Who waited for the lock may have been given a file that was replaced. */
    if (!leads_to(directory, name, file)) throw has_changed();

    /* A lease that is broken sends SIGIO, which would end the process; SIGURG is ignored by default. */
    if (fcntl(file, F_SETSIG, SIGURG) != 0) return lease::unknown;
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return lease::known;
    }
    if (errno == EAGAIN) throw in_use;
    return lease::unknown;
}

int64_t read_at(int file, uint64_t offset, void *to, size_t count)
{
    size_t got = 0;
    while (got < count && offset + got <= INT64_MAX) {
        const ssize_t n = pread(file, static_cast<char *>(to) + got, count - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && got == 0) return -1;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(got);
}

int write_at(int file, uint64_t offset, const void *from, size_t count)
{
    const char *next = static_cast<const char *>(from);
    while (count != 0) {
        const ssize_t n = pwrite(file, next, count, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) errno = ENOSPC;
        if (n <= 0) return -1;
        next += n;
        offset += static_cast<size_t>(n);
        count -= static_cast<size_t>(n);
    }
    return 0;
}

void sync_file(int file)
{
    repeat_while_interrupted([file] { return fsync(file); });
}

void sync_directory(int directory)
{
    repeat_while_interrupted(
        [directory] { return fsync(directory) == 0 || errno == EINVAL || errno == ENOTSUP ? 0 : -1; });
}

bool has_no_log(int file)
{
    struct statfs system;
    return fstatfs(file, &system) == 0 && (system.f_type == MSDOS_SUPER_MAGIC || system.f_type == exfat_magic);
}

bool may_flush_early(int file)
{
    struct statfs system;
    return fstatfs(file, &system) == 0 && static_cast<uint32_t>(system.f_type) == F2FS_SUPER_MAGIC; // signed on some
}

void set_modification_time(int file, const struct timespec &time)
{
    const struct timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, time};
    if (futimens(file, times) != 0) throw system_failure();
}

int remove_write_permission(int file)
{
    struct stat status;
    if (fstat(file, &status) != 0) return -1;
    if (!(status.st_mode & write_permissions)) return 0;
    return fchmod(file, status.st_mode & 07777 & ~write_permissions) == 0 ? fsync(file) : -1;
}

void set_size(int file, uint64_t size)
{
    repeat_while_interrupted([=] { return ftruncate(file, static_cast<off_t>(size)); });
}

int buffered_writer::write(const void *bytes, size_t count) noexcept
{
    try {
        if (buffer_.capacity() == 0) buffer_.reserve(buffered_at_once);
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    if (count > buffered_at_once - buffer_.size() && flush() != 0) return -1;
    if (count < buffered_at_once) {
        const auto *begin = static_cast<const uint8_t *>(bytes);
        buffer_.insert(buffer_.end(), begin, begin + count); // within the capacity
        return 0;
    }
    if (write_at(file_, offset_, bytes, count) != 0) return -1;
    offset_ += count;
    return 0;
}

int buffered_writer::flush() noexcept
{
    if (write_at(file_, offset_, buffer_.data(), buffer_.size()) != 0) return -1;
    offset_ += buffer_.size();
    buffer_.clear();
    return 0;
}

temporary_file::temporary_file(int directory, mode_t mode, permissions wanted) : directory_(directory)
{
    mode &= S_IRWXU | S_IRWXG | S_IRWXO;
    const mode_t at_first = wanted == permissions::exact ? S_IRUSR | S_IWUSR : mode;
    for (;;) {
        name_ = temporary_name();
        descriptor made(openat(directory, name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, at_first));
        if (!made.is_open() && errno == EEXIST) continue;
        if (!made.is_open()) throw system_failure();
        /* Before the lock it looked like one that is stale: another recovery may have removed it. */
        if (flock(made, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) continue;
        if (!leads_to(directory, name_.c_str(), made)) continue;
        file_ = std::move(made);
        break;
    }
    if (wanted == permissions::before_umask) return;
    /* File systems that know no permissions refuse some. */
    if (fchmod(file_, mode) != 0 && errno != EPERM) {
        const obstacle cause = system_failure();
        unlinkat(directory_, name_.c_str(), 0);
        throw cause;
    }
}

temporary_file::~temporary_file()
{
    const int error = errno;
    if (!name_.empty()) unlinkat(directory_, name_.c_str(), 0);
    errno = error;
}

void temporary_file::replace(const char *name)
{
    if (renameat(directory_, name_.c_str(), directory_, name) != 0) throw system_failure();
    name_.clear();
}

void temporary_file::name(const char *name)
{
    /* As a system call: not every C library has a function for it. */
    if (syscall(SYS_renameat2, directory_, name_.c_str(), directory_, name, RENAME_NOREPLACE) == 0) {
        name_.clear();
        return;
    }
    const bool unknown = errno == ENOSYS || errno == EINVAL;
    if (unknown && linkat(directory_, name_.c_str(), directory_, name, 0) == 0) return; // the temporary name goes
    if (errno == EEXIST) throw obstacle{MEDIAFILES_REFUSED, MEDIAFILES_REASON_EXISTS, EEXIST};
    throw system_failure();
}

void remove_stale_temporaries(int directory) noexcept
try {
    directory_reader names(directory);
    while (const dirent *entry = names.next()) {
        if (!is_temporary(entry->d_name)) continue;
        try {
            const descriptor file = open_regular(directory, entry->d_name, O_RDONLY);
            if (flock(file, LOCK_EX | LOCK_NB) == 0 && leads_to(directory, entry->d_name, file))
                unlinkat(directory, entry->d_name, 0);
        } catch (const obstacle &) { // it stays
        }
    }
} catch (const obstacle &) {       // all stay
} catch (const std::bad_alloc &) { // likewise
}

directory_reader::directory_reader(int directory, int flags)
{
    /* Opened anew: the names are read from the first one on. */
    descriptor opened = open_at(directory, ".", O_RDONLY | O_DIRECTORY | flags);
    stream_ = opened.is_open() ? fdopendir(opened) : nullptr;
    if (!stream_) throw system_failure();
    opened.release();
}

directory_reader::~directory_reader()
{
    closedir(stream_);
}

const dirent *directory_reader::next()
{
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(stream_);
        if (!entry && errno != 0) throw system_failure();
        if (!entry || (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)) return entry;
    }
}

} // namespace mediafiles::recovery
