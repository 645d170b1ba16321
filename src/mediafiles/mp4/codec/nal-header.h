// The NAL unit headers of both video codecs. They are in the first two bytes,
// which hold no emulation prevention byte.
//
// When the data is too short, the fields that it has are filled in. 0, or -1
// with ENOSPC.
#pragma once

#include <cerrno>
#include <cstdint>

#include <mediafiles/h264-parser.h>
#include <mediafiles/h265-parser.h>

#include "mediafiles/refuse.h"

namespace mediafiles {

// ITU-T H.264, 7.3.1
inline int decode_nal_header(const uint8_t *data, uint32_t len, h264_nal_header *header)
{
    if (len < 1) return refuse(ENOSPC);
    header->forbidden_zero_bit = data[0] >> 7;
    header->nal_ref_idc = data[0] >> 5 & 0x03;
    header->nal_unit_type = data[0] & 0x1F;
    return 0;
}

// ITU-T H.265, 7.3.1.2
inline int decode_nal_header(const uint8_t *data, uint32_t len, h265_nal_header *header)
{
    if (len >= 1) {
        header->forbidden_zero_bit = data[0] >> 7;
        header->nal_unit_type = data[0] >> 1 & 0x3F;
    }
    if (len < 2) return refuse(ENOSPC);
    header->nuh_layer_id = static_cast<uint8_t>((data[0] & 0x01) << 5 | data[1] >> 3);
    header->nuh_temporal_id_plus1 = data[1] & 0x07;
    return 0;
}

} // namespace mediafiles
