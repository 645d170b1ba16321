#include "movie-tail.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <mediafiles/atom.h>

#include "codec.h"

namespace mediafiles::recovery {
namespace {

constexpr uint32_t largest_set = 65535; // NAL unit lengths in avcC and hvcC have 16 bits
constexpr uint32_t collected = 64u << 10;

int write_header(mp4_movie *movie, mp4_stream *stream)
{
    mp4_atom moov = {mp4_atom_moov_write, {'m', 'o', 'o', 'v'}, 0, movie, nullptr};
    return mp4_atom_write(&moov, stream);
}

} // namespace

// A stream that is written from its beginning to its end, but for the sizes of boxes, which are patched into bytes
// written earlier. The first pass, without a sink, notes these patches. The second one writes the patched bytes at
// once and passes the patches over.
struct movie_tail::layout : mp4_stream {
    layout(patch *to, uint32_t *count, mediafiles_sink out, void *out_context)
        : mp4_stream(operations()), patches(to), patch_count(count), sink(out), context(out_context)
    {
    }
    ~layout() { free(buffer); }

    patch *patches;
    uint32_t *patch_count;
    mediafiles_sink sink;
    void *context;
    uint32_t position = 0;
    uint32_t end = 0;
    uint8_t *buffer = nullptr; // what was collected for the sink
    uint32_t length = 0;

    static layout &self(mp4_stream *stream) { return *static_cast<layout *>(stream); }

    static int refuse(int error)
    {
        errno = error;
        return -1;
    }

    int flush_collected()
    {
        const uint32_t count = length;
        length = 0;
        return !sink || count == 0 || sink(context, buffer, count) == 0 ? 0 : -1;
    }

    int hand_out(const void *bytes, uint32_t count)
    {
        if (!sink) return 0;
        if (!buffer && !(buffer = static_cast<uint8_t *>(malloc(collected)))) return -1;
        if (count > collected - length && flush_collected() != 0) return -1;
        if (count > collected) return sink(context, bytes, count) == 0 ? 0 : -1;
        memcpy(buffer + length, bytes, count);
        length += count;
        return 0;
    }

    // A size that follows the last one: descriptors write theirs byte by byte.
    int add_patch(const void *bytes, uint32_t count)
    {
        const bool follows = *patch_count != 0 && patches[*patch_count - 1].ends_at(position) &&
                             patches[*patch_count - 1].length + count <= sizeof patches->bytes;
        if (!follows) {
            if (*patch_count == most_patches || count > sizeof patches->bytes) return refuse(EINVAL);
            patches[(*patch_count)++] = {position, 0, {}};
        }
        patch *last = &patches[*patch_count - 1];
        memcpy(last->bytes + last->length, bytes, count);
        last->length += count;
        return 0;
    }

    // The bytes there once all sizes are known. Only short writes make room for a size.
    const void *patched(const void *bytes, uint32_t count, uint8_t (&copy)[4]) const
    {
        if (count > sizeof copy) return bytes;
        memcpy(copy, bytes, count);
        for (uint32_t i = 0; i < *patch_count; ++i)
            for (uint32_t byte = 0; byte < patches[i].length; ++byte) {
                const uint32_t at = patches[i].position + byte;
                if (at >= position && at - position < count) copy[at - position] = patches[i].bytes[byte];
            }
        return copy;
    }

    int write_bytes(const void *bytes, uint32_t count)
    {
        if (position == end) {
            uint8_t copy[4];
            if (count > UINT32_MAX - end) return refuse(EFBIG);
            if (hand_out(patched(bytes, count, copy), count) != 0) return -1;
            end += count;
        } else if (!sink && add_patch(bytes, count) != 0) {
            return -1;
        }
        position += count;
        return 0;
    }

    static int write(mp4_stream *stream, const void *bytes, uint32_t count)
    {
        return self(stream).write_bytes(bytes, count);
    }
    static int writev(mp4_stream *stream, const mp4_gather_list *list)
    {
        for (int32_t i = 0; i < list->iovcnt; ++i)
            if (write(stream, list->iov[i].iov_base, static_cast<uint32_t>(list->iov[i].iov_len)) != 0) return -1;
        return 0;
    }
    static int copy_to(mp4_stream *, mp4_stream *) { return refuse(ENOSYS); }
    static int nothing(mp4_stream *) { return 0; }
    static uint32_t tell(mp4_stream *stream) { return self(stream).position; }
    static int seek(mp4_stream *stream, uint32_t to)
    {
        self(stream).position = to;
        return 0;
    }
    static void keep(mp4_stream *) {}

