/** The number of a parameter set: by it slices refer to a set, and a set replaces the one before. */
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <mediafiles/h264-parser.h>

namespace mediafiles::recorder {

/** Bytes of a set's beginning within which its number lies, emulation prevention bytes included. */
inline constexpr uint32_t set_head = 192;

/**
 * @param kind  MEMENTO_VPS, MEMENTO_SPS or MEMENTO_PPS
 * @param unit  NAL unit with its header, or its first set_head bytes
 * @return nothing when the unit is cut or the number is out of its range
 */
std::optional<uint8_t> set_number(uint32_t track_type, uint8_t kind, std::span<const uint8_t> unit);

/** Fields of a NAL unit, one after the other. After the end, or after a value that has no code, all are 0. */
class field_reader {
public:
    explicit field_reader(std::span<const uint8_t> unit)
        : bits_{unit.data(), static_cast<uint32_t>(unit.size()), 0, 0, 0xFFFF}
    {
    }

    uint32_t u(int bits)
    {
        uint32_t value = 0;
        if (good_ && h264_bs_read_bits(&bits_, bits, &value) != 0) fail(value);
        return value;
    }

    uint32_t ue()
    {
        uint32_t value = 0;
        if (good_ && h264_bs_read_ue(&bits_, &value) != 0) fail(value);
        return value;
    }

    int32_t se()
    {
        int32_t value = 0;
        if (good_ && h264_bs_read_se(&bits_, &value) != 0) {
            good_ = false;
            value = 0;
        }
        return value;
    }

    /** A value from least to most, which include 0; 0 where it is not, and nothing good follows. */
    int32_t se_within(int32_t least, int32_t most)
    {
        const int32_t value = se();
        if (value >= least && value <= most) return value;
        good_ = false;
        return 0;
    }

    void skip(uint32_t bits)
    {
        for (; good_ && bits > 32; bits -= 32) u(32);
        u(static_cast<int>(bits));
    }

    /** A value that must not be above `most`; 0 where it is, and nothing good follows. */
    uint32_t ue_up_to(uint32_t most)
    {
        uint32_t value = ue();
        if (value > most) fail(value);
        return value;
    }

    bool good() const { return good_; }

private:
    void fail(uint32_t &value)
    {
        good_ = false;
        value = 0;
    }

    h264_bs bits_;
    bool good_ = true;
};

/** profile_tier_level (ISO/IEC 23008-2, 7.3.3) with its general part. */
void skip_profile_tier_level(field_reader &, uint32_t max_sub_layers_minus1);

} // namespace mediafiles::recorder
