// Full-length transfers. A short result is the number of bytes before a
// failure, and -1 means that the first byte failed, so that a caller always
// knows what reached the descriptor.

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

#include <mediafiles/support/io.h>

namespace {

constexpr int most_entries = IOV_MAX;

// Result of a transfer that failed after `done` bytes.
ssize_t cut_short(size_t done)
{
    return done ? static_cast<ssize_t>(done) : -1;
}

// A write that takes no byte would be repeated for ever.
ssize_t progress(ssize_t n)
{
    if (n != 0) return n;
    errno = EIO;
    return -1;
}

} // namespace

[[gnu::weak]] ssize_t writen(int fd, const void *buf, size_t n)
{
    const auto *next = static_cast<const uint8_t *>(buf);
    size_t done = 0;
    while (done < n) {
        const ssize_t written = progress(write(fd, next + done, n - done));
        if (written > 0)
            done += static_cast<size_t>(written);
        else if (errno != EINTR)
            return cut_short(done);
    }
    return static_cast<ssize_t>(done);
}

[[gnu::weak]] ssize_t readn(int fd, void *buf, size_t n)
{
    auto *next = static_cast<uint8_t *>(buf);
    size_t done = 0;
    while (done < n) {
        const ssize_t got = read(fd, next + done, n - done);
        if (got == 0) break;
        if (got > 0)
            done += static_cast<size_t>(got);
        else if (errno != EINTR)
            return -1;
    }
    return static_cast<ssize_t>(done);
}

[[gnu::weak]] ssize_t writevn(int fd, struct iovec *iov, int iovcnt)
{
    size_t done = 0;
    for (;;) {
        while (iovcnt > 0 && iov->iov_len == 0) ++iov, --iovcnt;
        if (iovcnt <= 0) return static_cast<ssize_t>(done);

        const ssize_t written = progress(writev(fd, iov, iovcnt < most_entries ? iovcnt : most_entries));
        if (written < 0) {
            if (errno == EINTR) continue;
            return cut_short(done);
        }
        done += static_cast<size_t>(written);
        for (auto left = static_cast<size_t>(written); left > 0;) {
            const size_t taken = left < iov->iov_len ? left : iov->iov_len;
            iov->iov_base = static_cast<uint8_t *>(iov->iov_base) + taken;
            iov->iov_len -= taken;
            left -= taken;
            if (iov->iov_len == 0) ++iov, --iovcnt;
        }
    }
}

[[gnu::weak]] void memcpy_fromiovec(void *dst, const struct iovec *iov, uint32_t len)
{
    auto *next = static_cast<uint8_t *>(dst);
    for (; len > 0; ++iov) {
        const auto n = static_cast<uint32_t>(len < iov->iov_len ? len : iov->iov_len);
        if (n > 0) memcpy(next, iov->iov_base, n);
        next += n;
        len -= n;
    }
}

[[gnu::weak]] void memcpy_fromiovecend(void *dst, const struct iovec *iov, uint32_t offset, uint32_t len)
{
    if (len == 0) return;
    while (offset >= iov->iov_len) offset -= static_cast<uint32_t>((iov++)->iov_len);
    auto *next = static_cast<uint8_t *>(dst);
    for (; len > 0; ++iov, offset = 0) {
        const size_t there = iov->iov_len - offset;
        const auto n = static_cast<uint32_t>(len < there ? len : there);
        if (n > 0) memcpy(next, static_cast<const uint8_t *>(iov->iov_base) + offset, n);
        next += n;
        len -= n;
    }
}
