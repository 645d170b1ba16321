/**
 * Frames go from the sources to the recorder, in the order of their times. A
 * source that can wait does so while the recorder's queue is half full, so that
 * nothing of a file is dropped; a stream of datagrams cannot, and the recorder
 * drops whole groups of pictures when the medium does not keep up.
 *
 * What the recorder does is seen by its events. The recording of one file ends
 * when it cannot be written any longer; with numbered files it goes on as soon
 * as there is room. A recorder's tracks are fixed, so another one goes on where
 * a source comes with streams that it has no track for, and where the source
 * that decides on where files begin stays away.
 */
#include "tools/record/record.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include <poll.h>

#include "tools/failure.h"
#include "tools/print.h"
#include "tools/record/event-message.h"
#include "tools/record/output.h"
#include "tools/record/pace.h"
#include "tools/record/recorded-files.h"
#include "tools/record/service-manager.h"
#include "tools/record/sources.h"
#include "tools/record/status.h"
#include "tools/record/tracks.h"
#include "tools/seconds.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

/* How long the sources that are there wait for the others before the recording begins. */
constexpr auto longest_start = 5s;

/* How long the first frames are looked at before it begins. */
constexpr auto time_to_look_ahead = 1s;

/* A source that is away for longer has no say any more in where files begin. */
constexpr auto longest_absence = 10s;

/*
 * A frame this far after the end of the duration shows that no other track has a frame left before it: files
 * interleave their tracks in fragments of many seconds.
 */
constexpr int64_t duration_slack = 30 * second;

/* By the clock a recording of live sources ends so long after its duration. */
constexpr auto live_slack = 1s;

/* How often a wait for room in the queue, which nothing interrupts, looks at what else happens. */
constexpr auto poll_interval = 50ms;

class recording {
public:
    recording(const record_options &options, console &console, signals &signals, recording_summary &summary,
              int result_descriptor)
        : options_(options), console_(console), signals_(signals), summary_(summary), place_(place_of(options.output)),
          files_(place_.directory, options.keep_journal), tracks_(options.inputs.size()),
          status_file_(options.status, result_descriptor)
    {
    }

    /** Throws what keeps it from beginning. */
    void run();

    /** Reports an error that ends the recording; the first error also goes into the summary. */
    void fail(const std::string &text);

private:
    void await_sources();
    bool are_sources_there(steady::time_point now);
    void look_ahead();
    void adopt(size_t source, const std::shared_ptr<const connection> &now);
    void leave_absent_sources(steady::time_point now);
    void begin_recorder();
    void end_recorder();
    std::string stream_of(size_t track) const;
    std::string reordering(const std::string &stream) const;

    void record_frames();
    bool is_over();
    void wait(steady::time_point until);
    void attend(steady::time_point until);
    void obey(int signal);
    void report_sources();
    steady::time_point report_status(steady::time_point now);
    recording_status status(steady::time_point now);

    bool add(const source_frame &next);
    bool await_room(size_t bytes);
    void push(size_t track, const frame &content);
    void leave_out(size_t track, const char *why);
    int64_t following(size_t track, int64_t time);
    void report_first(uint64_t count, size_t track, const char *what, const char *why);
    bool is_within_duration(track_state &track, int64_t time);
    bool is_duration_over() const;

    void report(const std::string &text);
    void heed_events();
    void heed(const mediafiles_recorder_event &event);
    void end(const std::string &text);
    mediafiles_recorder_stats stats() const;
    void finish();
    void show_progress();

    const record_options &options_;
    console &console_;
    signals &signals_;
    recording_summary &summary_;

    /* The sources go first: their threads read what the others need not know. */
    recorder_ptr recorder_;
    std::optional<sources> sources_;

