// The common part of the video tracks: a codec record made of parameter sets,
// and the hooks that use it. The sets are released when a recording begins and
// with the track.
//
// In addition to the splitter's traits a codec has:
//     entry            its sample entry box, with its body writer
//     configuration    the box in it, with its body writer
#pragma once

#include <mediafiles/track.h>

#include "mediafiles/mp4/annexb.h"
#include "mediafiles/mp4/box-tree.h"
#include "mediafiles/mp4/video-entry.h"
#include "mediafiles/ownership.h"

namespace mediafiles {

constexpr uint32_t video_timescale = 90000;

template <class Codec>
struct video_track {
    using record = typename Codec::record;
    using record_ptr = owned<record, free>;

    static record &record_of(const mp4_track *track) { return *static_cast<record *>(track->codec_data); }

    static record_ptr create_record() { return record_ptr(create<record>()); }

    static mp4_track *create_track(record_ptr made, uint32_t id, int width, int height, uint32_t raw)
    {
        mp4_track *track = mp4_track_create(id, MP4_MEDIA_VIDEO, video_timescale, 0);
        if (!track) return nullptr;
        track->video.width = static_cast<uint16_t>(width);
        track->video.height = static_cast<uint16_t>(height);
        track->codec_data = made.release();
        track->on_begin_record = begin_record;
        track->on_destroy = destroy_record;
        track->write_sample_entry = write_sample_entry;
        if (raw) {
            for (const auto &unit : Codec::kept) track->*unit.setter = unit.set_copy;
        } else {
            track->add_sample = add_access_unit<Codec>;
        }
        return track;
    }

    static int write_entry_body(mp4_atom *atom, mp4_stream *stream)
    {
        const auto body = video_entry_body(atom->track->video.width, atom->track->video.height);
        if (write_body(stream, body) != 0) return -1;
        return write_children(atom, stream, {&Codec::configuration, 1});
    }

private:
    static void drop_parameter_sets(mp4_track *track)
    {
        for (const auto &unit : Codec::kept) (record_of(track).*unit.set).drop();
    }

    static int begin_record(mp4_track *track)
    {
        drop_parameter_sets(track);
        return 0;
    }

    static void destroy_record(mp4_track *track)
    {
        drop_parameter_sets(track);
        free(track->codec_data);
    }

    static int write_sample_entry(mp4_track *track, mp4_atom *parent, mp4_stream *stream)
    {
        return write_box(stream, Codec::entry.type, Codec::entry.body, parent->movie, track);
    }
};

} // namespace mediafiles
