/** What the caps of a pad say of its track. */
#pragma once

#include <gst/gst.h>

#include <mediafiles/movie.h>

namespace mediafiles::gstreamer {

struct format {
    mp4_track_desc track = {}; // video of size 0: its parameter sets have it

    bool is_video() const { return track.type != MP4_TRACK_AAC; }
    /** Whether the frames of both can go to the same track. */
    bool fits(const format &other) const;
};

/** Throws std::invalid_argument, whose text says why they cannot be recorded. */
format format_of(const GstCaps *caps);

} // namespace mediafiles::gstreamer
