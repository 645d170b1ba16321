// The memory stream: bytes in a growing array whose cursor is the position.

#include <cstring>

#include <mediafiles/stream.h>
#include <mediafiles/support/array-stream.h>

#include "mediafiles/mp4/gather.h"
#include "mediafiles/ownership.h"

namespace mediafiles {
namespace {

constexpr uint32_t reserved_bytes = 8192;
constexpr uint32_t usual_runs = 32;

struct memory_stream : mp4_stream {
    owned<array_stream, array_stream_destroy> array = nullptr; // element size 1
};

array_stream *bytes(mp4_stream *stream)
{
    return static_cast<memory_stream *>(stream)->array.get();
}

int writev(mp4_stream *stream, const mp4_gather_list *list)
{
    array_stream *array = bytes(stream);
    for (int32_t i = 0; i < list->iovcnt; ++i) {
        const auto *from = static_cast<const uint8_t *>(list->iov[i].iov_base);
        auto remaining = static_cast<uint32_t>(list->iov[i].iov_len);
        while (remaining > 0) {
            uint32_t n = remaining;
            void *to = array_stream_write(array, &n);
            if (!to) return -1;
            memcpy(to, from, n);
            from += n;
            remaining -= n;
        }
    }
    return 0;
}

int write(mp4_stream *stream, const void *data, uint32_t length)
{
    return writev(stream, one_buffer(data, length).list());
}

int copy_runs(array_stream *array, mp4_stream *other)
{
    gather_array<usual_runs> runs;
    uint32_t n = 0;
    while (const void *run = array_stream_read(array, &n))
        if (!runs.push(run, n)) return -1;
    if (runs.count() == 0) return 0;

    const mp4_gather_list list = {runs.data(), runs.count(), 0, array_stream_length(array)};
    return other->writev(other, &list) ? -1 : 0;
}

int copy_to(mp4_stream *stream, mp4_stream *other)
{
    array_stream *array = bytes(stream);
    const uint32_t position = array_stream_seek(array, 0, 1);
    array_stream_seek(array, 0, 0);
    const int result = copy_runs(array, other);
    array_stream_seek(array, position, 0);
    return result;
}

int flush(mp4_stream *)
{
    return 0;
}

int clear(mp4_stream *stream)
{
    array_stream_clear(bytes(stream));
    return 0;
}

uint32_t tell(mp4_stream *stream)
{
    return array_stream_seek(bytes(stream), 0, 1);
}

int seek(mp4_stream *stream, uint32_t position)
{
    array_stream_seek(bytes(stream), position, 0);
    return 0;
}

void destroy_stream(mp4_stream *stream)
{
    destroy(static_cast<memory_stream *>(stream));
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

mp4_stream *mp4_memory_stream_create(void)
{
    owned_object<memory_stream> stream(create<memory_stream>(operations));
    if (!stream) return nullptr;
    stream->array.reset(array_stream_create(1, reserved_bytes));
    return stream->array ? stream.release() : nullptr;
}
