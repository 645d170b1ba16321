/**
 * Capture time as it passes: of the leading track's frames, in nanoseconds
 * since the first of them. A step of the capture clock counts as no time, so
 * that "30 s ago" has a sense after one.
 */
#pragma once

#include <cstdint>

namespace mediafiles::recorder {

class capture_line {
public:
    /** @param longest  what is longer is a step */
    explicit capture_line(int64_t longest) : longest_(longest) {}

    void pass(int64_t time, bool steps)
    {
        const int64_t passed = has_time_ ? time - time_ : 0;
        if (passed > 0 && passed <= longest_ && !steps)
            elapsed_ = passed < INT64_MAX - elapsed_ ? elapsed_ + passed : INT64_MAX;
        time_ = time;
        has_time_ = true;
    }
    int64_t elapsed() const { return elapsed_; }

private:
    const int64_t longest_;
    int64_t elapsed_ = 0, time_ = 0;
    bool has_time_ = false;
};

} // namespace mediafiles::recorder
