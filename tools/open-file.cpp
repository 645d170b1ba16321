#include "tools/open-file.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/support/io.h>

#include "tools/failure.h"

namespace tools {

open_file::open_file(const char *purpose, int descriptor, std::string path)
    : purpose_(purpose), path_(std::move(path)), descriptor_(descriptor)
{
    if (descriptor_ < 0) throw failure(purpose_, path_, errno);
}

open_file::open_file(const char *purpose, const std::string &path, int flags, mode_t mode)
    : open_file(purpose, open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, mode), path)
{
}

open_file::~open_file()
{
    close(descriptor_);
}

uint64_t open_file::size() const
{
    struct stat status;
    if (fstat(descriptor_, &status) != 0) throw failure(purpose_, path_, errno);
    if (!S_ISREG(status.st_mode)) throw failure(purpose_, path_, "it is not a regular file");
    return static_cast<uint64_t>(status.st_size);
}

bool open_file::is_locked() const
{
    if (flock(descriptor_, LOCK_SH | LOCK_NB) != 0) return errno == EWOULDBLOCK;
    flock(descriptor_, LOCK_UN);
    return false;
}

bool open_file::read(uint64_t offset, std::span<uint8_t> to) const
{
    size_t got = 0;
    while (got < to.size()) {
        const int64_t n = read_some(offset + got, to.subspan(got));
        if (n < 0) throw failure("cannot read", path_, errno);
        if (n == 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

int64_t open_file::read_some(uint64_t offset, std::span<uint8_t> to) const
{
    ssize_t n;
    do n = pread(descriptor_, to.data(), to.size(), static_cast<off_t>(offset));
    while (n < 0 && errno == EINTR);
    return n;
}

} // namespace tools
