/** What a track is, by its description: in words and as members of a JSON object. */
#ifndef TOOLS_TRACK_DESCRIPTION_H
#define TOOLS_TRACK_DESCRIPTION_H

#include <string>

#include <mediafiles/movie.h>

#include "tools/json.h"
#include "tools/print.h"

namespace tools {

/** @param type  MP4_TRACK_, raw or not */
inline const char *codec_name(uint32_t type)
{
    switch (type & ~MP4_TRACK_RAW) {
    case MP4_TRACK_H264:
        return "h264";
    case MP4_TRACK_H265:
        return "h265";
    default:
        return "aac";
    }
}

inline bool is_audio(const mp4_track_desc &track)
{
    return (track.type & ~MP4_TRACK_RAW) == MP4_TRACK_AAC;
}

/** "h264 640x360", "aac 48000 Hz, 2 channels" */
inline std::string describe(const mp4_track_desc &track)
{
    const char *codec = codec_name(track.type);
    if (is_audio(track)) return print("%s %u Hz, %u channels", codec, track.audio.sample_rate, track.audio.channels);
    return print("%s %ux%u", codec, track.video.width, track.video.height);
}

inline void add_description(ordered_json &object, const mp4_track_desc &track)
{
    object["codec"] = codec_name(track.type);
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
