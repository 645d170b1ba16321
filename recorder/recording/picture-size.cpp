#include "picture-size.h"

#include <algorithm>

#include "codec.h"
#include "parameter-set.h"

namespace mediafiles::recorder {

namespace {

/* By chroma_format_idc: luma samples to a chroma sample (ISO/IEC 14496-10, 6.2; ISO/IEC 23008-2, 6.2). */
constexpr uint32_t sub_width[] = {1, 2, 2, 1}, sub_height[] = {1, 2, 1, 1};

/* What is cut away from all four sides, in units of luma samples. */
struct window {
    uint64_t columns = 0, rows = 0;
};

/* Left and right, then top and bottom, after a flag. */
window read_window(field_reader &fields)
{
    if (!fields.u(1)) return {};
    const uint64_t columns = uint64_t{fields.ue()} + fields.ue();
    const uint64_t rows = uint64_t{fields.ue()} + fields.ue();
    return {columns, rows};
}

std::optional<picture_size> cropped(const field_reader &fields, uint64_t width, uint64_t height, window cut)
{
    if (!fields.good() || cut.columns >= width || cut.rows >= height) return std::nullopt;
    width -= cut.columns;
    height -= cut.rows;
    if (width > longest_side || height > longest_side) return std::nullopt;
    return picture_size{static_cast<uint32_t>(width), static_cast<uint32_t>(height)};
}

/* scaling_list (ISO/IEC 14496-10, 7.3.2.1.1.1): differences, until a scale becomes 0. */
void skip_scaling_list(field_reader &fields, int count)
{
    for (int i = 0, scale = 8; i < count && scale != 0; ++i) scale = (scale + fields.se_within(-128, 127) + 256) % 256;
}

bool has_chroma_format(uint32_t profile)
{
    constexpr uint32_t profiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::ranges::find(profiles, profile) != std::end(profiles);
}

/* The fields that only high profiles have. @return ChromaArrayType */
uint32_t read_chroma(field_reader &fields)
{
    const uint32_t format = fields.ue_up_to(3);
    const bool separate_planes = format == 3 && fields.u(1);
    fields.ue_up_to(6); // bit_depth_luma_minus8
    fields.ue_up_to(6); // bit_depth_chroma_minus8
    fields.skip(1);     // qpprime_y_zero_transform_bypass_flag
    if (fields.u(1))    // seq_scaling_matrix_present_flag
        for (int i = 0; i < (format == 3 ? 12 : 8); ++i)
            if (fields.u(1)) skip_scaling_list(fields, i < 6 ? 16 : 64);
    return separate_planes ? 0 : format;
}

void skip_order_counts(field_reader &fields)
{
    fields.ue_up_to(12); // log2_max_frame_num_minus4
    const uint32_t type = fields.ue_up_to(2);
    if (type == 0) fields.ue_up_to(12); // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1) return;
    fields.skip(1); // delta_pic_order_always_zero_flag
    fields.se();    // offset_for_non_ref_pic
    fields.se();    // offset_for_top_to_bottom_field
    const uint32_t count = fields.ue_up_to(255);
    for (uint32_t i = 0; i < count; ++i) fields.se(); // offset_for_ref_frame
}

/* ISO/IEC 14496-10, 7.3.2.1.1 */
std::optional<picture_size> read_h264(field_reader fields)
{
    const uint32_t profile = fields.u(8);
    fields.skip(16); // constraints, level
    fields.ue_up_to(31);
    const uint32_t chroma = has_chroma_format(profile) ? read_chroma(fields) : 1;
    skip_order_counts(fields);
    fields.ue();    // max_num_ref_frames
    fields.skip(1); // gaps_in_frame_num_value_allowed_flag
    const uint64_t width = (uint64_t{fields.ue()} + 1) * 16;
    const uint64_t map_units = uint64_t{fields.ue()} + 1;
    const uint32_t fields_in_frame = fields.u(1) ? 1 : 2;
    if (fields_in_frame == 2) fields.skip(1); // mb_adaptive_frame_field_flag
    fields.skip(1);                           // direct_8x8_inference_flag
    const window cut = read_window(fields);
    auto size = cropped(fields, width, map_units * 16 * fields_in_frame,
                        {cut.columns * sub_width[chroma], cut.rows * sub_height[chroma] * fields_in_frame});
    if (size) size->has_fields = fields_in_frame == 2;
    return size;
}

/* ISO/IEC 23008-2, 7.3.2.2.1 */
std::optional<picture_size> read_h265(field_reader fields)
{
    fields.skip(4); // sps_video_parameter_set_id
    const uint32_t max_sub_layers_minus1 = fields.u(3);
    if (max_sub_layers_minus1 > 6) return std::nullopt;
    fields.skip(1); // sps_temporal_id_nesting_flag
    skip_profile_tier_level(fields, max_sub_layers_minus1);
    fields.ue_up_to(15);
    const uint32_t format = fields.ue_up_to(3);
    if (format == 3) fields.skip(1); // separate_colour_plane_flag
    const uint64_t width = fields.ue(), height = fields.ue();
    const window cut = read_window(fields);
    return cropped(fields, width, height, {cut.columns * sub_width[format], cut.rows * sub_height[format]});
}

} // namespace

std::optional<picture_size> read_picture_size(uint32_t track_type, std::span<const uint8_t> sps)
{
    const recovery::codec *codec = recovery::codec_of(track_type);
    if (!codec || !codec->is_video() || sps.size() <= codec->unit_header ||
        codec->set_kind(codec->unit_type(sps[0])) != MEMENTO_SPS)
        return std::nullopt;
    const field_reader fields(sps.subspan(codec->unit_header));
    return codec->unit_header == 1 ? read_h264(fields) : read_h265(fields);
}

} // namespace mediafiles::recorder
