#include "tools/record/aac-config.h"

#include <algorithm>
#include <array>

namespace tools {

namespace {

constexpr uint32_t low_complexity = 2;   // audioObjectType AAC LC
constexpr uint32_t band_replication = 5; // audioObjectType SBR, the extension that makes HE-AAC

/* By samplingFrequencyIndex, from 2 on. */
constexpr std::array<uint32_t, 11> rates = {64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

/* A backward compatible extension after the first two bytes: syncExtensionType 0x2B7, SBR, sbrPresentFlag. */
bool announces_band_replication(std::span<const uint8_t> config)
{
    if (config.size() < 5) return false;
    const uint32_t bits = uint32_t{config[2]} << 16 | uint32_t{config[3]} << 8 | config[4];
    return bits >> 13 == 0x2B7 && (bits >> 8 & 0x1F) == band_replication && (bits & 0x80) != 0;
}

} // namespace

std::optional<uint32_t> frequency_index(uint32_t rate)
{
    const auto found = std::ranges::find(rates, rate);
    if (found == rates.end()) return std::nullopt;
    return static_cast<uint32_t>(found - rates.begin()) + 2;
}

std::string objection(std::span<const uint8_t> config, uint32_t rate, uint32_t channels)
{
    if (channels < 1 || channels > 6) return std::to_string(channels) + " channels; 1 to 6 can be recorded";
    const auto index = frequency_index(rate);
    if (!index) return std::to_string(rate) + " Hz cannot be expressed in the sample entry";
    if (config.size() < 2) return {};

    const uint32_t bits = uint32_t{config[0]} << 8 | config[1];
    const uint32_t type = bits >> 11;
    if (type != low_complexity) return "audio object type " + std::to_string(type) + "; AAC-LC can be recorded";
    if (announces_band_replication(config)) return "HE-AAC; AAC-LC can be recorded";
    if ((bits >> 7 & 0xF) != *index) return "its AudioSpecificConfig does not give the rate by index";
    if ((bits >> 3 & 0xF) != channels) return "a channel layout of its own; the standard ones can be recorded";
    if ((bits & 0x4) != 0) return "frames of 960 samples; 1024 can be recorded";
    return {};
}

access_unit inspect_aac(std::span<const uint8_t> frame, const aac_config &config)
{
    if (frame.empty()) return {.result = verdict::empty};
    access_unit unit{.key = true, .stored_size = static_cast<uint32_t>(frame.size())};
    if (!config.adts) return unit;

    /* adts_fixed_header and the start of adts_variable_header, 1.A.3.2 */
    if (frame.size() < 8 || frame[0] != 0xFF || (frame[1] & 0xF0) != 0xF0) return {.result = verdict::unreadable};
    const uint32_t length = (frame[3] & 0x3u) << 11 | uint32_t{frame[4]} << 3 | frame[5] >> 5;
    const uint32_t header = (frame[1] & 1) != 0 ? 7 : 9;
    if (length != frame.size() || length <= header) return {.result = verdict::unreadable};

    const uint32_t profile = frame[2] >> 6;
    const uint32_t index = frame[2] >> 2 & 0xF;
    const uint32_t channels = (frame[2] & 1u) << 2 | frame[3] >> 6;
    const bool several = (frame[6] & 0x3) != 0; // raw data blocks, of which a sample has one
    if (several || profile + 1 != low_complexity || index != frequency_index(config.rate) ||
        channels != config.channels)
        return {.result = verdict::other_format};
    unit.stored_size -= header;
    return unit;
}

} // namespace tools
