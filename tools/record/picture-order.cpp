#include "tools/record/picture-order.h"

#include <algorithm>
#include <new>

namespace tools {

picture_order::picture_order(const AVCodecParameters *parameters)
    : codec_(avcodec_alloc_context3(nullptr)), parser_(av_parser_init(parameters->codec_id))
{
    if (!codec_ || avcodec_parameters_to_context(codec_.get(), parameters) < 0) throw std::bad_alloc();
    if (parser_) parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

bool picture_order::goes_back(const AVPacket *unit, bool resets)
{
    const bool by_time = times_go_back(unit);
    const bool by_count = counts_go_back(unit, resets);
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

bool picture_order::counts_go_back(const AVPacket *unit, bool resets)
{
    if (!parser_) return false;
    if (resets) highest_count_ = INT32_MIN;
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
