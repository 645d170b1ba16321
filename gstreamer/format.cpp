#include "format.h"

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

#include "tools/record/aac-config.h"

namespace mediafiles::gstreamer {

namespace {

constexpr uint32_t sample_bits = 16;

/* Without an AudioSpecificConfig, which ADTS has not, its headers say it again. */
std::string objection_to(const GstStructure *structure, uint32_t rate, uint32_t channels)
{
    const GValue *value = gst_structure_get_value(structure, "codec_data");
    GstBuffer *const config = value && GST_VALUE_HOLDS_BUFFER(value) ? gst_value_get_buffer(value) : nullptr;
    GstMapInfo map;
    if (!config || !gst_buffer_map(config, &map, GST_MAP_READ)) return tools::objection({}, rate, channels);
    std::string said = tools::objection(std::span<const uint8_t>(map.data, map.size), rate, channels);
    gst_buffer_unmap(config, &map);
    return said;
}

mp4_track_desc aac_of(const GstStructure *structure)
{
    int rate = 0, channels = 0;
    if (!gst_structure_get_int(structure, "rate", &rate) || !gst_structure_get_int(structure, "channels", &channels))
        throw std::invalid_argument("caps of AAC without rate and channels: put aacparse before this element");
    mp4_track_desc track = {};
    track.type = MP4_TRACK_AAC;
    track.audio = {static_cast<uint32_t>(channels), sample_bits, static_cast<uint32_t>(rate)};
    const std::string said = objection_to(structure, track.audio.sample_rate, track.audio.channels);
    if (!said.empty()) throw std::invalid_argument("AAC that cannot be recorded: " + said);
    return track;
}

} // namespace

bool format::fits(const format &other) const
{
    if (track.type != other.track.type) return false;
    return is_video() || (track.audio.sample_rate == other.track.audio.sample_rate &&
                          track.audio.channels == other.track.audio.channels);
}

format format_of(const GstCaps *caps)
{
    const GstStructure *const structure = gst_caps_get_structure(caps, 0);
    format made;
    if (gst_structure_has_name(structure, "audio/mpeg"))
        made.track = aac_of(structure);
    else
        made.track.type = gst_structure_has_name(structure, "video/x-h265") ? MP4_TRACK_H265 : MP4_TRACK_H264;
    return made;
}

} // namespace mediafiles::gstreamer
