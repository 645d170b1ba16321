// The fields at the start of every video sample entry (ISO/IEC 14496-12,
// 12.1.3). The box with the decoder configuration follows.
#pragma once

#include "mediafiles/mp4/box-body.h"

namespace mediafiles {

constexpr box_body<78> video_entry_body(uint16_t width, uint16_t height)
{
    box_body<78> body;
    body.zeros(6)  // reserved
        .u16(1)    // data_reference_index
        .zeros(16) // pre_defined, reserved
        .u16(width)
        .u16(height)
        .u32(0x00480000) // horizresolution, 72 dpi
        .u32(0x00480000) // vertresolution
        .u32(0)          // reserved
        .u16(1)          // frame_count
        .zeros(32)       // compressorname: empty
        .u16(0x0018)     // depth
        .u16(0xFFFF);    // pre_defined
    return body;
}
static_assert(video_entry_body(0, 0).size() == 78);

} // namespace mediafiles
