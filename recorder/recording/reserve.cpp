#include "reserve.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace mediafiles::recorder {

namespace {

constexpr size_t written_at_once = 64 << 10;

int lengthen(int file, uint64_t from, uint64_t to)
{
    const std::vector<uint8_t> zeros(written_at_once);
    for (; from < to; from += written_at_once) {
        const auto some = static_cast<size_t>(std::min<uint64_t>(written_at_once, to - from));
        if (recovery::write_at(file, from, zeros.data(), some) != 0) return -1;
    }
    return 0;
}

} // namespace

uint64_t free_bytes(int file)
{
    struct statvfs room;
    return fstatvfs(file, &room) == 0 ? uint64_t{room.f_bavail} * room.f_frsize : UINT64_MAX;
}

uint64_t total_bytes(int file)
{
    struct statvfs room;
    return fstatvfs(file, &room) == 0 ? uint64_t{room.f_blocks} * room.f_frsize : 0;
}

int reserve::keep(int file, uint64_t size)
{
    if (size <= kept_) return 0;
    const uint64_t more = size - kept_;
    if (!is_refused_) {
        if (fallocate(file, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(kept_), static_cast<off_t>(more)) == 0) {
            kept_ = size;
            return 0;
        }
        if (errno == EINTR) return 0; // the next frame tries again
        if (is_want_of_room(errno)) return -1;
        is_refused_ = true;
    }
    if (free_bytes(file) < more) {
        errno = ENOSPC;
        return -1;
    }
    kept_ = size;
    return 0;
}

void spare_file::hold(int directory, uint64_t bytes)
{
    const std::lock_guard guard(lock_);
    if (bytes <= size_ || is_over_) return;
    try {
        if (!file_) file_.emplace(directory, S_IRUSR | S_IWUSR);
        if (lengthen(*file_, size_, bytes) == 0)
            size_ = bytes;
        else
            recovery::set_size(*file_, size_);
    } catch (const recovery::obstacle &) { // what is written next says why
    } catch (const std::bad_alloc &) {     // tried again at the next round
    }
}

bool spare_file::cut()
{
    const std::lock_guard guard(lock_);
    if (size_ == 0) return false;
    size_ = 0;
    return ftruncate(*file_, 0) == 0;
}

void spare_file::remove()
{
    const std::lock_guard guard(lock_);
    file_.reset();
    size_ = 0;
}

void spare_file::end()
{
    {
        const std::lock_guard guard(lock_);
        is_over_ = true;
    }
    remove();
}

int try_directory(int directory, uint64_t bytes)
{
    try {
        const recovery::temporary_file file(directory, S_IRUSR | S_IWUSR);
        reserve room;
        if (room.keep(file, bytes) != 0) return errno;
        const uint64_t written = room.is_refused() ? bytes : std::min<uint64_t>(bytes, written_at_once);
        return lengthen(file, 0, written) == 0 && fdatasync(file) == 0 ? 0 : errno;
    } catch (const recovery::obstacle &cause) {
        return cause.error;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

} // namespace mediafiles::recorder
