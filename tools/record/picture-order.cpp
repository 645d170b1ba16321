#include "tools/record/picture-order.h"

#include <algorithm>
#include <new>

#include <mediafiles/h264-parser.h>

namespace tools {

namespace {

constexpr unsigned h264_slice = 1, h264_idr = 5;                                  // nal_unit_type
constexpr unsigned h265_first_bla = 16, h265_last_idr = 20, h265_slices_end = 32; // likewise; CRA is 21

} // namespace

picture_order::picture_order(const AVCodecParameters *parameters)
    : codec_(avcodec_alloc_context3(nullptr)), parser_(av_parser_init(parameters->codec_id))
{
    if (!codec_ || avcodec_parameters_to_context(codec_.get(), parameters) < 0) throw std::bad_alloc();
    if (parser_) parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

bool picture_order::goes_back(const AVPacket *unit)
{
    const bool by_time = times_go_back(unit);
    const bool by_count = counts_go_back(unit);
    return by_time || by_count;
}

bool picture_order::times_go_back(const AVPacket *unit)
{
    /* When both run backwards the source's clock has jumped: that says nothing about the order. */
    const bool known = unit->pts != AV_NOPTS_VALUE && unit->dts != AV_NOPTS_VALUE;
    const bool back = known && last_pts_ != AV_NOPTS_VALUE && unit->pts < last_pts_ && unit->dts > last_dts_;
    if (known) {
        last_pts_ = unit->pts;
        last_dts_ = unit->dts;
    }
    return back;
}

/* By the first slice: all slices of a picture are of one kind. */
bool picture_order::restarts_counts(std::span<const uint8_t> unit) const
{
    const bool is_h264 = codec_->codec_id == AV_CODEC_ID_H264;
    uint32_t offset, length; // the search of H.264 serves both codecs
    while (h264_parser_find_start_code(unit.data(), static_cast<uint32_t>(unit.size()), &offset, &length)) {
        unit = unit.subspan(offset + length);
        if (unit.empty()) break;
        const unsigned type = is_h264 ? unit[0] & 0x1Fu : unit[0] >> 1 & 0x3Fu;
        if (is_h264 && type >= h264_slice && type <= h264_idr) return type == h264_idr;
        if (!is_h264 && type < h265_slices_end) return type >= h265_first_bla && type <= h265_last_idr;
    }
    return false;
}

bool picture_order::counts_go_back(const AVPacket *unit)
{
    if (!parser_) return false;
    if (restarts_counts({unit->data, static_cast<size_t>(unit->size)})) highest_count_ = INT32_MIN;
    uint8_t *out = nullptr;
    int out_size = 0;
    av_parser_parse2(parser_.get(), codec_.get(), &out, &out_size, unit->data, unit->size, unit->pts, unit->dts,
                     unit->pos);
    /* Counts of P pictures also fall when an encoder resets them without an IDR picture. */
    const int count = parser_->output_picture_number;
    const bool back = count < highest_count_ && parser_->pict_type == AV_PICTURE_TYPE_B;
    highest_count_ = back ? highest_count_ : count;
    return back;
}

} // namespace tools
