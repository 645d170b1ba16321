/**
 * Whatever bytes come as an AAC frame, the sample is the frame without the one ADTS header that describes all of it, or
 * the whole frame; the file is sound for every rate, channel count and sample width.
 */
#include "fuzz.h"

using namespace fuzz;

/** The header's length by ISO/IEC 14496-3, 1.A.3.2, read as one number of 56 bits. */
static size_t header_of(std::string_view frame)
{
    if (frame.size() < 8) return 0;
    uint64_t header = 0;
    for (const char byte : frame.substr(0, 7)) header = header << 8 | static_cast<uint8_t>(byte);
    if (header >> 44 != 0xFFF || (header >> 13 & 0x1FFF) != frame.size()) return 0;
    return header >> 40 & 1 ? 7 : frame.size() > 9 ? 9 : 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 5) return 0;
    const uint32_t rate = data[0] + data[1] * 256u;
    if (rate == 0) return 0; // a timescale of 0 is the caller's
    const std::span frame(data + 4, size - 4);
    const recorded_file out = record({MP4_TRACK_AAC, {.audio = {data[2], data[3] & 63u, rate}}}, frame, 3);

    const std::string sample(text(frame.subspan(header_of(text(frame)))));
    REQUIRE(sound_but_for(out.read) && text(out.media) == sample + sample + sample);
    const mp4::track &track = out.read.tracks[0];
    REQUIRE(track.samples.size() == 3 && track.samples[2].size == sample.size() && track.timescale == rate);
    REQUIRE(track.channels == data[2] && track.sample_bits == (data[3] & 63) && track.sample_rate >> 16 == rate);
    return 0;
}
