/** Times as the journal and the recorder count them, in nanoseconds, and as a person reads them. */
#ifndef TOOLS_SECONDS_H
#define TOOLS_SECONDS_H

#include <cstdint>

#include <mediafiles/movie.h>

namespace tools {

inline constexpr int64_t second = 1'000'000'000; // in nanoseconds

constexpr double seconds(int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

constexpr double seconds(const mp4_time &time)
{
    return time.seconds + time.nanoseconds / 1e9;
}

} // namespace tools

#endif
