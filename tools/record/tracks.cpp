#include "tools/record/tracks.h"

#include <algorithm>
#include <utility>

namespace tools {

namespace {

/* The size of pictures may change within a track, what sound is may not. */
bool fits(const stream_info &track, const stream_info &stream)
{
    if (track.kind != stream.kind) return false;
    const auto &a = track.description.audio, &b = stream.description.audio;
    return track.kind != codec::aac || (a.channels == b.channels && a.sample_rate == b.sample_rate);
}

} // namespace

std::vector<size_t> tracks::adopt(size_t source, std::shared_ptr<const connection> now)
{
    source_streams found{std::move(now), {}};
    std::vector<size_t> added;
    for (const stream_info &stream : found.connected->streams) {
        size_t track = 0;
        const auto is_free = [&] { return std::ranges::count(found.tracks, track) == 0; };
        while (track < all.size() && !(all[track].source == source && fits(all[track].stream, stream) && is_free()))
            ++track;
        if (track == all.size()) {
            all.push_back({.source = source, .stream = stream, .can_wait = found.connected->can_wait});
            added.push_back(track);
        }
        all[track].can_wait = found.connected->can_wait;
        found.tracks.push_back(track);
    }
    sources_[source] = std::move(found);
    return added;
}

bool tracks::need_a_recorder() const
{
    if (recorded_.size() == MP4_MAX_TRACKS) return false;
    return std::ranges::any_of(sources_, [this](const source_streams &each) {
        return std::ranges::any_of(each.tracks, [this](size_t track) { return !all[track].recorded_as; });
    });
}

std::vector<size_t> tracks::for_recorder()
{
    recorded_.clear();
    for (track_state &each : all) each.recorded_as.reset();
    for (const source_streams &each : sources_) {
        for (const size_t track : each.tracks) {
            if (recorded_.size() == MP4_MAX_TRACKS) continue;
            all[track].recorded_as = static_cast<uint32_t>(recorded_.size());
            recorded_.push_back(track);
        }
    }
    return recorded_;
}

} // namespace tools
