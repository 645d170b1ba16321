/**
 * The times of a pad's buffers: running times, in the order in which a recorder
 * takes them.
 *
 * A recording has one time for each picture, so pictures have to come in the
 * order in which they are shown.
 */
#pragma once

#include <cstdint>
#include <optional>

#include <gst/gst.h>

namespace mediafiles::gstreamer {

class buffer_times {
public:
    buffer_times() { gst_segment_init(&segment_, GST_FORMAT_UNDEFINED); }

    /** After a flush. */
    void reset() { *this = buffer_times(); }
    void set_segment(const GstSegment &segment);
    bool has_segment() const { return segment_.format == GST_FORMAT_TIME; }

    /** Whether it is shown before a picture that has come earlier: a B-frame. */
    bool goes_back(GstBuffer *buffer);

    /** Nanoseconds; nothing when neither the buffer nor those before it say when it is. */
    std::optional<int64_t> time_of(GstBuffer *buffer);

    /** The running time of a position. */
    std::optional<int64_t> running_time(GstClockTime time) const;

private:
    GstSegment segment_;
    std::optional<GstClockTime> latest_shown_, latest_decoded_; // of the segment
    std::optional<int64_t> latest_;                             // running time that was given
    std::optional<int64_t> length_;                             // of the buffer that it was given to
};

} // namespace mediafiles::gstreamer
