/** Files in memory, and a limit that makes writes to them come out short. */
#pragma once

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hex.h"

struct descriptor {
    int fd = memfd_create("test", MFD_CLOEXEC);
    ~descriptor() { close(fd); }
    operator int() const { return fd; }
};

/** All bytes of a file, whatever its offset. */
inline bytes file_content(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    bytes out(static_cast<size_t>(status.st_size));
    out.resize(static_cast<size_t>(pread(fd, out.data(), out.size(), 0)));
    return out;
}

inline void fill(int fd, const bytes &content)
{
    if (ftruncate(fd, 0) != 0 || pwrite(fd, content.data(), content.size(), 0) != ssize_t(content.size())) abort();
}
inline std::string path_of(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

/** Descriptors that the process has. */
inline auto open_descriptors()
{
    using iterator = std::filesystem::directory_iterator;
    return std::distance(iterator("/proc/self/fd"), iterator());
}

/** No file grows past so many bytes: a write stops there, and the next one fails with EFBIG. */
inline void limit_files(rlim_t size)
{
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}
