// The trak subtree, except the sample tables and the codec's sample entry.
//
// There are two timescales: tkhd and elst count milliseconds, the movie's
// timescale; mdhd counts ticks of the track's timescale.

#include <cerrno>

#include <mediafiles/atom.h>
#include <mediafiles/movie.h>
#include <mediafiles/stream.h>
#include <mediafiles/track.h>

#include "mediafiles/mp4/box-body.h"
#include "mediafiles/mp4/box-tree.h"
#include "mediafiles/mp4/matrix.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

bool is_video(const mp4_track &track)
{
    return track.media_kind & MP4_MEDIA_VIDEO;
}

bool is_audio(const mp4_track &track)
{
    return !is_video(track) && (track.media_kind & MP4_MEDIA_AUDIO);
}

bool is_other(const mp4_track &track)
{
    return !is_video(track) && !is_audio(track);
}

bool starts_late(const mp4_track &track)
{
    return track.delay != 0;
}

bool has_samples(const mp4_track &track)
{
    return track.sample_count != 0;
}

bool some_are_not_sync(const mp4_track &track)
{
    return !(track.flags & MP4_TRACK_ALL_SYNC);
}

constexpr child_box trak[] = {
    {"tkhd", mp4_atom_tkhd_write},
    {"edts", mp4_atom_edts_write, starts_late},
    {"mdia", mp4_atom_mdia_write},
};

constexpr child_box edts[] = {
    {"elst", mp4_atom_elst_write},
};

constexpr child_box mdia[] = {
    {"mdhd", mp4_atom_mdhd_write},
    {"hdlr", mp4_atom_hdlr_write},
    {"minf", mp4_atom_minf_write},
};

constexpr child_box minf[] = {
    {"vmhd", mp4_atom_vmhd_write, is_video}, {"smhd", mp4_atom_smhd_write, is_audio},
    {"nmhd", mp4_atom_nmhd_write, is_other}, {"dinf", mp4_atom_dinf_write},
    {"stbl", mp4_atom_stbl_write},
};

constexpr child_box dinf[] = {
    {"dref", mp4_atom_dref_write},
};

constexpr child_box dref[] = {
    {"url ", mp4_atom_url_write},
};

constexpr child_box stbl[] = {
    {"stsd", mp4_atom_stsd_write},
    {"stts", mp4_atom_stts_write, has_samples},
    {"stco", mp4_atom_stco_write, has_samples},
    {"stss", mp4_atom_stss_write, some_are_not_sync},
    {"stsc", mp4_atom_stsc_write},
    {"stsz", mp4_atom_stsz_write},
};

constexpr uint32_t enabled_in_movie_in_preview = 7;
constexpr uint32_t rate_one = 0x00010000;
constexpr uint32_t full_volume = 0x0100;
constexpr uint64_t empty_edit = UINT64_MAX; // media_time -1

constexpr uint16_t language_code(const char (&letters)[4])
{
    return static_cast<uint16_t>((letters[0] - 0x60) << 10 | (letters[1] - 0x60) << 5 | (letters[2] - 0x60));
}
static_assert(language_code("eng") == 0x15C7);

constexpr box_body<96> tkhd_body(uint32_t id, uint64_t duration, bool audible, uint16_t width, uint16_t height)
{
    box_body<96> body(version_for(duration), enabled_in_movie_in_preview);
    body.time(0) // creation_time
        .time(0) // modification_time
        .u32(id)
        .u32(0) // reserved
        .time(duration)
        .zeros(8) // reserved
        .u16(0)   // layer
        .u16(0)   // alternate_group
        .u16(audible ? full_volume : 0)
        .u16(0); // reserved
    unity_matrix(body)
        .u16(width) // 16.16
        .u16(0)
        .u16(height)
        .u16(0);
    return body;
}
static_assert(tkhd_body(1, 0x7FFFFFFF, false, 0, 0).size() == 84);
static_assert(tkhd_body(1, 0x80000000, false, 0, 0).size() == 96);

