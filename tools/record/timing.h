/**
 * From a source's timestamps to the times that frames are recorded with:
 * nanoseconds, rounded once and half up from the exact value, so that no
 * error adds up however long a recording is.
 */
#ifndef TOOLS_RECORD_TIMING_H
#define TOOLS_RECORD_TIMING_H

#include <cstdint>
#include <limits>
#include <optional>

#include <mediafiles/movie.h>

#include "tools/seconds.h"

namespace tools {

/** Both parts are positive and below 2^31. */
struct rational {
    int64_t num;
    int64_t den;
};

constexpr int64_t floor_div(int64_t value, int64_t divisor)
{
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

/** count times unit seconds, in nanoseconds; nothing when the seconds do not fit in 32 bits. */
constexpr std::optional<int64_t> to_nanoseconds(int64_t count, rational unit)
{
    constexpr int64_t limit = std::numeric_limits<int32_t>::max();
    const int64_t whole = floor_div(count, unit.den);
    if (whole > limit / unit.num || whole < -limit / unit.num) return std::nullopt;
    const int64_t rest = (count - whole * unit.den) * unit.num; // in 1/den seconds
    const int64_t seconds = whole * unit.num + rest / unit.den;
    if (seconds > limit) return std::nullopt;
    return seconds * second + (rest % unit.den * second * 2 + unit.den) / (unit.den * 2);
}

/** Times may be negative: nanoseconds stay from 0 to 999999999. */
constexpr mp4_time to_mp4_time(int64_t nanoseconds)
{
    const int64_t seconds = floor_div(nanoseconds, second);
    return {static_cast<int32_t>(seconds), static_cast<int32_t>(nanoseconds - seconds * second)};
}

static_assert(to_nanoseconds(1, {1, 3}) == 333'333'333 && to_nanoseconds(2, {1, 3}) == 666'666'667);
static_assert(to_nanoseconds(1, {1, 2'000'000'000}) == 1 && to_nanoseconds(-1, {1, 2'000'000'000}) == 0);
static_assert(to_nanoseconds(90, {1001, 30000}) == 3'003'000'000 && to_nanoseconds(-1, {1, 3}) == -333'333'333);
static_assert(to_nanoseconds(2'147'483'645, {2'147'483'647, 2'147'483'646}) == 2'147'483'646'000'000'000);
static_assert(!to_nanoseconds(std::numeric_limits<int64_t>::max(), {1, 90000}));
static_assert(to_mp4_time(-1).seconds == -1 && to_mp4_time(-1).nanoseconds == 999'999'999);

/**
 * The times of one stream's frames. A frame without a timestamp follows the
 * one before by the duration of a frame, counted from the last timestamp.
 */
class stream_clock {
public:
    stream_clock(rational time_base, rational frame_duration, int64_t start)
        : time_base_(time_base), frame_duration_(frame_duration), anchor_(start)
    {
    }

    int64_t next(std::optional<int64_t> timestamp)
    {
        const auto given = timestamp ? to_nanoseconds(*timestamp, time_base_) : std::nullopt;
        if (given) {
            anchor_ = *given;
            since_anchor_ = 0;
        }
        return anchor_ + to_nanoseconds(since_anchor_++, frame_duration_).value_or(0);
    }

private:
    rational time_base_;
    rational frame_duration_;
    int64_t anchor_;           // nanoseconds: the last timestamp, or the start of the stream
    int64_t since_anchor_ = 0; // frames
};

} // namespace tools

#endif
