/** What a track is, by its description: the codec's name and the members of its JSON object. */
#ifndef TOOLS_TRACK_DESCRIPTION_H
#define TOOLS_TRACK_DESCRIPTION_H

#include <string>

#include <mediafiles/movie.h>
#include <nlohmann/json.hpp>

#include "tools/print.h"

namespace tools {

inline bool is_audio(const mp4_track_desc &track)
{
    return (track.type & ~MP4_TRACK_RAW) == MP4_TRACK_AAC;
}

inline const char *codec_of(const mp4_track_desc &track)
{
    switch (track.type & ~MP4_TRACK_RAW) {
    case MP4_TRACK_H264:
        return "h264";
    case MP4_TRACK_H265:
        return "h265";
    default:
        return "aac";
    }
}

/** "h264 640x360" */
inline std::string describe(const mp4_track_desc &track)
{
    if (is_audio(track)) return print("aac %u Hz, %u channels", track.audio.sample_rate, track.audio.channels);
    return print("%s %ux%u", codec_of(track), track.video.width, track.video.height);
}

inline void add_description(nlohmann::ordered_json &object, const mp4_track_desc &track)
{
    object["codec"] = codec_of(track);
    if (is_audio(track)) {
        object["channels"] = track.audio.channels;
        object["rate"] = track.audio.sample_rate;
    } else {
        object["width"] = track.video.width;
        object["height"] = track.video.height;
    }
}

} // namespace tools

#endif
