/** Files in memory, and a limit that makes writes to them come out short. */
#pragma once

#include <csignal>
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

/** No file grows past so many bytes: a write stops there, and the next one fails with EFBIG. */
inline void limit_files(rlim_t size)
{
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}
