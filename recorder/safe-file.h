/**
 * Files in a directory that may be hostile, damaged, or in use.
 *
 * Whatever a name leads to, nothing is followed and nothing that exists is
 * overwritten: names are looked up in an open directory, links are refused, and
 * so is everything but a regular file with one link on the directory's device.
 */
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

#include <mediafiles/recovery.h>

namespace mediafiles::recovery {

/** What keeps a file from being recovered. Thrown; the C functions hand on its errno. */
struct obstacle {
    uint32_t result; // MEDIAFILES_FAILED, _REFUSED or _NOT_OURS
    uint32_t reason; // MEDIAFILES_REASON_
    int error;       // errno
};

/** A system call that failed, with its errno. */
inline obstacle system_failure(int error = errno)
{
    return {MEDIAFILES_FAILED, MEDIAFILES_REASON_SYSTEM, error};
}

inline obstacle has_changed()
{
    return {MEDIAFILES_FAILED, MEDIAFILES_REASON_CHANGED, ESTALE};
}

/** The body of a C function: 0, or -1 with errno. */
template <class Work>
int guarded(Work work)
{
    try {
        work();
        return 0;
    } catch (const obstacle &cause) {
        errno = cause.error;
    } catch (...) { // the standard library's exceptions that can occur here are all for want of memory
        errno = ENOMEM;
    }
    return -1;
}

class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int number) : number_(number) {}
    descriptor(descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
    descriptor &operator=(descriptor &&other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~descriptor();

    operator int() const { return number_; }
    bool is_open() const { return number_ >= 0; }
    int release() { return std::exchange(number_, -1); }

private:
    int number_ = -1;
};

/** What tells files apart. */
struct identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const identity &) const = default;
};

inline identity identity_of(const struct stat &status)
{
    return {status.st_dev, status.st_ino};
}

struct stat status_of(int descriptor);

/** openat with O_CLOEXEC and O_NONBLOCK; O_NOATIME counts where it is permitted only. */
descriptor open_at(int directory, const char *name, int flags);

/** Opens a regular file with one link on the directory's device. Anything else is MEDIAFILES_NOT_OURS. */
descriptor open_regular(int directory, const char *name, int flags);

/** Whether writers that do not lock could be looked for. */
enum class lease { known, unknown };

/**
 * Locks a file and makes sure that nobody writes it: else MEDIAFILES_REASON_IN_USE.
 * The descriptor must be open for reading only, and this process must not have the
 * file open for writing. The lock ends with the descriptor.
 */
lease claim(int file, int directory, const char *name);

/** pread until count bytes are there, or the end: as mediafiles_source wants it. */
int64_t read_at(int file, uint64_t offset, void *to, size_t count);
/** pwrite of all. @return 0, or -1 with errno */
int write_at(int file, uint64_t offset, const void *from, size_t count);

/** Whether a name in a directory is still that of an open file. */
bool leads_to(int directory, const char *name, int file);

void sync_file(int file);
/** Some file systems have nothing to sync in a directory. */
void sync_directory(int directory);

/**
 * Whether the file is on FAT or exFAT. They have no log, and what belongs together reaches the medium in a certain order:
 *
 * - A sync of a file writes its entry, and after that the table of clusters. Where the file has become longer, a power
 *   cut between the two leaves an entry that leads to clusters which are free, and the kernel makes the file system
 *   read-only when it meets one. So the table goes first: a sync of the directory writes it, and leaves out what the
 *   entry is to become. Where a file has become shorter, the order is right as it is.
 * - A name is not replaced at once: a cut can leave the old file's removed, and the new one's not yet there.
 */
bool has_no_log(int file);

/**
 * Whether the file is on f2fs. There a sync can flush the medium's cache while its own last block, which leads to the
 * others, is still on its way (Linux 6.1): a medium that carries out several commands at once has it in its cache then.
 * The next flush makes that safe as well.
 */
bool may_flush_early(int file);

void set_modification_time(int file, const struct timespec &time);
void set_size(int file, uint64_t size);

constexpr mode_t write_permissions = S_IWUSR | S_IWGRP | S_IWOTH;
/**
 * Takes away all write permissions (on FAT this is the read-only attribute) and syncs the file. Its data is to be on
 * the medium before: who finds it read-only must not have to repair it.
 *
 * @return 0; -1 with errno, also where the file system has no permissions
 */
int remove_write_permission(int file);

/** Collects what comes in small pieces into large writes. */
class buffered_writer {
public:
    buffered_writer(int file, uint64_t offset) : file_(file), offset_(offset) {}
    /** No exceptions: a plan calls it. @return 0, or -1 with errno */
    int write(const void *bytes, size_t count) noexcept;
    int flush() noexcept;

private:
    int file_;
    uint64_t offset_; // in the file, of the buffer's begin
    std::vector<uint8_t> buffer_;
};

/** A file under a name that nobody else uses, until it is complete. It is locked while in use. */
class temporary_file {
public:
    enum class permissions { exact, before_umask };
    temporary_file(int directory, mode_t mode, permissions = permissions::exact);
    /** Removes it, unless it got its name. */
    ~temporary_file();
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    operator int() const { return file_; }
    /** In place of the file of that name. */
    void replace(const char *name);
    /** As a new file; MEDIAFILES_REASON_EXISTS where there is one. */
    void name(const char *name);
    /** The open file, once it has its name. */
    descriptor take() { return std::move(file_); }

private:
    int directory_;
    std::string name_; // empty when it has its final one
    descriptor file_;
};

/**
 * Removes temporary files that a recovery left when it was killed; they do no harm where that fails. To be called last:
 * where a power cut has left one whose clusters are free, FAT and exFAT become read-only when it is removed.
 */
void remove_stale_temporaries(int directory) noexcept;

/** Names in a directory, "." and ".." left out. */
class directory_reader {
public:
    /** @param directory  stays the caller's */
    directory_reader(int directory, int flags = 0);
    ~directory_reader();
    directory_reader(const directory_reader &) = delete;
    directory_reader &operator=(const directory_reader &) = delete;

    /** nullptr after the last one. */
    const dirent *next();

private:
    DIR *stream_;
};

} // namespace mediafiles::recovery
