// moov and its children at the movie level.

#include <mediafiles/atom.h>
#include <mediafiles/movie.h>
#include <mediafiles/stream.h>
#include <mediafiles/track.h>

#include "mediafiles/mp4/box-body.h"
#include "mediafiles/mp4/box-tree.h"
#include "mediafiles/mp4/descriptor-tree.h"
#include "mediafiles/mp4/matrix.h"

namespace mediafiles {
namespace {

constexpr child_box moov[] = {
    {"mvhd", mp4_atom_mvhd_write},
    {"iods", mp4_atom_iods_write},
};

constexpr uint32_t movie_timescale = 1000;

constexpr box_body<112> mvhd_body(uint64_t duration, uint32_t next_track_id)
{
    box_body<112> body(version_for(duration), 0);
    body.time(0) // creation_time
        .time(0) // modification_time
        .u32(movie_timescale)
        .time(duration)
        .u32(0x00010000) // rate
        .u16(0x0100)     // volume
        .zeros(10);      // reserved
    unity_matrix(body)
        .zeros(24) // pre_defined
        .u32(next_track_id);
    return body;
}
static_assert(mvhd_body(0x7FFFFFFF, 1).size() == 100);
static_assert(mvhd_body(0x80000000, 1).size() == 112);

constexpr uint32_t initial_object_tag = 0x10; // MP4_IOD_Tag, ISO/IEC 14496-14, 3.1
constexpr uint32_t es_id_inc_tag = 0x0E;

// The number of tracks in the slots, from the first on.
std::span<mp4_track *const> tracks_of(const mp4_movie *movie)
{
    uint32_t n = 0;
    while (n < movie->next_track_id - 1 && movie->tracks[n]) ++n;
    return {movie->tracks, n};
}

descriptor_ptr initial_object_descriptor(const mp4_movie *movie)
{
    box_body<7> body;
    body.u16(0x004F) // ObjectDescriptorID 1, no URL, no inlined profiles, reserved bits set
        .u8(0xFF)    // OD profile: none required
        .u8(0xFF)    // scene profile: none required
        .u8(0x0F)    // audio profile
        .u8(0x03)    // visual profile
        .u8(0xFF);   // graphics profile: none required
    auto root = make_descriptor(initial_object_tag, body);
    if (!root) return nullptr;
    for (const mp4_track *track : tracks_of(movie)) {
        if (!(track->media_kind & (MP4_MEDIA_VIDEO | MP4_MEDIA_AUDIO))) continue;
        auto child = make_descriptor(es_id_inc_tag, box_body<4>().u32(track->id));
        if (!child) return nullptr;
        mp4_descriptor_append(root.get(), child.release());
    }
    return root;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int mp4_atom_moov_write(mp4_atom *atom, mp4_stream *stream)
{
    mp4_atom movie_level = *atom;
    movie_level.track = nullptr;
    if (write_children(&movie_level, stream, moov) != 0) return -1;
    for (mp4_track *track : tracks_of(atom->movie))
        if (write_box(stream, "trak", mp4_atom_trak_write, atom->movie, track) != 0) return -1;
    return 0;
}

int mp4_atom_mvhd_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_body(stream, mvhd_body(mp4_movie_duration(atom->movie), atom->movie->next_track_id));
}

int mp4_atom_iods_write(mp4_atom *atom, mp4_stream *stream)
{
    const descriptor_ptr root = initial_object_descriptor(atom->movie);
    if (!root) return -1;
    if (write_body(stream, box_body<4>(0, 0)) != 0) return -1;
    return mp4_descriptor_write_to_stream(root.get(), stream);
}
