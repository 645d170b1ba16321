/** The samples that a file shows, as the strict reader finds them. */
#pragma once

#include <algorithm>

#include "tools/reader/reader.h"

struct place {
    uint64_t offset;
    size_t track;
    uint64_t size, ticks; // at the sample's end, from the first one of its track
    bool key;
    uint64_t delay = 0; // of the track, in milliseconds
    auto operator<=>(const place &) const = default;
};

/** In file order. */
inline std::vector<place> places(const mp4::file &file)
{
    std::vector<place> all;
    for (size_t i = 0; i < file.tracks.size(); i++) {
        const mp4::track &t = file.tracks[i];
        const uint64_t delay = !t.edits.empty() && t.edits[0].media_time == -1 ? t.edits[0].duration : 0;
        for (const mp4::sample &s : t.samples) all.push_back({s.offset, i, s.size, s.time + s.duration, s.sync, delay});
    }
    std::ranges::sort(all);
    return all;
}

/** When a sample begins, in nanoseconds after the file's beginning. */
inline int64_t begin_of(const mp4::track &track, const mp4::sample &sample)
{
    const bool delayed = !track.edits.empty() && track.edits[0].media_time == -1;
    const int64_t delay = delayed ? int64_t(track.edits[0].duration) * 1'000'000 : 0;
    return delay + int64_t(sample.time / track.timescale) * 1'000'000'000 +
           int64_t(sample.time % track.timescale) * 1'000'000'000 / track.timescale;
}
