#include "timeline.h"

#include <algorithm>
#include <cstdlib>

#include "codec.h"

namespace mediafiles::recorder {

namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int64_t millisecond = 1'000'000;
constexpr int64_t least_sample = 2 * millisecond; // what begins later than that before the end is the next file's
constexpr int64_t longest_file = ((int64_t{1} << 31) - 50'000) * second; // with room for the longest last sample
constexpr int64_t longest_duration = 0x7FFFFFFF;                         // ticks that the core takes
constexpr int64_t surely_shorter = 3600 * second;                        // at any timescale
constexpr uint32_t video_timescale = 90000;
constexpr uint32_t sound_frame = 1024;                 // samples of PCM in an AAC frame
constexpr uint32_t first_guess = video_timescale / 30; // where no frame has had a successor yet

int64_t floor_mod(int64_t value, int64_t divisor)
{
    const int64_t rest = value % divisor;
    return rest < 0 ? rest + divisor : rest;
}

/* Half up. Whole units and their rest apart, or products would need 128 bits. */
int64_t rescale(int64_t value, int64_t from, int64_t to)
{
    int64_t whole = value / from, rest = value % from;
    if (rest < 0) {
        rest += from;
        --whole;
    }
    return whole * to + static_cast<int64_t>((static_cast<uint64_t>(rest) * static_cast<uint64_t>(to) +
                                              static_cast<uint64_t>(from) / 2) /
                                             static_cast<uint64_t>(from));
}

int64_t to_ticks(int64_t time, uint32_t timescale)
{
    return rescale(time, second, timescale);
}

int64_t to_time(int64_t ticks, uint32_t timescale)
{
    return rescale(ticks, timescale, second);
}

} // namespace

int64_t whole_millisecond(int64_t time)
{
    const int64_t rest = floor_mod(time, millisecond);
    return time - rest + (rest >= millisecond / 2 ? millisecond : 0);
}

timeline::timeline(std::span<const mp4_track_desc> tracks)
{
    for (track_clock &each : clocks_) each = {};
    for (size_t i = 0; i < tracks.size(); ++i) {
        const bool video = recovery::is_video(tracks[i]);
        clocks_[i].timescale = video ? video_timescale : tracks[i].audio.sample_rate;
        clocks_[i].frame_ticks = video ? 0 : sound_frame;
        clocks_[i].usual = video ? first_guess : sound_frame;
    }
}

void timeline::begin(int64_t time)
{
    beginning_ = whole_millisecond(time);
    made_up_ = 0;
    for (track_clock &each : clocks_) each.started = each.holding = each.late = false;
}

bool timeline::has_room_for(uint32_t track, int64_t time) const
{
    const track_clock &clock = of(track);
    const int64_t length = time - beginning_;
    if (length > longest_file || length < -longest_file) return false;
    if (!clock.started) return true;
    const int64_t since = time - clock.origin;
    return since - clock.given < surely_shorter ||
           to_ticks(since - clock.given, clock.timescale) < longest_duration - 1;
}

/* Where a sample begins, in ticks from the track's origin. */
int64_t timeline::place(const track_clock &clock, int64_t time) const
{
    const int64_t ticks = to_ticks(time - clock.origin, clock.timescale);
    if (!clock.started) return ticks;
    const int64_t counted = clock.placed + clock.frame_ticks;
    if (clock.frame_ticks != 0 && std::abs(ticks - counted) <= clock.frame_ticks / 2) return counted;
    return std::max(ticks, clock.placed);
}

bool timeline::is_before(uint32_t track, int64_t time, int64_t end) const
{
    const track_clock &clock = of(track);
    const int64_t begin =
        clock.started ? clock.origin + to_time(place(clock, time), clock.timescale) : whole_millisecond(time);
    return begin <= whole_millisecond(end) - least_sample;
}

/* The core counts from the time that it was given last: it never goes back. */
mp4_time timeline::give(track_clock &clock, int64_t since_origin)
{
    clock.given = std::max(since_origin, clock.given);
    const int64_t time = clock.origin - beginning_ + clock.given;
    return {static_cast<int32_t>(time / second), static_cast<int32_t>(time % second)};
}

mp4_time timeline::start(uint32_t track, int64_t time)
{
    track_clock &clock = clocks_[track];
    clock.origin = std::max(whole_millisecond(time), beginning_);
    clock.placed = place(clock, time); // next to tick 0, or before it: later samples are where they were captured
    clock.given = 0;
    clock.started = true;
    clock.holding = clock.late = false;
    return give(clock, 0);
}

std::optional<mp4_time> timeline::follow(uint32_t track, int64_t time)
{
    track_clock &clock = clocks_[track];
    const int64_t ticks = place(clock, time);
    if (clock.frame_ticks == 0 && ticks > clock.placed) clock.usual = ticks - clock.placed;
    clock.placed = ticks;
    const int64_t since_origin = to_time(ticks, clock.timescale);
    if (clock.late) made_up_ += std::abs(since_origin - clock.given);
    clock.late = false;
    if (clock.holding) return give(clock, since_origin);
    clock.holding = true;
    return std::nullopt;
}

std::optional<mp4_time> timeline::release(uint32_t track)
{
    track_clock &clock = clocks_[track];
    if (!clock.holding) return std::nullopt;
    clock.holding = false;
    clock.late = true;
    return give(clock, to_time(clock.placed + clock.usual, clock.timescale));
}

std::optional<mp4_time> timeline::finish(uint32_t track, int64_t end)
{
    track_clock &clock = clocks_[track];
    if (!clock.holding) return std::nullopt;
    clock.holding = false;
    return give(clock, whole_millisecond(has_room_for(track, end) ? end : usual_next(track)) - clock.origin);
}

int64_t timeline::usual_next(uint32_t track) const
{
    const track_clock &clock = of(track);
    return clock.origin + to_time(clock.placed + clock.usual, clock.timescale);
}

int64_t timeline::last(uint32_t track) const
{
    const track_clock &clock = of(track);
    return clock.origin + to_time(clock.placed, clock.timescale);
}

} // namespace mediafiles::recorder
