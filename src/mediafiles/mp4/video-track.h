// What the video tracks have in common: a codec record made of parameter
// sets, which are forgotten when a recording begins and released with the
// track.
#pragma once

#include <mediafiles/track.h>

#include "mediafiles/mp4/annexb.h"
#include "mediafiles/ownership.h"

namespace mediafiles {

template <class Codec>
void drop_parameter_sets(mp4_track *track)
{
    auto &record = *static_cast<typename Codec::record *>(track->codec_data);
    for (const auto &unit : Codec::kept) (record.*unit.set).drop();
}

template <class Codec>
int begin_video_record(mp4_track *track)
{
    drop_parameter_sets<Codec>(track);
    return 0;
}

template <class Codec>
void destroy_video_record(mp4_track *track)
{
    drop_parameter_sets<Codec>(track);
    free(track->codec_data);
}

template <class Record, parameter_set Record::*Set>
void set_parameter_set(mp4_track *track, const void *data, uint32_t len)
{
    (static_cast<Record *>(track->codec_data)->*Set).keep(data, len);
}

constexpr uint32_t video_timescale = 90000;

template <class Codec>
using record_ptr = owned<typename Codec::record, free>;

template <class Codec>
record_ptr<Codec> create_record()
{
    return record_ptr<Codec>(create<typename Codec::record>());
}

// A track with its codec record; the codec adds its sample entry and, for
// samples that arrive as they are stored, its setters.
template <class Codec>
mp4_track *create_video_track(record_ptr<Codec> record, uint32_t id, int width, int height, uint32_t raw)
{
    mp4_track *track = mp4_track_create(id, MP4_MEDIA_VIDEO, video_timescale, 0);
    if (!track) return nullptr;
    track->video.width = static_cast<uint16_t>(width);
    track->video.height = static_cast<uint16_t>(height);
    track->codec_data = record.release();
    track->on_begin_record = begin_video_record<Codec>;
    track->on_destroy = destroy_video_record<Codec>;
    if (!raw) track->add_sample = add_access_unit<Codec>;
    return track;
}

} // namespace mediafiles
