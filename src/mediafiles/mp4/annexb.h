// The Annex-B splitter: an access unit with start codes becomes a sample of
// length-prefixed NAL units (ISO/IEC 14496-15, 5.3.2), without copying them.
//
// A codec is its traits:
//     max_units                      NAL units taken from one frame
//     no_start_code()                reports a frame without one
//     nal_header                     the record of its NAL unit header
//     runs_to_end(type)              such a unit ends with the frame
//     record, kept                   the parameter sets, and the unit types kept in them
#pragma once

#include <cstdint>

#include <mediafiles/stream.h>
#include <mediafiles/track.h>

#include "mediafiles/byte-order.h"
#include "mediafiles/mp4/codec/nal-header.h"
#include "mediafiles/mp4/codec/start-code.h"
#include "mediafiles/mp4/parameter-set.h"

namespace mediafiles {

// The NAL units of one sample, each after its 4-byte length.
template <uint32_t Max>
class nal_units {
public:
    bool add(const uint8_t *unit, uint32_t length)
    {
        if (units == Max) return false;
        lengths[units] = big_endian(length);
        entries[2 * units] = {&lengths[units], sizeof lengths[units]};
        entries[2 * units + 1] = {const_cast<uint8_t *>(unit), length};
        ++units;
        bytes += static_cast<uint32_t>(sizeof lengths[0]) + length;
        return true;
    }

    mp4_gather_list list() const { return {entries, static_cast<int32_t>(2 * units), 0, bytes}; }

private:
    uint32_t lengths[Max]; // as in the file
    iovec entries[2 * Max];
    uint32_t units = 0;
    uint32_t bytes = 0;
};

// Keeps the first parameter set of its kind, and journals it when it was kept.
template <class Codec>
void keep_parameter_set(mp4_track *track, uint8_t type, const uint8_t *unit, uint32_t length)
{
    auto &record = *static_cast<typename Codec::record *>(track->codec_data);
    for (const auto &kept : Codec::kept)
        if (kept.type == type && (record.*kept.set).keep(unit, length))
            saveCodecExtraDataToCaretaker(track, kept.kind, unit, length);
}

template <class Codec>
int add_access_unit(mp4_track *track, const void *data, uint32_t len, uint32_t duration, int key)
{
    const auto *frame = static_cast<const uint8_t *>(data);
    start_code code = find_start_code(frame, len);
    if (!code.found()) {
        Codec::no_start_code();
        return 0;
    }
    nal_units<Codec::max_units> units;
    const uint8_t *unit = frame + code.offset + code.length;
    uint32_t rest = len - code.offset - code.length;
    for (;;) {
        typename Codec::nal_header header;
        if (decode_nal_header(unit, rest, &header) != 0) return 0;
        uint32_t length = rest;
        if (!Codec::runs_to_end(header.nal_unit_type)) {
            code = find_start_code(unit, rest);
            if (code.found()) length = code.offset;
            keep_parameter_set<Codec>(track, header.nal_unit_type, unit, length);
        }
        if (!units.add(unit, length)) return 0;
        if (length == rest) break;
        unit += length + code.length;
        rest -= length + code.length;
    }
    const mp4_gather_list list = units.list();
    return __mp4_track_add_sample(track, &list, duration, key);
}

} // namespace mediafiles
