#include "parameter-set.h"

#include "codec.h"

namespace mediafiles::recorder {

namespace {

/* Up to sps_seq_parameter_set_id (ISO/IEC 23008-2, 7.3.2.2). */
uint32_t h265_sps_number(field_reader &fields)
{
    fields.skip(4); // sps_video_parameter_set_id
    const uint32_t max_sub_layers_minus1 = fields.u(3);
    fields.skip(1); // sps_temporal_id_nesting_flag
    skip_profile_tier_level(fields, max_sub_layers_minus1);
    return fields.ue_up_to(15);
}

} // namespace

void skip_profile_tier_level(field_reader &fields, uint32_t max_sub_layers_minus1)
{
    fields.skip(88 + 8); // general profile, general_level_idc
    bool has_profile[8], has_level[8];
    for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
        has_profile[i] = fields.u(1) != 0;
        has_level[i] = fields.u(1) != 0;
    }
    if (max_sub_layers_minus1 > 0) fields.skip(2 * (8 - max_sub_layers_minus1)); // reserved_zero_2bits
    for (uint32_t i = 0; i < max_sub_layers_minus1; ++i)
        fields.skip((has_profile[i] ? 88 : 0) + (has_level[i] ? 8 : 0));
}

std::optional<uint8_t> set_number(uint32_t track_type, uint8_t kind, std::span<const uint8_t> unit)
{
    const uint32_t header = recovery::codec_of(track_type)->unit_header;
    const bool h264 = header == 1;
    if (unit.size() <= header) return std::nullopt;
    field_reader fields(unit.subspan(header));
    uint32_t number = 0;
    if (kind == MEMENTO_VPS) {
        number = fields.u(4);
    } else if (kind == MEMENTO_PPS) {
        number = fields.ue_up_to(h264 ? 255 : 63);
    } else if (h264) {
        fields.skip(24); // profile, constraints, level
        number = fields.ue_up_to(31);
    } else {
        number = h265_sps_number(fields);
    }
    if (!fields.good()) return std::nullopt;
    return static_cast<uint8_t>(number);
}

} // namespace mediafiles::recorder
