/**
 * Compares the configuration of an AAC stream with what an AAC-LC track can
 * state: an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) of two bytes
 * with object type 2, a listed rate and one of the channel configurations 1
 * to 6. Anything else would be recorded and then play wrongly.
 */
#ifndef TOOLS_RECORD_AAC_CONFIG_H
#define TOOLS_RECORD_AAC_CONFIG_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/record/access-unit.h"

namespace tools {

struct aac_config {
    uint32_t rate;     // Hz
    uint32_t channels; // 1 to 6
    bool adts;         // frames carry ADTS headers
};

/** samplingFrequencyIndex of a rate, when an AAC-LC track can express it: not 88200 and 96000. */
std::optional<uint32_t> frequency_index(uint32_t rate);

/** Why a stream with this AudioSpecificConfig cannot be recorded; empty when it can, and for no config (ADTS). */
std::string objection(std::span<const uint8_t> specific_config, uint32_t rate, uint32_t channels);

/** One audio frame of a stream. Without ADTS headers every frame but an empty one is usable. */
access_unit inspect_aac(std::span<const uint8_t> frame, const aac_config &config);

} // namespace tools

#endif