    output_place place_;
    recorded_files files_;
    tracks tracks_;
    std::vector<std::string> lost_;                 // errors of sources that are over, by source; empty: none yet
    std::optional<int64_t> first_time_;             // of the recording, ns
    int64_t latest_time_ = 0;                       // ns
    std::optional<steady::time_point> first_there_; // the first source had a frame
    std::optional<steady::time_point> wall_end_;    // of a duration, for live sources
    bool is_stopped_ = false;                       // by a signal
    bool has_ended_ = false;                        // nothing more can be written
    bool is_held_up_ = false;                       // it was reported that frames wait, or that none can be written
    pace pace_;

    status_file status_file_;
    std::string status_problem_; // as it was reported
    steady::time_point next_status_, next_watchdog_;
    const std::optional<std::chrono::microseconds> watchdog_ = service_manager::watchdog_interval();
    steady::time_point rate_since_ = steady::now();
    uint64_t rate_bytes_ = 0; // that were stored then
    steady::duration lag_{};  // of the latest frame
};

std::string stream_name(const std::string &source, int index)
{
    return source + ": stream " + std::to_string(index);
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

void recording::run()
{
    sources_.emplace(options_.inputs, options_.retry);
    lost_.resize(sources_->size());
    for (size_t i = 0; i < sources_->size(); ++i) summary_.sources.push_back({.name = sources_->at(i).name().shown});
    service_manager::notify("READY=1"); // whatever is away: it is waited for
    await_sources();
    look_ahead();
    if (is_stopped_) throw failure("stopped", options_.output, "nothing was recorded yet");

    sources_->begin();
    begin_recorder();
    if (options_.pre_event > 0) console_.note(options_.output + " waits for events (SIGUSR1)");
    try {
        record_frames();
    } catch (const std::exception &problem) { // what was recorded is finished
        end(problem.what());
    }
    finish();
}

/* Until all are there; for those that stay away not for ever. */
void recording::await_sources()
{
    while (!is_stopped_ && !are_sources_there(steady::now()))
        wait(first_there_ ? *first_there_ + longest_start : steady::time_point::max());
    report_sources();
    const auto there = sources_->there();
    for (size_t i = 0; i < there.size(); ++i)
        if (there[i]) adopt(i, sources_->at(i).front()->from);
    if (!is_stopped_ && tracks_.all.empty())
        throw failure("nothing to record", sources_->at(0).name().shown, "no stream that can be recorded");
}

bool recording::are_sources_there(steady::time_point now)
{
    size_t there = 0, over = 0;
    for (size_t i = 0; i < sources_->size(); ++i) {
        source &each = sources_->at(i);
        if (each.front()) {
            ++there;
        } else if (each.state() == source_state::lost) {
            report_sources();
            throw std::runtime_error(each.error());
        } else {
            over += each.state() == source_state::ended;
        }
    }
    if (there > 0 && !first_there_) first_there_ = now;
    return there + over == sources_->size() || (first_there_ && now >= *first_there_ + longest_start);
}

/* The next frames of every video stream show whether pictures are reordered. */
void recording::look_ahead()
{
    const auto until = steady::now() + time_to_look_ahead;
    const auto has_looked = [this] {
        for (size_t i = 0; i < sources_->size(); ++i)
            if (!sources_->at(i).has_looked_ahead()) return false;
        return true;
    };
    while (!is_stopped_ && !has_looked() && steady::now() < until) wait(until);
    for (size_t i = 0; i < sources_->size(); ++i)
        if (const auto found = sources_->at(i).reordered())
            throw std::runtime_error(
                reordering(stream_name(sources_->at(i).name().shown, found->first->streams[found->second].index)));
}

void recording::adopt(size_t source, const std::shared_ptr<const connection> &now)
{
    const std::string &name = sources_->at(source).name().shown;
    for (const size_t track : tracks_.adopt(source, now)) {
        const stream_info &stream = tracks_.all[track].stream;
        summary_.tracks.push_back({.source = name, .stream = stream.index, .description = stream.description});
        if (stream.timed_by && !options_.inputs[source].frame_rate)
            console_.note(stream_of(track) + " has no timestamps: taken as " + std::to_string(stream.timed_by->num) +
                          "/" + std::to_string(stream.timed_by->den) + " frames a second (--fps)");
    }
    if (recorder_ && tracks_.need_a_recorder()) {
        end_recorder();
        begin_recorder();
    }
}

/* Where files begin is up to the first video track: while its source is away no new file would begin. */
void recording::leave_absent_sources(steady::time_point now)
{
    const auto &recorded = tracks_.recorded();
    const auto is_video = [&](size_t track) { return tracks_.all[track].stream.kind != codec::aac; };
    const auto leading = std::ranges::find_if(recorded, is_video);
    if (leading == recorded.end()) return;
    const size_t away = tracks_.all[*leading].source;
    source &from = sources_->at(away);
    const bool has_others =
        std::ranges::any_of(recorded, [&](size_t t) { return is_video(t) && tracks_.all[t].source != away; });
    if (!has_others || tracks_.has_left(away) || !from.is_idle()) return;
    if (now < from.last_frame() + longest_absence) return;
    tracks_.leave(away);
    end_recorder();
    begin_recorder();
}

void recording::begin_recorder()
{
    std::vector<mp4_track_desc> descriptions;
    for (const size_t track : tracks_.for_recorder()) descriptions.push_back(tracks_.all[track].stream.description);
    for (size_t i = 0; i < tracks_.all.size(); ++i)
        if (!tracks_.all[i].recorded_as && !summary_.tracks[i].left_out && !tracks_.has_left(tracks_.all[i].source)) {
            summary_.tracks[i].left_out = true;
            console_.problem("left out: " + stream_of(i) + ": there are eight tracks already");
        }
    std::vector<struct stat> read_files;
    for (size_t i = 0; i < sources_->size(); ++i)
        if (const auto file = sources_->at(i).name().file()) read_files.push_back(*file);
    recorder_ = start_recorder(options_, place_, descriptions, read_files);
}

/* What it has stored is finished and counted. */
void recording::end_recorder()
{
    mediafiles_recorder_stop(recorder_.get(), -1);
    heed_events();
    console_.clear_progress();
    const mediafiles_recorder_stats counted = stats();
    summary_.lost += counted.frames_dropped;
    for (const size_t i : tracks_.recorded()) {
        const uint32_t own = *tracks_.all[i].recorded_as;
        track_summary &sum = summary_.tracks[i];
        sum.frames += counted.safe[own]; // of a file that could not be finished its recovery keeps these
        summary_.lost += counted.tracks[own].frames - counted.safe[own];
        sum.key_frames += counted.tracks[own].key_frames;
        sum.bytes += counted.tracks[own].bytes;
        sum.dropped += std::exchange(tracks_.all[i].unusable, 0) + counted.tracks[own].refused;
    }
    recorder_.reset();
    if (!place_.is_numbered) place_ = next_place(place_of(options_.output));
}

std::string recording::stream_of(size_t track) const
{
    return stream_name(summary_.tracks[track].source, summary_.tracks[track].stream);
}

std::string recording::reordering(const std::string &stream) const
{
    return "pictures are reordered: " + stream +
           ": a recording with B-frames would play wrongly; encode without them " +
           "(x264, x265: --bframes 0; ffmpeg: -bf 0), or make a file fit: ffmpeg -i IN -c:v libx264 -bf 0 -c:a copy "
           "OUT";
}

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

/* What comes from outside, and what is due by the clock. Waits until something does, at most until the given time. */
void recording::attend(steady::time_point until)
{
    wait(until);
    heed_events();
    leave_absent_sources(steady::now());
    if (console_.wants_progress()) show_progress();
}

void recording::wait(steady::time_point until)
{
    const auto now = steady::now();
    auto wake = std::min({until, now + 1s, report_status(now)});
    for (size_t i = 0; i < sources_->size(); ++i)
        if (const auto due = sources_->at(i).notice_silence(now)) wake = std::min(wake, *due);
    const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(std::max(wake - now, steady::duration::zero()));
    pollfd descriptors[] = {{signals_.descriptor(), POLLIN, 0},
                            {sources_->descriptor(), POLLIN, 0},
                            {recorder_ ? mediafiles_recorder_event_descriptor(recorder_.get()) : -1, POLLIN, 0}};
    if (poll(descriptors, std::size(descriptors), static_cast<int>(timeout.count())) > 0)
        while (const int signal = signals_.take()) obey(signal);
    sources_->drain();
    report_sources();
}

void recording::obey(int signal)
{
    if (signals::ends(signal)) {
        is_stopped_ = true;
    } else if (recorder_ && signal == signals::split) {
        mediafiles_recorder_split(recorder_.get());
    } else if (recorder_ && signal == signals::event) {
        options_.pre_event > 0
            ? mediafiles_recorder_trigger(recorder_.get(), options_.protect_after)
            : mediafiles_recorder_protect(recorder_.get(), options_.protect_before, options_.protect_after);
    }
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
        if (!why.empty() && why != status_problem_) console_.problem(why);
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

/* False when the recording ends with this frame. */
bool recording::add(const source_frame &next)
{
    const frame &content = next.content;
    lag_ = steady::now() - content.arrival;
    if (!tracks_.knows(next.source, content.from.get())) adopt(next.source, content.from);
    const size_t track = tracks_.of(next.source, content.stream);
    if (!tracks_.all[track].recorded_as) return true;
    if (next.step) {
        ++summary_.sources[next.source].steps;
        console_.problem(failure("the time steps", stream_of(track),
                                 print("by %.3f s: the frames are joined on", seconds(*next.step)))
                             .what());
        if (may_split(options_)) mediafiles_recorder_split(recorder_.get());
    }
    if (!is_within_duration(tracks_.all[track], content.time)) return true;
    if (content.reordered) {
        fail(reordering(stream_of(track)));
        return false;
    }
    if (!content.readable)
        leave_out(track, "its framing is broken");
    else if (content.packet->size == 0)
        leave_out(track, "it is empty");
    else if (!tracks_.all[track].can_wait || await_room(static_cast<size_t>(content.packet->size)))
        push(track, content);
    return true;
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
        leave_out(track, "it is too large");
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
    if (count == 1) console_.problem(std::string(what) + ": " + stream_of(track) + ": " + why);
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
    const std::string path = event.path ? files_.path_of(event) : options_.output;
    if (event.kind == MEDIAFILES_EVENT_BEGUN && path == options_.output) return; // as it was asked for

    const event_message message = message_of(event, path, stream_of(tracks_.in_recorder(event.track)));
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
        place_.is_numbered ? report(message.text) : end(message.text);
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

void recording::finish()
{
    service_manager::notify("STOPPING=1");
    report_sources();
    end_recorder();
    summary_.files = files_.list();
    const bool nothing = std::ranges::all_of(summary_.tracks, [](auto &each) { return each.frames == 0; });
    if (!nothing || summary_.error || options_.pre_event > 0) return;
    if (summary_.stopped_by == stop_reason::signal)
        throw failure("stopped", options_.output, "nothing was recorded yet");
    throw failure("nothing was recorded", options_.output, "no frame could be used");
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

} // namespace

recording_summary record(const record_options &options, console &console, signals &signals, int result_descriptor)
{
    recording_summary summary{.output = options.output};
    recording work(options, console, signals, summary, result_descriptor);
    try {
        work.run();
    } catch (const std::bad_alloc &) {
        work.fail(failure("cannot record", options.output, ENOMEM).what());
    } catch (const std::exception &problem) {
        work.fail(problem.what());
    }
    return summary;
}

} // namespace tools
