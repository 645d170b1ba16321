// The readers of H.264 that H.265 uses as well: both take the fields that stand
// after the first byte of the NAL unit.
#pragma once

#include <cstdint>

#include <mediafiles/h264-parser.h>

namespace mediafiles {

// Clears the record first. 0, or -1 with ENOSPC.
int read_sps(const uint8_t *nal, uint32_t len, h264_sps *sps);

// Clears the record first. 0, or -1 with ENOSPC or EILSEQ.
int read_slice_header(const uint8_t *nal, uint32_t len, h264_slice_header *header);

} // namespace mediafiles
