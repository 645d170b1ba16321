/** When frames are due that are recorded no faster than their times run. */
#ifndef TOOLS_RECORD_PACE_H
#define TOOLS_RECORD_PACE_H

#include <chrono>
#include <cstdint>
#include <optional>

namespace tools {

class pace {
public:
    using clock = std::chrono::steady_clock;

    clock::time_point due(int64_t time, clock::time_point now)
    {
        const auto planned = time_ ? moment_ + std::chrono::nanoseconds(time - *time_) : now;
        if (time_ && planned < now + longest_pause && planned > now - longest_pause) return planned;
        time_ = time;
        return moment_ = now;
    }

private:
    /* A longer jump in the times is not waited for. */
    static constexpr auto longest_pause = std::chrono::seconds(10);

    std::optional<int64_t> time_; // ns: a frame with this time was due at the moment
    clock::time_point moment_;
};

} // namespace tools

#endif
