// The leading fields of sequence parameter sets, as both video codecs read
// them: behind the first byte of the NAL unit.
#pragma once

#include <cstdint>

#include <mediafiles/h264-parser.h>

namespace mediafiles {

// Clears the record first. 0, or -1 with ENOSPC.
int read_sps(const uint8_t *nal, uint32_t len, h264_sps *sps);

} // namespace mediafiles
