// The transformation matrix of mvhd and tkhd (ISO/IEC 14496-12, 8.2.2).
#pragma once

namespace mediafiles {

template <class Body>
constexpr Body &unity_matrix(Body &body)
{
    return body.u32(0x00010000).zeros(12).u32(0x00010000).zeros(12).u32(0x40000000);
}

} // namespace mediafiles