    static mp4_stream operations()
    {
        return {.write = write,
                .writev = writev,
                .copy_to = copy_to,
                .flush = nothing,
                .clear = nothing,
                .tell = tell,
                .seek = seek,
                .destroy = keep};
    }
};

int movie_tail::replay(journal_scan &journal, uint64_t samples, const mediafiles_source &media)
{
    info_ = {};
    patch_count_ = 0;
    for (sample &each : first_) each = {};
    movie_.reset();
    media_.reset(mp4_null_stream_create());
    movie_.reset(mp4_movie_create());
    if (!media_ || !movie_) return ENOMEM;
    media_->seek(media_.get(), media_begin);
    mp4_movie_begin_record(movie_.get(), media_.get(), nullptr);

    journal.rewind();
    record next;
    while (journal.samples < samples && journal.next(next))
        if (replay_record(next) != 0) return errno;
    if (take_missing_sets(journal, media) != 0) return errno;
    return finish();
}

int movie_tail::replay_record(const record &next)
{
    const uint8_t track = next.header.track;
    switch (next.header.kind) {
    case MEMENTO_TRACK:
        return add_track(next);
    case MEMENTO_SAMPLE:
        return add_sample(next.as_sample());
    case MEMENTO_VPS:
    case MEMENTO_SPS:
    case MEMENTO_PPS:
        return give_parameter_set(movie_.get(), track, next.header.kind, next.payload, next.header.length);
    default:
        return 0;
    }
}

int movie_tail::add_track(const record &next)
{
    mp4_track_desc desc = next.as_track();
    const mp4_track_desc given = desc;
    desc.type |= MP4_TRACK_RAW;
    const int index = mp4_movie_add_track(movie_.get(), &desc);
    if (index < 0) return -1;
    info_.tracks[index].desc = given;
    return 0;
}

int movie_tail::add_sample(const sample &next)
{
    const mp4_frame frame = {
        next.track, nullptr, next.size, {next.seconds, static_cast<int32_t>(next.nanoseconds)}, next.key};
    if (mp4_movie_add_frame(movie_.get(), &frame) != 0) return -1;
    if (first_[next.track].size == 0) first_[next.track] = next;
    ++info_.tracks[next.track].frameCount;
    return 0;
}

int movie_tail::take_missing_sets(const journal_scan &journal, const mediafiles_source &media)
{
    struct search {
        movie_tail &tail;
        const journal_scan &journal;
        const mediafiles_source &media;
        uint32_t track;
        int result;
    };
    const unit_visitor take = [](void *context, uint8_t type, uint64_t offset, uint32_t length) {
        auto &search = *static_cast<struct search *>(context);
        const uint8_t kind = codec_of(search.journal.track[search.track].type)->set_kind(type);
        if (kind == no_set || length > largest_set) return true;
        if (search.journal.sets[search.track][kind - MEMENTO_VPS].length != 0) return true;
        const std::unique_ptr<uint8_t, decltype(&free)> unit(static_cast<uint8_t *>(malloc(length)), free);
        if (!unit) return search.result = -1, false;
        if (!read_all(search.media, offset, unit.get(), length)) return true;
        search.result = give_parameter_set(search.tail.movie_.get(), search.track, kind, unit.get(), length);
        return search.result == 0;
    };
    for (uint32_t track = 0; track < journal.tracks; ++track) {
        const mp4_track_desc &desc = journal.track[track];
        const stored_set *sets = journal.sets[track];
        const bool complete = sets[MEMENTO_SPS - MEMENTO_VPS].length != 0 &&
                              sets[MEMENTO_PPS - MEMENTO_VPS].length != 0 &&
                              (codec_of(desc.type)->unit_header == 1 || sets[0].length != 0);
        if (!is_video(desc) || complete || first_[track].size == 0) continue;
        search found = {*this, journal, media, track, 0};
        walk_units(media, first_[track], desc.type, take, &found);
        if (found.result != 0) return -1;
    }
    return 0;
}

int movie_tail::finish()
{
    mp4_movie *movie = movie_.get();
    mp4_movie_finish_record(movie);
    if (movie->error != 0) return movie->error;
    layout first_pass(patches_, &patch_count_, nullptr, nullptr);
    if (write_header(movie, &first_pass) != 0) return errno;
    size_ = first_pass.end;

    mp4_movie_timespan(movie, &info_.timespan);
    info_.trackCount = movie->next_track_id - 1;
    for (uint32_t i = 0; i < info_.trackCount; ++i)
        mp4_movie_track_timespan(movie, movie->tracks[i], &info_.tracks[i].timespan);
    const uint64_t file_size = media_->tell(media_.get()) + size_;
    if (file_size > UINT32_MAX) return EFBIG;
    info_.fileSize = static_cast<uint32_t>(file_size);
    return 0;
}

int movie_tail::write(mediafiles_sink sink, void *context) const
{
    uint32_t count = patch_count_;
    layout second_pass(const_cast<patch *>(patches_), &count, sink, context);
    if (write_header(movie_.get(), &second_pass) != 0) return -1;
    return second_pass.flush_collected();
}

} // namespace mediafiles::recovery
