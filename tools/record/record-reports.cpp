/** What the user and who watches the recording learn of it: events of sources and recorder, errors, the status. */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "tools/failure.h"
#include "tools/record/event-message.h"
#include "tools/record/recording.h"
#include "tools/seconds.h"

namespace tools {

std::string recording::stream_of(size_t track) const
{
    return stream_name(summary_.tracks[track].source, summary_.tracks[track].stream);
}

std::string recording::reordering(const std::string &stream) const
{
    return "cannot record: " + stream +
           ": with B-frames it would play wrongly; encode without (x264, x265: --bframes 0; ffmpeg: -bf 0)";
}

void recording::report(const std::string &text)
{
    console_.problem(text);
    if (!summary_.error) summary_.error = text;
}

void recording::fail(const std::string &text)
{
    report(text);
    summary_.stopped_by = stop_reason::error;
}

/* Nothing more is recorded. */
void recording::end(const std::string &text)
{
    has_ended_ = true;
    fail(text);
}

void recording::report_sources()
{
    for (size_t i = 0; i < sources_->size(); ++i) {
        source &each = sources_->at(i);
        while (const auto notice = each.take_notice())
            notice->is_problem ? console_.problem(notice->text) : console_.note(notice->text);
        const source_counts counts = each.counts();
        summary_.sources[i].connections = counts.connections;
        summary_.sources[i].stalls = counts.stalls;
        if (!recorder_ || !lost_[i].empty() || each.state() != source_state::lost || each.front()) continue;
        lost_[i] = each.error();
        report(lost_[i]);
        if (summary_.stopped_by == stop_reason::end)
            summary_.stopped_by = each.name().comes_and_goes ? stop_reason::lost : stop_reason::error;
    }
}

/* To who watches it. @return when the next report is due */
steady::time_point recording::report_status(steady::time_point now)
{
    if (watchdog_ && now >= next_watchdog_) {
        service_manager::notify("WATCHDOG=1");
        next_watchdog_ = now + *watchdog_;
    }
    if (now >= next_status_) {
        const recording_status current = status(now);
        service_manager::notify("STATUS=" + in_words(current));
        const std::string why = status_file_.is_wanted() ? status_file_.write(to_line(current)) : "";
        if (!why.empty() && why != status_problem_) console_.problem(why + "; the recording goes on");
        status_problem_ = why;
        next_status_ = now + std::chrono::nanoseconds(options_.status_interval);
    }
    return watchdog_ ? std::min(next_watchdog_, next_status_) : next_status_;
}

recording_status recording::status(steady::time_point now)
{
    recording_status result;
    for (size_t i = 0; i < sources_->size(); ++i)
        result.sources.push_back({summary_.sources[i], sources_->at(i).state()});
    for (const track_summary &each : summary_.tracks) { // of the recorders that have ended
        result.frames += each.frames;
        result.bytes += each.bytes;
        result.refused += each.dropped;
    }
    result.dropped = summary_.lost;
    result.file = files_.latest();
    result.is_recording = recorder_ != nullptr;
    if (!recorder_) return result;

    const mediafiles_recorder_stats counted = stats();
    result.frames += counted.frames_out;
    for (const auto &track : counted.tracks) result.bytes += track.bytes;
    result.dropped += counted.frames_dropped;
    result.refused += counted.frames_refused;
    for (const track_state &each : tracks_.all) result.refused += each.unusable;
    result.queue_bytes = counted.queue_used;
    result.queue_most = counted.queue_most;
    result.worst_write = seconds(counted.worst_write);
    result.worst_sync = seconds(counted.worst_sync);
    result.unsafe = seconds(counted.unsafe_ns);
    result.free_bytes = counted.free_bytes;
    result.lag = std::chrono::duration<double>(lag_).count();
    const double passed = std::chrono::duration<double>(now - rate_since_).count();
    if (passed > 0)
        result.bit_rate = 8 * static_cast<double>(result.bytes - std::min(result.bytes, rate_bytes_)) / passed;
    rate_since_ = now;
    rate_bytes_ = result.bytes;
    return result;
}

void recording::heed_events()
{
    mediafiles_recorder_event event = {};
    event.size = sizeof event;
    while (mediafiles_recorder_next_event(recorder_.get(), &event, 0) == 1) {
        files_.note(event);
        heed(event);
    }
}

void recording::heed(const mediafiles_recorder_event &event)
{
    const auto waits = [this](size_t track) { return tracks_.all[track].can_wait; };
    if (event.kind == MEDIAFILES_EVENT_STALLED && std::ranges::all_of(tracks_.recorded(), waits)) return;
    if (event.kind == MEDIAFILES_EVENT_GOES_ON && !std::exchange(is_held_up_, false)) return;
    const bool is_missing = is_held_up_ && trouble_ == MEDIAFILES_EVENT_NO_MEDIUM; // the cause of these
    if (is_missing && (event.kind == MEDIAFILES_EVENT_STALLED || event.kind == MEDIAFILES_EVENT_WRITE_ERROR)) return;
    const std::string place = !place_.is_numbered        ? options_.output
                              : place_.directory.empty() ? "./"
                                                         : place_.directory;
    const std::string path = event.path ? files_.path_of(event) : place;
    if (event.kind == MEDIAFILES_EVENT_BEGUN && path == options_.output) return; // as it was asked for

    const event_message message = message_of(
        event, {path, stream_of(tracks_.in_recorder(event.track)), trouble_ == MEDIAFILES_EVENT_STALLED}, options_);
    const bool is_slow = event.kind == MEDIAFILES_EVENT_STALLED && !is_held_up_;
    if (message.is == weight::failure || is_slow) trouble_ = event.kind;
    switch (message.is) {
    case weight::none:
        break;
    case weight::note:
        console_.note(message.text);
        break;
    case weight::problem:
        is_held_up_ |= event.kind == MEDIAFILES_EVENT_STALLED;
        console_.problem(message.text);
        break;
    case weight::failure: // of numbered files the next one may succeed
        is_held_up_ = true;
        place_.is_numbered ? report(message.text + "; the recording goes on as soon as it can")
                           : end(message.text + "; the recording ends");
        break;
    }
}

mediafiles_recorder_stats recording::stats() const
{
    mediafiles_recorder_stats result = {};
    result.size = sizeof result;
    mediafiles_recorder_get_stats(recorder_.get(), &result);
    return result;
}

void recording::show_progress()
{
    const mediafiles_recorder_stats counted = stats();
    const double passed = first_time_ ? seconds(latest_time_ - *first_time_) : 0;
    const auto whole = static_cast<unsigned>(passed);
    const double megabytes = static_cast<double>(counted.bytes_out) / 1e6;
    const double rate = passed > 0 ? megabytes * 8 / passed : 0;
    char text[100];
    std::snprintf(text, sizeof text, "%02u:%02u:%04.1f  %ju frames  %.1f MB  %.2f Mbit/s", whole / 3600,
                  whole / 60 % 60, passed - (whole - whole % 60), uintmax_t{counted.frames_out}, megabytes, rate);
    console_.progress(text);
}

} // namespace tools
