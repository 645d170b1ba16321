/**
 * The way of a frame: from the sources, in the order of the times, at its time,
 * until the duration is reached, into the recorder. A source that can wait does
 * so while the recorder's queue is half full, so that nothing of a file is
 * dropped; a stream of datagrams cannot, and the recorder drops whole groups of
 * pictures when the medium does not keep up.
 */
#include <algorithm>
#include <cerrno>

#include "tools/failure.h"
#include "tools/print.h"
#include "tools/record/event-message.h"
#include "tools/record/recording.h"
#include "tools/seconds.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

/*
 * A frame this far after the end of the duration shows that no other track has a frame left before it: files
 * interleave their tracks in fragments of many seconds.
 */
constexpr int64_t duration_slack = 30 * second;

/* By the clock a recording of live sources ends so long after its duration. */
constexpr auto live_slack = 1s;

/* What the summary counts as a gap; frames may come at odd times. */
constexpr int64_t smallest_gap = second;

/* How often a wait for room in the queue, which nothing interrupts, looks at what else happens. */
constexpr auto poll_interval = 50ms;

} // namespace

void recording::record_frames()
{
    std::optional<source_frame> next;
    while (!is_over()) {
        if (!next) next = sources_->take();
        if (!next && sources_->ended()) break;
        const auto now = steady::now();
        auto until = sources_->due();
        if (next) until = options_.realtime ? pace_.due(next->content.time, now) : now;
        attend(until);
        if (!next || steady::now() < until) continue;
        if (!add(*next)) return;
        next.reset();
    }
    if (is_stopped_) summary_.stopped_by = stop_reason::signal;
}

bool recording::is_over()
{
    if (is_stopped_ || has_ended_) return true;
    if (!options_.duration || !is_duration_over()) return false;
    summary_.stopped_by = stop_reason::duration;
    return true;
}

/* False when the recording ends with this frame. */
bool recording::add(const source_frame &next)
{
    const frame &content = next.content;
    lag_ = steady::now() - content.arrival;
    if (!tracks_.knows(next.source, content.from.get())) adopt(next.source, content.from);
    const size_t track = tracks_.of(next.source, content.stream);
    if (!tracks_.all[track].recorded_as) return true;
    note_times(next, track);
    if (!is_within_duration(tracks_.all[track], content.time)) return true;
    if (content.reordered) {
        fail(reordering(stream_of(track)));
        return false;
    }
    if (!content.readable)
        leave_out(track, "damaged (its framing is broken)");
    else if (content.packet->size == 0)
        leave_out(track, "it is empty");
    else if (!tracks_.all[track].can_wait || await_room(static_cast<size_t>(content.packet->size)))
        push(track, content);
    return true;
}

/* Where the source's times jump, and where it had nothing for a while. */
void recording::note_times(const source_frame &next, size_t track)
{
    constexpr int64_t smallest_shown = second / 1000;
    const auto &[time, step, gap] = next.time;
    source_summary &source = summary_.sources[next.source];
    if (gap > smallest_gap) {
        ++source.gaps;
        source.gap_time += gap;
    }
    if (!step) return;
    ++source.steps;
    std::string text = print("%.3f s: recorded ", seconds(*step));
    text += gap < smallest_shown ? "without a gap" : print("after a gap of %.3f s", seconds(gap));
    if (may_split(options_)) {
        mediafiles_recorder_split(recorder_.get());
        text += ", in a new file from the next key frame on";
    }
    console_.problem(failure("time jump", stream_of(track), text).what());
}

/* False when the recording has ended meanwhile. */
bool recording::await_room(size_t bytes)
{
    while (mediafiles_recorder_await_room(recorder_.get(), bytes, std::chrono::nanoseconds(poll_interval).count()) ==
           0) {
        attend(steady::now());
        if (is_stopped_ || has_ended_) return false;
    }
    return true; // what is too large is refused when it is pushed
}

void recording::push(size_t track, const frame &content)
{
    const AVPacket *packet = content.packet.get();
    const int result = mediafiles_recorder_push(recorder_.get(), *tracks_.all[track].recorded_as, packet->data,
                                                static_cast<size_t>(packet->size), following(track, content.time), 0);
    if (result < 0 && errno == EMSGSIZE)
        leave_out(track, print("its %d bytes do not fit into --queue; make that larger", packet->size).c_str());
    else if (result < 0)
        end(failure("cannot write", options_.output, errno).what());
    else if (result == 0 && content.damaged)
        report_first(++summary_.tracks[track].damaged, track, "damaged frame", "recorded as it is");
}

void recording::leave_out(size_t track, const char *why)
{
    report_first(++tracks_.all[track].unusable, track, "frame dropped", why);
}

/*
 * The time of a frame within its track. Frames of the same time would be parts of one, and where times step back a new
 * file would begin: such a frame lasts no time, less than a tick, until the times have caught up.
 */
int64_t recording::following(size_t track, int64_t time)
{
    auto &own = tracks_.all[track];
    if (own.latest && time < *own.latest)
        report_first(++summary_.tracks[track].backwards, track, "time runs backwards", "the frame lasts no time");
    own.given = own.latest ? std::max(time, own.given + 1) : time;
    own.latest = std::max(own.latest.value_or(time), time);
    latest_time_ = std::max(latest_time_, time);
    return own.given;
}

void recording::report_first(uint64_t count, size_t track, const char *what, const char *why)
{
    if (count == 1) console_.problem(std::string(what) + ": " + stream_of(track) + ": " + why + more);
}

bool recording::is_within_duration(track_state &track, int64_t time)
{
    if (!first_time_) {
        first_time_ = latest_time_ = time;
        const auto &name = sources_->at(track.source).name();
        if (options_.duration && name.comes_and_goes)
            wall_end_ = steady::now() + std::chrono::nanoseconds(*options_.duration) + live_slack;
    }
    if (!options_.duration || time - *first_time_ < *options_.duration) return true;
    track.reached_duration = true;
    latest_time_ = std::max(latest_time_, time);
    return false;
}

/* Each track has come to it or has no more frames for now. */
bool recording::is_duration_over() const
{
    if (wall_end_ && steady::now() >= *wall_end_) return true;
    if (!first_time_) return false;
    if (latest_time_ - *first_time_ >= *options_.duration + duration_slack) return true;
    const auto has_reached = [this](size_t track) {
        const track_state &each = tracks_.all[track];
        return each.reached_duration || sources_->at(each.source).is_idle();
    };
    const auto &recorded = tracks_.recorded();
    return std::ranges::any_of(recorded, [this](size_t t) { return tracks_.all[t].reached_duration; }) &&
           std::ranges::all_of(recorded, has_reached);
}

} // namespace tools
