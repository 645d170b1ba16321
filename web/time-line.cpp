#include "time-line.h"

#include <algorithm>

namespace mediafiles::web {

using namespace recovery;

namespace {

constexpr uint32_t window_size = 64u << 10;

// The delay before a track is part of its duration (see movie-header.cpp): what its samples do not fill.
uint64_t delay_of(const mediafiles_source &file, const header_track &track)
{
    window runs(file, window_size);
    uint64_t ticks = 0;
    for (uint32_t i = 0; i < track.stts.count; ++i) {
        const uint8_t *run = runs.view(track.stts.offset + uint64_t{i} * 8, 8);
        if (!run) return 0;
        ticks += uint64_t{be32(run)} * be32(run + 4);
    }
    return track.duration > ticks ? track.duration - ticks : 0;
}

} // namespace

timed_samples::timed_samples(const mediafiles_source &file, const header_track &track)
    : track_(track), places_(file, track, window_size), runs_(file, window_size), keys_(file, window_size),
      time_(delay_of(file, track))
{
    is_key(); // finds the first one
}

bool timed_samples::begin_run()
{
    if (run_ == track_.stts.count) return false;
    const uint8_t *entry = runs_.view(track_.stts.offset + uint64_t{run_} * 8, 8);
    if (!entry) return false;
    left_ = be32(entry);
    duration_ = be32(entry + 4);
    ++run_;
    return left_ != 0;
}

// Whether the current sample is one; without stss all are (ISO/IEC 14496-12 8.6.2).
bool timed_samples::is_key()
{
    if (!track_.stss.present) return true;
    const bool key = number_ != 0 && number_ == next_key_;
    if (!key && number_ != 0) return false;
    const uint8_t *entry = key_ < track_.stss.count ? keys_.view(track_.stss.offset + uint64_t{key_} * 4, 4) : nullptr;
    next_key_ = entry ? be32(entry) : 0;
    ++key_;
    return key;
}

bool timed_samples::next(timed_sample &out)
{
    extent place;
    if (!places_.next(place) || (left_ == 0 && !begin_run())) return false;
    --left_;
    ++number_;
    out = {time_, duration_, static_cast<uint32_t>(place.size), is_key()};
    time_ += duration_;
    return true;
}

uint64_t longest_step(const header_track &track)
{
    const uint64_t usual = track.stsz.count == 0 ? 0 : track.duration / track.stsz.count;
    return std::max<uint64_t>(track.timescale, 4 * usual);
}

std::vector<gap> gaps_of(const mediafiles_source &file, const header_track &track, size_t most)
{
    std::vector<gap> gaps;
    const uint64_t longest = longest_step(track);
    timed_samples samples(file, track);
    timed_sample sample;
    while (gaps.size() < most && samples.next(sample))
        if (sample.duration > longest)
            gaps.push_back({static_cast<double>(sample.begin) / track.timescale,
                            static_cast<double>(sample.begin + sample.duration) / track.timescale});
    return gaps;
}

std::vector<column> columns_of(const mediafiles_source &file, const header_track &track, double begin, double end,
                               uint32_t count)
{
    std::vector<column> columns(count);
    const uint64_t longest = longest_step(track);
    const auto place = [&](uint64_t ticks) {
        return (static_cast<double>(ticks) / track.timescale - begin) / (end - begin) * count;
    };
    timed_samples samples(file, track);
    timed_sample sample;
    while (samples.next(sample)) {
        const double first = place(sample.begin), after = place(sample.begin + sample.duration);
        if (first >= count) break;
        if (sample.duration > longest)
            for (auto i = static_cast<uint32_t>(std::max(first, 0.0)); i < std::min<double>(after, count); ++i)
                columns[i].gap = 1;
        if (first < 0) continue;
        column &at = columns[static_cast<uint32_t>(first)];
        ++at.samples;
        at.keys += sample.key;
        at.largest = std::max(at.largest, sample.size);
    }
    return columns;
}

} // namespace mediafiles::web