// An empty edit of `delay`, then the media for `span`.
constexpr box_body<48> elst_body(uint64_t delay, uint64_t span)
{
    box_body<48> body(version_for(delay > span ? delay : span), 0);
    body.u32(2) // entry_count
        .time(delay)
        .time(empty_edit)
        .u32(rate_one)
        .time(span)
        .time(0) // media_time
        .u32(rate_one);
    return body;
}
static_assert(elst_body(0, 0x7FFFFFFF).size() == 32);
static_assert(elst_body(0x80000000, 0).size() == 48);

constexpr box_body<36> mdhd_body(uint32_t timescale, uint64_t duration)
{
    box_body<36> body(version_for(duration), 0);
    body.time(0) // creation_time
        .time(0) // modification_time
        .u32(timescale)
        .time(duration)
        .u16(language_code("eng"))
        .u16(0); // pre_defined
    return body;
}
static_assert(mdhd_body(90000, 0x7FFFFFFF).size() == 24);
static_assert(mdhd_body(90000, 0x80000000).size() == 36);

constexpr box_body<25> hdlr_body(fourcc component, fourcc handler)
{
    box_body<25> body(0, 0);
    body.text(component) // pre_defined
        .text(handler)
        .zeros(12) // reserved
        .u8(0);    // name: empty
    return body;
}
static_assert(hdlr_body("mhlr", "vide").size() == 25);

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int mp4_atom_trak_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, trak);
}

int mp4_atom_tkhd_write(mp4_atom *atom, mp4_stream *stream)
{
    const mp4_track *track = atom->track;
    const bool video = track->media_kind & MP4_MEDIA_VIDEO;
    const bool audible = track->media_kind & MP4_MEDIA_AUDIO;
    return write_body(stream, tkhd_body(track->id, mp4_movie_track_duration(atom->movie, atom->track), audible,
                                        video ? track->video.width : 0, video ? track->video.height : 0));
}

int mp4_atom_edts_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, edts);
}

int mp4_atom_elst_write(mp4_atom *atom, mp4_stream *stream)
{
    const uint64_t delay = mp4_movie_track_delay_duration(atom->movie, atom->track);
    return write_body(stream, elst_body(delay, mp4_movie_track_duration(atom->movie, atom->track) - delay));
}

int mp4_atom_mdia_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, mdia);
}

int mp4_atom_mdhd_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_body(stream, mdhd_body(atom->track->timescale, atom->track->delay + atom->track->duration));
}

int mp4_atom_hdlr_write(mp4_atom *atom, mp4_stream *stream)
{
    const mp4_track &track = *atom->track;
    if (is_video(track)) return write_body(stream, hdlr_body("mhlr", "vide"));
    if (is_audio(track)) return write_body(stream, hdlr_body("mhlr", "soun"));
    return write_body(stream, hdlr_body("dhlr", "    "));
}

int mp4_atom_minf_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, minf);
}

int mp4_atom_vmhd_write(mp4_atom *, mp4_stream *stream)
{
    return write_body(stream, box_body<12>(0, 1).zeros(8)); // graphicsmode, opcolor
}

int mp4_atom_smhd_write(mp4_atom *, mp4_stream *stream)
{
    return write_body(stream, box_body<8>(0, 0).zeros(4)); // balance, reserved
}

int mp4_atom_nmhd_write(mp4_atom *, mp4_stream *stream)
{
    return write_body(stream, box_body<4>(0, 0));
}

int mp4_atom_dinf_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, dinf);
}

int mp4_atom_dref_write(mp4_atom *atom, mp4_stream *stream)
{
    if (write_body(stream, box_body<8>(0, 0).u32(1)) != 0) return -1; // entry_count
    return write_children(atom, stream, dref);
}

int mp4_atom_url_write(mp4_atom *, mp4_stream *stream)
{
    return write_body(stream, box_body<4>(0, 1)); // the media is in this file
}

int mp4_atom_stbl_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_children(atom, stream, stbl);
}

int mp4_atom_stsd_write(mp4_atom *atom, mp4_stream *stream)
{
    if (write_body(stream, box_body<8>(0, 0).u32(1)) != 0) return -1; // entry_count
    if (!atom->track->write_sample_entry) return refuse(ENOSYS);
    return atom->track->write_sample_entry(atom->track, atom, stream);
}
