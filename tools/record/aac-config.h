/**
 * Compares the configuration of an AAC stream with what an AAC-LC track can
 * state: an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) of two bytes
 * with object type 2, a listed rate and one of the channel configurations 1
 * to 6. Anything else would be recorded and then play wrongly.
 */
#ifndef TOOLS_RECORD_AAC_CONFIG_H
#define TOOLS_RECORD_AAC_CONFIG_H

#include <cstdint>
#include <span>
#include <string>

namespace tools {

/** Why a stream with this AudioSpecificConfig cannot be recorded; empty when it can, and for no config (ADTS). */
std::string objection(std::span<const uint8_t> specific_config, uint32_t rate, uint32_t channels);

} // namespace tools

#endif
