// The null stream: it reads nothing and writes nothing, but its position moves
// as that of a file.

#include <cerrno>

#include <mediafiles/stream.h>

#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

struct null_stream : mp4_stream {
    uint32_t position = 0;
};

uint32_t &position(mp4_stream *stream)
{
    return static_cast<null_stream *>(stream)->position;
}

int write(mp4_stream *stream, const void *, uint32_t length)
{
    position(stream) += length;
    return 0;
}

int writev(mp4_stream *stream, const mp4_gather_list *list)
{
    position(stream) += list->length;
    return 0;
}

int copy_to(mp4_stream *, mp4_stream *)
{
    return refuse(ENOSYS);
}

int flush(mp4_stream *)
{
    return 0;
}

int clear(mp4_stream *stream)
{
    position(stream) = 0;
    return 0;
}

uint32_t tell(mp4_stream *stream)
{
    return position(stream);
}

int seek(mp4_stream *stream, uint32_t to)
{
    position(stream) = to;
    return 0;
}

void destroy_stream(mp4_stream *stream)
{
    destroy(static_cast<null_stream *>(stream));
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

mp4_stream *mp4_null_stream_create(void)
{
    return create<null_stream>(operations);
}
