/** Files in memory, and a limit that makes writes to them come out short. */
#pragma once

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <span>
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

inline uint64_t file_size(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    return static_cast<uint64_t>(status.st_size);
}

/** Bytes of a file, whatever its offset: all, or those of a place as far as they are there. */
inline bytes file_content(int fd, uint64_t at = 0, size_t most = SIZE_MAX)
{
    const uint64_t size = file_size(fd);
    bytes out(static_cast<size_t>(std::min<uint64_t>(most, size - std::min(at, size))));
    out.resize(static_cast<size_t>(pread(fd, out.data(), out.size(), static_cast<off_t>(at))));
    return out;
}

inline void fill(int fd, std::span<const uint8_t> content)
{
    if (ftruncate(fd, 0) != 0 || pwrite(fd, content.data(), content.size(), 0) != ssize_t(content.size())) abort();
}
inline const auto path_of = [](int fd) { return "/proc/self/fd/" + std::to_string(fd); };

/** The lowest descriptor that is free: the same again when none was left open meanwhile. */
inline int free_descriptor()
{
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

/** While it lives, descriptor 0 is free. */
struct without_stdin {
    const int kept = dup(STDIN_FILENO);
    without_stdin() { close(STDIN_FILENO); }
    ~without_stdin() { dup2(kept, STDIN_FILENO), close(kept); }
};

/** No file grows past so many bytes: a write stops there, and the next one fails with EFBIG. */
inline void limit_files(rlim_t size)
{
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) abort();
}

/** The library's own lines of output go nowhere. */
struct silence {
    silence() { turn(nowhere); }
    ~silence() { turn(terminal); }

private:
    static inline const int terminal = dup(1), nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static void turn(int to)
    {
        fflush(stdout);
        dup2(to, 1);
    }
};
