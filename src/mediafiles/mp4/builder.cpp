// The builder: a movie and the file that it is recorded into. file_stream is
// the state: while it is set, a file is open and the movie's record runs.

#include <cerrno>
#include <unistd.h>

#include <mediafiles/builder.h>
#include <mediafiles/movie.h>
#include <mediafiles/stream.h>

#include "mediafiles/mp4/layout.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

int add_track(mp4_builder *builder, const mp4_track_desc *desc)
{
    return mp4_movie_add_track(builder->movie, desc);
}

int open(mp4_builder *builder, int fd, uint32_t buffer_size, mediafile_caretaker *caretaker)
{
    if (builder->file_stream) return refuse(EBUSY);
    if (lseek(fd, 0, SEEK_SET) == -1 && errno != EOVERFLOW) return -1;

    mp4_stream *meta = builder->meta_stream;
    if (meta->clear(meta) != 0) return -1;
    if (compose_head(meta, builder->movie, &builder->mdat) != 0) return -1;
    owned_object<mp4_stream> file(mp4_file_stream_create(fd, buffer_size));
    if (!file) return -1;
    if (meta->copy_to(meta, file.get()) != 0) return -1;

    builder->file_stream = file.release();
    mp4_movie_begin_record(builder->movie, builder->file_stream, caretaker);
    return 0;
}

int close(mp4_builder *builder)
{
    // From here the file is closed in any case.
    owned_object<mp4_stream> file(builder->file_stream);
    if (!file) return 0;

    mp4_movie_finish_record(builder->movie);
    builder->file_stream = nullptr;
    const int error = builder->movie->error;
    const bool flushed = file->flush(file.get()) == 0;
    if (error != 0) return refuse(error);
    if (!flushed) return -1;

    if (write_tail(file.get(), builder->meta_stream, builder->movie, &builder->mdat) != 0) return -1;
    return file->flush(file.get()) != 0 ? -1 : 0;
}

int add_frame(mp4_builder *builder, const mp4_frame *frame)
{
    if (!builder->file_stream) return refuse(ESRCH);
    return mp4_movie_add_frame(builder->movie, frame);
}

int flush(mp4_builder *builder)
{
    mp4_stream *file = builder->file_stream;
    if (!file) return refuse(ESRCH);
    const bool caches_flushed = mp4_movie_flush_cache(builder->movie) == 0;
    const int error = errno;
    const bool flushed = file->flush(file) == 0;
    if (!caches_flushed) return refuse(error);
    return flushed ? 0 : -1;
}

void destroy_builder(mp4_builder *builder)
{
    if (builder->file_stream) builder->file_stream->destroy(builder->file_stream);
    if (builder->meta_stream) builder->meta_stream->destroy(builder->meta_stream);
    if (builder->movie) mp4_movie_destroy(builder->movie);
    free(builder);
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_builder *mp4_builder_create(void)
{
    owned_object<mp4_builder> builder(create<mp4_builder>(mp4_builder{
        .add_track = add_track,
        .open = mediafiles::open,
        .close = mediafiles::close,
        .add_frame = add_frame,
        .flush = flush,
        .destroy = destroy_builder,
        .movie = nullptr,
        .mdat = {},
        .meta_stream = nullptr,
        .file_stream = nullptr,
    }));
    if (!builder) return nullptr;
    if (!(builder->movie = mp4_movie_create())) return nullptr;
    if (!(builder->meta_stream = mp4_memory_stream_create())) return nullptr;
    return builder.release();
}
