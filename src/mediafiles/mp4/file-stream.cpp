// The buffered file stream.
//
// The invariant: the cached bytes belong at the file offsets from
// position - used to position, and the descriptor's own offset is
// position - used. It holds after every failure as well, so that a later flush
// continues where the file ends.

#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <mediafiles/stream.h>
#include <mediafiles/support/io.h>

#include "mediafiles/mp4/gather.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

// Enough for the cache and a sample.
constexpr uint32_t usual_entries = 1 + sample_entries;
constexpr uint32_t largest_cache = 1u << 31;

struct file_stream : mp4_stream {
    int fd = -1;              // borrowed
    owned_memory buffer = {}; // capacity bytes
    uint32_t capacity = 0;    // a power of two, or 0 for no cache
    uint32_t used = 0;        // below capacity after a successful write
    uint32_t position = 0;    // bytes accepted
};

file_stream &self(mp4_stream *stream)
{
    return *static_cast<file_stream *>(stream);
}

// Removes the first n bytes of the cache, which have reached the descriptor.
void drop_front(file_stream &file, uint32_t n)
{
    file.used -= n;
    if (file.used > 0) memmove(file.buffer.get(), file.buffer.get() + n, file.used);
}

int write_out_cache(file_stream &file)
{
    if (file.used == 0) return 0;
    const ssize_t n = writen(file.fd, file.buffer.get(), file.used);
    if (n < 0) return -1;
    const uint32_t asked = file.used;
    const auto written = static_cast<uint64_t>(n);
    drop_front(file, written < asked ? static_cast<uint32_t>(written) : asked);
    return written == asked ? 0 : -1;
}

// The part of a list that a write leaves for the cache, from an entry on.
struct list_rest {
    const iovec *entry;
    uint32_t taken; // bytes of the entry that were written
};

// Adds the first `length` bytes of the list to the gather array.
bool push_front(gather_array<usual_entries> &gather, const mp4_gather_list *list, uint64_t length, list_rest *rest)
{
    const iovec *entry = list->iov;
    const iovec *const end = entry + list->iovcnt;
    for (; entry != end && entry->iov_len <= length; ++entry) {
        if (!gather.push(entry->iov_base, entry->iov_len)) return false;
        length -= entry->iov_len;
    }
    *rest = {entry, static_cast<uint32_t>(length)};
    return length == 0 || gather.push(entry->iov_base, static_cast<size_t>(length));
}

// Writes the cache and the new data, up to a multiple of the capacity, in one
// gather write; the tail of the data stays in the cache.
int write_through(file_stream &file, const mp4_gather_list *list)
{
    const uint64_t held = uint64_t{file.used} + list->length;
    const uint64_t out = held & ~uint64_t{file.capacity - 1};
    const auto tail = static_cast<uint32_t>(held - out);

    gather_array<usual_entries> gather;
    list_rest rest;
    if (file.used > 0 && !gather.push(file.buffer.get(), file.used)) return -1;
    if (!push_front(gather, list, out - file.used, &rest)) return -1;

    const ssize_t n = writevn(file.fd, gather.data(), gather.count());
    if (n < 0) return -1;
    const auto written = static_cast<uint64_t>(n);
    if (written >= file.used) {
        file.position += static_cast<uint32_t>(written - file.used);
        file.used = 0;
    } else {
        drop_front(file, static_cast<uint32_t>(written));
    }
    if (written != out) return -1;

    if (tail > 0) {
        memcpy_fromiovecend(file.buffer.get(), rest.entry, rest.taken, tail);
        file.used = tail;
        file.position += tail;
    }
    return 0;
}

int writev(mp4_stream *stream, const mp4_gather_list *list)
{
    file_stream &file = self(stream);
    if (file.capacity == 0) {
        gather_array<usual_entries> gather; // writevn may change its entries, the caller's stay
        if (!gather.push(list)) return -1;
        const ssize_t n = writevn(file.fd, gather.data(), gather.count());
        if (n < 0) return -1;
        file.position += static_cast<uint32_t>(n);
        return static_cast<uint64_t>(n) == list->length ? 0 : -1;
    }
    if (file.capacity > uint64_t{file.used} + list->length) {
        memcpy_fromiovecend(file.buffer.get() + file.used, list->iov, list->offset, list->length);
        file.used += list->length;
        file.position += list->length;
        return 0;
    }
    return write_through(file, list);
}

int write(mp4_stream *stream, const void *data, uint32_t length)
{
    file_stream &file = self(stream);
    if (file.capacity == 0) {
        const ssize_t n = writen(file.fd, data, length);
        if (n < 0) return -1;
        file.position += static_cast<uint32_t>(n);
        return static_cast<uint64_t>(n) == length ? 0 : -1;
    }
    return writev(stream, one_buffer(data, length).list());
}

int copy_to(mp4_stream *, mp4_stream *)
{
    return refuse(ENOSYS);
}

int flush(mp4_stream *stream)
{
    file_stream &file = self(stream);
    if (write_out_cache(file) != 0) {
        errno_saver keep;
        posix_fadvise(file.fd, 0, 0, POSIX_FADV_DONTNEED);
        return -1;
    }
    // posix_fadvise returns its error and does not set errno. It fails the
    // flush only when errno was set before.
    return posix_fadvise(file.fd, 0, 0, POSIX_FADV_DONTNEED) != 0 && errno != 0 ? -1 : 0;
}

int clear(mp4_stream *)
{
    return refuse(ENOSYS);
}

uint32_t tell(mp4_stream *stream)
{
    return self(stream).position;
}

int seek(mp4_stream *stream, uint32_t position)
{
    file_stream &file = self(stream);
    if (write_out_cache(file) != 0) return -1;
    // A 32-bit position always fits into the file offset: EOVERFLOW concerns
    // only the result, and the descriptor has moved.
    if (lseek(file.fd, static_cast<off_t>(uint64_t{position}), SEEK_SET) == -1 && errno != EOVERFLOW) return -1;
    file.position = position;
    return 0;
}

void destroy_stream(mp4_stream *stream)
{
    destroy(static_cast<file_stream *>(stream));
}

constexpr mp4_stream operations = {
    .write = write,
    .writev = writev,
    .copy_to = copy_to,
    .flush = flush,
    .clear = clear,
    .tell = tell,
    .seek = seek,
    .destroy = destroy_stream,
};

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_stream *mp4_file_stream_create(int fd, uint32_t cache_size)
{
    if (cache_size > largest_cache) {
        errno = ENOMEM;
        return nullptr;
    }
    owned_object<file_stream> stream(create<file_stream>(operations));
    if (!stream) return nullptr;
    stream->fd = fd;
    if (cache_size > 0) {
        stream->capacity = std::bit_ceil(cache_size);
        stream->buffer.reset(static_cast<uint8_t *>(malloc(stream->capacity)));
        if (!stream->buffer) return nullptr;
    }
    return stream.release();
}
