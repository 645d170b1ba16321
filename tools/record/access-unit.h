/**
 * What the library makes of one access unit, known before it is handed over.
 *
 * The library stores nothing of a frame that it cannot use, yet counts it as
 * accepted, and from then on the journal's times of that track are off by one
 * frame. So the same rules are applied here first, with the public start code
 * search: a frame that would be dropped is never handed over.
 */
#ifndef TOOLS_RECORD_ACCESS_UNIT_H
#define TOOLS_RECORD_ACCESS_UNIT_H

#include <cstdint>
#include <span>

namespace tools {

enum class codec { h264, h265, aac };

/** Why a frame cannot be recorded; usable when it can. */
enum class verdict {
    usable,
    empty,            // no byte
    no_start_code,    // not in Annex-B form
    truncated_header, // a start code followed by less than a NAL unit header
    too_many_units,   // more NAL units than the library takes
    unreadable,       // the source's framing is broken
    other_format,     // an ADTS frame of another profile, rate or channel count than the track's
};

/** How many verdicts there are: the size of a table with one entry for each. */
inline constexpr unsigned verdict_count = static_cast<unsigned>(verdict::other_format) + 1;

/** As a message has it. */
const char *name(verdict);

struct access_unit {
    verdict result = verdict::usable;
    bool key = false;         // random access point: IDR (H.264), IRAP (H.265), every audio frame
    bool resets = false;      // picture order counts restart
    bool long_sei = false;    // holds an SEI unit that would end the journal
    uint32_t stored_size = 0; // bytes of the sample: a 4-byte length in place of each start code
};

access_unit inspect_h264(std::span<const uint8_t> frame);
access_unit inspect_h265(std::span<const uint8_t> frame);

/**
 * Takes the prefix SEI units out of an H.265 access unit that do not fit in a
 * record of the journal and would end it: encoders send their settings so.
 *
 * @return the size that is left
 */
size_t without_long_sei(std::span<uint8_t> frame);

} // namespace tools

#endif
