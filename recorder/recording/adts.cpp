#include "adts.h"

#include <algorithm>
#include <iterator>

namespace mediafiles::recorder {

namespace {

constexpr uint32_t low_complexity = 1; // profile_ObjectType: audioObjectType 2, less 1
constexpr uint32_t first_index = 2;
constexpr uint32_t most_channels = 6;

/* By samplingFrequencyIndex, from 2 on: what a sample entry's 16 bits hold. */
constexpr uint32_t rates[] = {64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

} // namespace

bool can_state(const mp4_audio_desc &audio)
{
    return audio.channels >= 1 && audio.channels <= most_channels &&
           std::ranges::find(rates, audio.sample_rate) != std::end(rates);
}

adts_header read_adts(const mp4_audio_desc &audio, std::span<const uint8_t> head, uint64_t frame_size)
{
    // syncword, and layer, which is always 0
    if (head.size() < 2 || head[0] != 0xFF || (head[1] & 0xF6) != 0xF0) return {frame_fault::none, 0};
    if (head.size() < 7) return {frame_fault::bad_adts, 0};
    const uint32_t size = (head[1] & 1) != 0 ? 7 : 9; // protection_absent; else a CRC follows
    const uint32_t length = (head[3] & 0x3u) << 11 | uint32_t{head[4]} << 3 | head[5] >> 5;
    if (length != frame_size || length <= size) return {frame_fault::bad_adts, 0};

    const uint32_t profile = head[2] >> 6;
    const uint32_t index = head[2] >> 2 & 0xF;
    const uint32_t channels = (head[2] & 1u) << 2 | head[3] >> 6;
    const bool several = (head[6] & 0x3) != 0; // raw data blocks, of which a sample has one
    const bool same_rate = index >= first_index && index - first_index < std::size(rates) &&
                           rates[index - first_index] == audio.sample_rate;
    if (several || profile != low_complexity || !same_rate || channels != audio.channels)
        return {frame_fault::other_format, 0};
    return {frame_fault::none, size};
}

} // namespace mediafiles::recorder
