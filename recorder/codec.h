// What recovery and recorder know of each codec, in one table.
#pragma once

#include <cerrno>
#include <cstdint>

#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

namespace mediafiles::recovery {

constexpr uint8_t no_set = 0xFF;

struct codec {
    uint32_t type;       // MP4_TRACK_, without the raw flag
    uint8_t unit_header; // bytes of a NAL unit's header; 0: the codec has no NAL units
    char entry[5];       // type of its sample entry
    char config[5];      // type of the box with its decoder configuration

    constexpr bool is_video() const { return unit_header != 0; }

    // nal_unit_type (ISO/IEC 14496-10 7.3.1, ISO/IEC 23008-2 7.3.1.2)
    constexpr uint8_t unit_type(uint8_t first) const
    {
        return static_cast<uint8_t>(unit_header == 1 ? first & 0x1F : first >> 1 & 0x3F);
    }

    // Decoding can begin with such a unit: IDR of H.264, IRAP of H.265 with the types reserved for it.
    constexpr bool is_key(uint8_t unit) const { return unit_header == 1 ? unit == 5 : unit >= 16 && unit <= 23; }

    // An access unit delimiter, which comes before all others.
    constexpr bool is_delimiter(uint8_t unit) const { return unit == (unit_header == 1 ? 9 : 35); }

    // The journal's kind of a parameter set of that unit type, or no_set.
    constexpr uint8_t set_kind(uint8_t unit) const
    {
        if (unit_header == 1) return unit == 7 ? MEMENTO_SPS : unit == 8 ? MEMENTO_PPS : no_set;
        return unit >= 32 && unit <= 34 ? static_cast<uint8_t>(MEMENTO_VPS + unit - 32) : no_set;
    }
};

inline constexpr codec codecs[] = {
    {MP4_TRACK_H264, 1, "avc1", "avcC"},
    {MP4_TRACK_H265, 2, "hev1", "hvcC"},
    {MP4_TRACK_AAC, 0, "mp4a", "esds"},
};

// NULL for a type that no track has. The raw flag does not matter.
constexpr const codec *codec_of(uint32_t track_type)
{
    for (const codec &each : codecs)
        if (each.type == (track_type & ~MP4_TRACK_RAW)) return &each;
    return nullptr;
}

inline bool is_video(const mp4_track_desc &track)
{
    const codec *codec = codec_of(track.type);
    return codec && codec->is_video();
}

// Of a track of the movie. -1 with errno, ENOMEM included: the hook that copies the set does not report it.
inline int give_parameter_set(mp4_movie *movie, uint32_t track, uint8_t kind, const void *unit, uint32_t length)
{
    const auto give = kind == MEMENTO_VPS   ? mp4_movie_set_track_vps
                      : kind == MEMENTO_SPS ? mp4_movie_set_track_sps
                                            : mp4_movie_set_track_pps;
    errno = 0;
    return give(movie, track, unit, length) == 0 && errno != ENOMEM ? 0 : -1;
}

static_assert(codecs[0].is_key(5) && !codecs[0].is_key(1) && codecs[0].set_kind(7) == MEMENTO_SPS);
static_assert(codecs[1].is_key(16) && codecs[1].is_key(23) && !codecs[1].is_key(24) && !codecs[1].is_key(15));
static_assert(codecs[1].set_kind(32) == MEMENTO_VPS && codecs[1].set_kind(34) == MEMENTO_PPS);

} // namespace mediafiles::recovery
