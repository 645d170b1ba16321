#include "buffer-times.h"

#include <algorithm>

namespace mediafiles::gstreamer {

namespace {

/* Times that run back further are a step of the source's clock. */
constexpr int64_t longest_jitter = 100 * GST_MSECOND;
/* Of pictures of 250 Hz. Times that run back by less are those of a source without an exact clock. */
constexpr GstClockTime shortest_reordering = 4 * GST_MSECOND, longest_reordering = GST_SECOND;
/* What no recording reaches: a recorder refuses it. The length of a buffer can be added to it. */
constexpr int64_t out_of_reach = int64_t{1} << 62, longest_length = out_of_reach / 2;

} // namespace

void buffer_times::set_segment(const GstSegment &segment)
{
    segment_ = segment;
    latest_shown_.reset();
    latest_decoded_.reset();
}

bool buffer_times::goes_back(GstBuffer *buffer)
{
    if (!GST_BUFFER_PTS_IS_VALID(buffer)) return false;
    const GstClockTime shown = GST_BUFFER_PTS(buffer), decoded = GST_BUFFER_DTS(buffer);
    if (GST_BUFFER_IS_DISCONT(buffer)) set_segment(segment_);
    /* When both times run back, the clock of the source has stepped. */
    const bool decoding_goes_on = !latest_decoded_ || !GST_CLOCK_TIME_IS_VALID(decoded) || decoded >= *latest_decoded_;
    const GstClockTime distance = latest_shown_ && shown < *latest_shown_ ? *latest_shown_ - shown : 0;
    const bool back = distance >= shortest_reordering && distance < longest_reordering &&
                      GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) && decoding_goes_on;
    latest_shown_ = shown;
    if (GST_CLOCK_TIME_IS_VALID(decoded)) latest_decoded_ = decoded;
    return back;
}

std::optional<int64_t> buffer_times::running_time(GstClockTime time) const
{
    if (!GST_CLOCK_TIME_IS_VALID(time) || !has_segment()) return std::nullopt;
    guint64 distance = 0;
    const int sign = gst_segment_to_running_time_full(&segment_, GST_FORMAT_TIME, time, &distance);
    if (sign == 0) return std::nullopt;
    return sign * static_cast<int64_t>(std::min<guint64>(distance, out_of_reach));
}

std::optional<int64_t> buffer_times::time_of(GstBuffer *buffer)
{
    auto time = running_time(GST_BUFFER_PTS(buffer));
    if (!time) time = running_time(GST_BUFFER_DTS(buffer));
    if (!time && latest_ && length_) time = std::min(*latest_ + *length_, out_of_reach);
    if (!time) return time;
    if (latest_ && *time < *latest_ && *time >= *latest_ - longest_jitter) time = *latest_ + 1;
    GstClockTime length = GST_BUFFER_DURATION(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(length) && latest_ && *time > *latest_)
        length = static_cast<guint64>(*time) - static_cast<guint64>(*latest_);
    if (GST_CLOCK_TIME_IS_VALID(length)) length_ = static_cast<int64_t>(std::min<guint64>(length, longest_length));
    latest_ = time;
    return time;
}

} // namespace mediafiles::gstreamer
