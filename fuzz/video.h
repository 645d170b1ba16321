/** An access unit through a video track, with what has to hold for both codecs. */
#pragma once

#include <algorithm>
#include <utility>

#include <mediafiles/caretaker.h>

#include "fuzz.h"

namespace fuzz {

struct video_codec {
    mp4_track_desc track;
    size_t header;                  // bytes of a NAL unit header
    uint8_t (*type)(uint8_t first); // NAL unit type, from the first byte of the header
    bool (*runs_to_end)(uint8_t type);
    std::vector<std::pair<uint8_t, uint8_t>> kept; // memento kind, NAL unit type
};

using namespace std::string_view_literals;
constexpr std::string_view start_code = "\0\0\1"sv;

/**
 * The sample's NAL units are the frame's, each whole, in order, nothing left out but start codes: that is, each stands
 * in the frame right after a start code, holds none unless it may, and the last one ends the frame.
 */
inline std::vector<std::string_view> units_of(std::string_view sample, std::string_view frame, const video_codec &codec)
{
    std::vector<std::string_view> units;
    size_t at = frame.find(start_code) + start_code.size();
    while (!sample.empty()) {
        REQUIRE(sample.size() >= 4);
        const uint32_t length = big(reinterpret_cast<const uint8_t *>(sample.data()));
        REQUIRE(length <= sample.size() - 4 && at + length <= frame.size());
        const std::string_view unit = sample.substr(4, length);
        REQUIRE(unit == frame.substr(at, length));
        const uint8_t type = codec.type(static_cast<uint8_t>(frame[at]));
        units.push_back(unit);
        sample.remove_prefix(4 + length);
        at += length;
        if (codec.runs_to_end(type))
            REQUIRE(sample.empty());
        else
            REQUIRE(unit.find(start_code) == unit.npos);
        if (sample.empty())
            REQUIRE(at == frame.size());
        else if (frame.substr(at, 3) == start_code)
            at += 3;
        else
            REQUIRE(frame.substr(std::exchange(at, at + 4), 4) == "\0\0\0\1"sv);
    }
    return units;
}

/** @return the NAL units stored, none when the frame was dropped for a reason that there is */
inline std::vector<std::string_view> check_access_unit(std::string_view frame, const recorded_file &out,
                                                       const video_codec &codec)
{
    const auto &samples = out.read.tracks[0].samples;
    std::vector<size_t> codes;
    for (size_t at = 0; (at = frame.find(start_code, at)) != frame.npos; at += 3) codes.push_back(at);
    /* avcC has the reserved bits of the profile as zeros, whatever the frame has, and no emulation prevention. A frame
     * that is dropped still moves the track's time on. */
    REQUIRE(sound_but_for(out.read, {"avcC has no parameter sets", "avcC: profile or level",
                                     samples.empty() ? "the track plays to" : "avcC: profile or level"}));
    if (samples.empty()) {
        REQUIRE(codes.empty() || codes.size() > 32 || frame.size() - codes.back() < 3 + codec.header);
        REQUIRE(out.media.empty());
        return {};
    }
    /* The frame was given twice and is stored twice. */
    const std::string_view media = text(out.media), sample = media.substr(0, media.size() / 2);
    REQUIRE(samples.size() == 2 && media == std::string(sample) + std::string(sample));
    const auto units = units_of(sample, frame, codec);
    REQUIRE(!units.empty() && units.size() <= 32);

    /* The first parameter set of each kind is journaled, once, unless one was too large for the journal. */
    std::string_view rest = text(out.journal).substr(20);
    for (const std::string_view &unit : units) {
        const uint8_t type = unit.empty() ? 0 : codec.type(static_cast<uint8_t>(unit[0]));
        const auto kind = std::ranges::find(codec.kept, type, &std::pair<uint8_t, uint8_t>::second);
        if (kind == codec.kept.end() || codec.runs_to_end(type)) continue;
        const auto same = [&](const std::string_view other) {
            return !other.empty() && codec.type(static_cast<uint8_t>(other[0])) == type;
        };
        if (&*std::ranges::find_if(units, same) != &unit) continue;
        if (unit.size() > 508) return units;
        REQUIRE(rest.size() >= 4 && static_cast<uint8_t>(rest[0]) == kind->first);
        REQUIRE(rest.substr(4, unit.size()) == unit);
        rest.remove_prefix(4 + (unit.size() + 3) / 4 * 4);
    }
    REQUIRE(rest.size() == 2 * 28 && rest[0] == MEMENTO_SAMPLE && rest[28] == MEMENTO_SAMPLE);
    return units;
}

/** Fields of many widths are the unit's bits without its emulation prevention bytes; a reader ends inside its bytes. */
inline void check_bit_reader(const exact &unit)
{
    std::string bits;
    for (uint32_t i = 0, zeros = 0; i < unit.size; i++) {
        const uint8_t byte = unit.data[i];
        if (byte != 3 || zeros < 2)
            for (int bit = 7; bit >= 0; bit--) bits += byte >> bit & 1 ? '1' : '0';
        zeros = byte ? 0 : zeros + 1;
    }
    h264_bs reader = unit.reader();
    for (size_t at = 0, width = 0;; at += width, width = (width + 1 + reader.left % 7) % 33) {
        uint32_t field = 0;
        const int result = h264_bs_read_bits(&reader, static_cast<int>(width), &field);
        REQUIRE(reader.next + reader.left == unit.data.get() + unit.size && reader.left <= unit.size);
        REQUIRE((result == 0) == (width <= bits.size() - at));
        if (result != 0) return;
        REQUIRE(width == 0 ? field == 0 : field == std::stoul(bits.substr(at, width), nullptr, 2));
    }
}

/** Whether a parser succeeded, or failed as it may. */
inline bool parsed(int result)
{
    REQUIRE(result == 0 || (result == -1 && (errno == ENOSPC || errno == EILSEQ)));
    return result == 0;
}

} // namespace fuzz
