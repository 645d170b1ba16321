#include "tools/record/aac-config.h"

#include <algorithm>
#include <array>
#include <optional>

#include "tools/print.h"

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

/* samplingFrequencyIndex of a rate, when an AAC-LC track can express it: not 88200 and 96000. */
std::optional<uint32_t> frequency_index(uint32_t rate)
{
    const auto found = std::ranges::find(rates, rate);
    if (found == rates.end()) return std::nullopt;
    return static_cast<uint32_t>(found - rates.begin()) + 2;
}

} // namespace

std::string objection(std::span<const uint8_t> config, uint32_t rate, uint32_t channels)
{
    if (channels == 0 || rate == 0) return "no AAC frame found in it";
    if (channels > 6) return std::to_string(channels) + " channels; only 1 to 6 can be recorded";
    const auto index = frequency_index(rate);
    if (!index) return std::to_string(rate) + " Hz; only 7350 to 64000 Hz can be recorded";
    if (config.size() < 2) return {};

    const uint32_t bits = uint32_t{config[0]} << 8 | config[1];
    const uint32_t type = bits >> 11;
    if (type != low_complexity) return "audio object type " + std::to_string(type) + "; only AAC-LC can be recorded";
    if (announces_band_replication(config)) return "HE-AAC; only AAC-LC can be recorded";
    const uint32_t own_index = bits >> 7 & 0xF, own_channels = bits >> 3 & 0xF;
    if (own_index != *index)
        return print(
            "sampling frequency index %u in its AudioSpecificConfig, but %u (%u Hz) in the container; encode it "
            "anew",
            own_index, *index, rate);
    if (own_channels != channels)
        return print("channel configuration %u in its AudioSpecificConfig, but %u channels in the container; encode it "
                     "anew",
                     own_channels, channels);
    if ((bits & 0x4) != 0) return "frames of 960 samples; only 1024 can be recorded";
    return {};
}

} // namespace tools
