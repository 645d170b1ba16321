/** The size of the picture that a sequence parameter set describes, after cropping. */
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace mediafiles::recorder {

struct picture_size {
    uint32_t width, height;  // luma samples
    bool has_fields = false; // H.264: a picture may be coded as two fields
};

/** The longest side that the highest level below 7 allows: the square root of eight times its largest picture. */
inline constexpr uint32_t longest_side = 16888;

/**
 * @param track_type  MP4_TRACK_H264 or MP4_TRACK_H265, with or without MP4_TRACK_RAW
 * @param sps         the NAL unit with its header, without start code or length
 * @return nothing when the unit is cut, a value before the size is out of its range, or a side is 0 or too long
 */
std::optional<picture_size> read_picture_size(uint32_t track_type, std::span<const uint8_t> sps);

} // namespace mediafiles::recorder
