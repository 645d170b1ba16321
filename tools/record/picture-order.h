/**
 * Finds out whether a stream's pictures are shown in another order than they
 * are coded in (B-frames). A recording keeps one time for each frame and no
 * composition offsets, so such a stream would play wrongly.
 *
 * Two things show it: presentation times that run backwards while decoding
 * times run on, and the picture order count of the slice headers, which also
 * works where timestamps are missing or were made up.
 */
#ifndef TOOLS_RECORD_PICTURE_ORDER_H
#define TOOLS_RECORD_PICTURE_ORDER_H

#include <cstdint>
#include <span>

#include "tools/record/libav.h"

namespace tools {

class picture_order {
public:
    /** @param parameters of the stream in Annex-B form */
    explicit picture_order(const AVCodecParameters *parameters);

    /** Looks at the next access unit. @return whether it is shown before one that came earlier */
    bool goes_back(const AVPacket *unit);

private:
    bool times_go_back(const AVPacket *unit);
    bool counts_go_back(const AVPacket *unit);
    bool restarts_counts(std::span<const uint8_t> unit) const;

    codec_ptr codec_;
    parser_ptr parser_;
    int highest_count_ = INT32_MIN; // since the last reset
    int64_t last_pts_ = AV_NOPTS_VALUE;
    int64_t last_dts_ = AV_NOPTS_VALUE;
};

} // namespace tools

#endif
