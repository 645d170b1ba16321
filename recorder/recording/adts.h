/**
 * AAC as a track can state it: an AudioSpecificConfig (ISO/IEC 14496-3,
 * 1.6.2.1) of AAC-LC with a listed rate and one of the channel configurations 1
 * to 6. Anything else would be stored and then play wrongly.
 */
#pragma once

#include <cstdint>
#include <span>

#include <mediafiles/movie.h>

#include "frame.h"

namespace mediafiles::recorder {

/** Whether a track can state this sound: the rate is listed (not 88200 and 96000) and there are 1 to 6 channels. */
bool can_state(const mp4_audio_desc &);

struct adts_header {
    static constexpr uint32_t most = 9;
    frame_fault fault;
    uint32_t size; // 7 or 9 bytes; 0: the frame has none
};

/**
 * The ADTS header (ISO/IEC 14496-3, 1.A.3.2) that a frame may begin with. No frame without one begins with its 12 bits
 * of ones, which would be the end of a frame.
 *
 * @param head        the first bytes of the frame, at least 9 where it has so many
 * @param frame_size  bytes of the whole frame, header included
 */
adts_header read_adts(const mp4_audio_desc &, std::span<const uint8_t> head, uint64_t frame_size);

} // namespace mediafiles::recorder
