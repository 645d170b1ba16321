/**
 * Frames go from the sources to the recorder, in the order of their times. A
 * source that can wait does so while the recorder's queue is half full, so that
 * nothing of a file is dropped; a stream of datagrams cannot, and the recorder
 * drops whole groups of pictures when the medium does not keep up.
 *
 * What the recorder does is seen by its events. The recording of one file ends
 * when it cannot be written any longer; with numbered files it goes on as soon
 * as there is room.
 */
#include "tools/record/record.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include "tools/failure.h"
#include "tools/record/event-message.h"
#include "tools/record/output.h"
#include "tools/record/recorded-files.h"
#include "tools/record/sources.h"
#include "tools/seconds.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

using input_list = std::vector<std::unique_ptr<input>>;

/*
 * A frame this far after the end of the duration shows that no other track has a frame left before it: files
 * interleave their tracks in fragments of many seconds.
 */
constexpr int64_t duration_slack = 30 * second;

/* --realtime does not wait for a longer jump in the times. */
constexpr auto longest_pause = 10s;

/* How often a wait looks for events, and for a signal, which wakes no condition variable. */
constexpr auto poll_interval = 50ms;

struct track_state {
    size_t input;
    size_t stream;
    bool can_wait;
    struct {
        int64_t latest;               // ns: of its frames
        std::optional<int64_t> given; // ns: to the last one
    } times = {};
    uint64_t unusable = 0; // frames that were not pushed
    bool reached_duration = false;
};

class recording {
public:
    recording(const record_options &options, console &console, std::atomic<bool> &stop, recording_summary &summary)
        : options_(options), console_(console), stop_(stop), summary_(summary), place_(place_of(options.output)),
          longest_gap_(longest_gap(options)), files_(place_.directory, options.keep_journal)
    {
    }

    /** Throws what keeps it from beginning. */
    void run();

    /** Reports an error that ends the recording; the first error also goes into the summary. */
    void fail(const std::string &text);

private:
    input_list open_inputs();
    void add_tracks(input_list &inputs);
    void add_track(const input &source, size_t input_index, size_t stream);
    std::string stream_of(size_t track) const;
    std::string reordering(size_t track) const;
    size_t track_of(size_t input, size_t stream) const;

    void record_frames();
    steady::time_point due(int64_t time, steady::time_point now);
    bool add(const source_frame &next);
    bool await_room(size_t bytes);
    void push(size_t track, const frame &content);
    void leave_out(size_t track, const char *why);
    int64_t following(size_t track, int64_t time);
    void report_first(uint64_t count, size_t track, const char *what, const char *why);
    bool is_within_duration(track_state &track, int64_t time);
    bool is_duration_over(int64_t time) const;

    void report(const std::string &text);
    void heed_events();
    void heed(const mediafiles_recorder_event &event);
    void end(const std::string &text);
    mediafiles_recorder_stats stats() const;
    void finish();
    void measure();
    void show_progress();

    const record_options &options_;
    console &console_;
    std::atomic<bool> &stop_;
    recording_summary &summary_;

    /* The sources go first: their threads read what the others need not know. */
    recorder_ptr recorder_;
    std::optional<sources> sources_;

    const output_place place_;
    const std::optional<int64_t> longest_gap_;
    recorded_files files_;
    std::vector<track_state> tracks_;   // by the recorder's index, as the summary's
    std::optional<int64_t> first_time_; // of the recording, ns
    int64_t latest_time_ = 0;           // ns
    bool has_ended_ = false;            // nothing more can be written
    bool is_held_up_ = false;           // it was reported that frames wait, or that none can be written

    /* --realtime: the frame with this time was due at that moment. */
    std::optional<int64_t> pace_time_;
    steady::time_point pace_moment_;
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
    input_list inputs = open_inputs();
    add_tracks(inputs);

    std::vector<struct stat> read_files;
    for (const auto &source : inputs)
        if (const auto file = source->file()) read_files.push_back(*file);

    sources_.emplace(std::move(inputs), stop_);
    if (const auto found = sources_->look_ahead_for_reordering())
        throw std::runtime_error(reordering(track_of(found->input, found->stream)));
    if (stop_) throw failure("stopped", options_.output, "nothing was recorded yet");

    std::vector<mp4_track_desc> descriptions;
    for (const track_summary &each : summary_.tracks) descriptions.push_back(each.description);
    recorder_ = start_recorder(options_, place_, descriptions, read_files);
    try {
        record_frames();
    } catch (const std::exception &problem) { // what was recorded is finished
        end(problem.what());
    }
    finish();
}

input_list recording::open_inputs()
{
    input_list inputs;
    for (const input_options &each : options_.inputs) inputs.push_back(std::make_unique<input>(each, stop_));
    return inputs;
}

void recording::add_tracks(input_list &inputs)
{
    for (size_t i = 0; i < inputs.size(); ++i) {
        input &source = *inputs[i];
        for (size_t stream = 0; stream < source.streams().size();) {
            if (tracks_.size() < MP4_MAX_TRACKS)
                add_track(source, i, stream++);
            else
                source.leave_out(stream, "there are eight tracks already");
        }
        for (const auto &[index, what, why] : source.others())
            console_.problem("left out: " + stream_name(source.name(), index) + " (" + what + "): " + why);
    }
    if (tracks_.empty()) throw failure("nothing to record", inputs.front()->name(), "no stream that can be recorded");
}

void recording::add_track(const input &source, size_t input_index, size_t stream)
{
    const source_stream &from = source.streams()[stream];
    tracks_.push_back({.input = input_index, .stream = stream, .can_wait = source.can_wait()});
    summary_.tracks.push_back(
        {.source = source.name(), .stream = from.source()->index, .description = from.description()});
    const auto rate = from.timed_by();
    if (rate && !options_.inputs[input_index].frame_rate)
        console_.note(stream_of(tracks_.size() - 1) + " has no timestamps: taken as " + std::to_string(rate->num) +
                      "/" + std::to_string(rate->den) + " frames a second (--fps)");
}

std::string recording::stream_of(size_t track) const
{
    return stream_name(summary_.tracks[track].source, summary_.tracks[track].stream);
}

std::string recording::reordering(size_t track) const
{
    return "pictures are reordered: " + stream_of(track) + ": a recording with B-frames would play wrongly; " +
           "encode without them (x264, x265: --bframes 0; ffmpeg: -bf 0)";
}

size_t recording::track_of(size_t input, size_t stream) const
{
    const auto is_it = [&](const track_state &each) { return each.input == input && each.stream == stream; };
    return static_cast<size_t>(std::ranges::find_if(tracks_, is_it) - tracks_.begin());
}

void recording::record_frames()
{
    std::optional<source_frame> next;
    while (!stop_ && !has_ended_) {
        heed_events();
        if (!next) next = sources_->take(steady::now() + poll_interval);
        const bool over = !next && sources_->ended(); // before the errors, for an input ends with its error
        if (const auto error = sources_->take_error()) fail(*error);
        if (over) break;

        if (next) {
            const auto now = steady::now();
            const auto moment = due(next->content.time, now);
            if (moment <= now) {
                if (!add(*next)) return;
                next.reset();
            } else {
                /* In short steps, because a signal that another thread receives ends no sleep. */
                std::this_thread::sleep_until(std::min(moment, now + poll_interval));
            }
        }
        if (console_.wants_progress()) show_progress();
    }
    if (stop_) summary_.stopped_by = stop_reason::signal; // which makes the sources end, too
}

/* When a frame is to be recorded. */
steady::time_point recording::due(int64_t time, steady::time_point now)
{
    if (!options_.realtime) return now;
    const auto planned = pace_time_ ? pace_moment_ + std::chrono::nanoseconds(time - *pace_time_) : now;
    if (pace_time_ && planned < now + longest_pause && planned > now - longest_pause) return planned;
    pace_time_ = time;
    return pace_moment_ = now;
}

/* False when the recording ends with this frame. */
bool recording::add(const source_frame &next)
{
    const frame &content = next.content;
    const size_t track = track_of(next.input, content.stream);
    if (!is_within_duration(tracks_[track], content.time)) return !is_duration_over(content.time);
    if (content.reordered) {
        fail(reordering(track));
        return false;
    }
    if (!content.readable)
        leave_out(track, "its framing is broken");
    else if (content.packet->size == 0)
        leave_out(track, "it is empty");
    else if (!tracks_[track].can_wait || await_room(static_cast<size_t>(content.packet->size)))
        push(track, content);
    return true;
}

/* False when the recording has ended meanwhile. */
bool recording::await_room(size_t bytes)
{
    while (mediafiles_recorder_await_room(recorder_.get(), bytes, std::chrono::nanoseconds(poll_interval).count()) ==
           0) {
        heed_events();
        if (stop_ || has_ended_) return false;
        if (console_.wants_progress()) show_progress();
    }
    return true; // what is too large is refused when it is pushed
}

void recording::push(size_t track, const frame &content)
{
    const AVPacket *packet = content.packet.get();
    const int result = mediafiles_recorder_push(recorder_.get(), static_cast<uint32_t>(track), packet->data,
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
    report_first(++tracks_[track].unusable, track, "frame dropped", why);
}

/*
 * The time of a frame within its track. Frames of the same time would be parts of one, and where times step back a new
 * file would begin: such a frame lasts no time, less than a tick, until the times have caught up. Only a source that
 * counts from another time now is not waited for where a new file may begin.
 */
int64_t recording::following(size_t track, int64_t time)
{
    auto &[latest, given] = tracks_[track].times;
    if (given && longest_gap_ && time < latest - *longest_gap_) given.reset();
    if (given && time < latest)
        report_first(++summary_.tracks[track].backwards, track, "time runs backwards", "the frame lasts no time");
    latest = given ? std::max(latest, time) : time;
    given = given ? std::max(time, *given + 1) : time;
    latest_time_ = std::max(latest_time_, time);
    return *given;
}

void recording::report_first(uint64_t count, size_t track, const char *what, const char *why)
{
    if (count == 1) console_.problem(std::string(what) + ": " + stream_of(track) + ": " + why);
}

bool recording::is_within_duration(track_state &track, int64_t time)
{
    if (!first_time_) first_time_ = latest_time_ = time;
    if (!options_.duration || time - *first_time_ < *options_.duration) return true;
    track.reached_duration = true;
    summary_.stopped_by = stop_reason::duration;
    return false;
}

bool recording::is_duration_over(int64_t time) const
{
    return time - *first_time_ >= *options_.duration + duration_slack ||
           std::ranges::all_of(tracks_, &track_state::reached_duration);
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
    if (event.kind == MEDIAFILES_EVENT_STALLED && std::ranges::all_of(tracks_, &track_state::can_wait)) return;
    if (event.kind == MEDIAFILES_EVENT_GOES_ON && !std::exchange(is_held_up_, false)) return;
    const std::string path = event.path ? files_.path_of(event) : options_.output;
    if (event.kind == MEDIAFILES_EVENT_BEGUN && path == options_.output) return; // as it was asked for

    const event_message message = message_of(event, path, stream_of(event.track));
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
    mediafiles_recorder_stop(recorder_.get(), -1);
    heed_events();
    console_.clear_progress();
    measure();
    const bool nothing = std::ranges::all_of(summary_.tracks, [](auto &each) { return each.frames == 0; });
    if (!nothing || summary_.error) return;
    if (summary_.stopped_by == stop_reason::signal)
        throw failure("stopped", options_.output, "nothing was recorded yet");
    throw failure("nothing was recorded", options_.output, "no frame could be used");
}

void recording::measure()
{
    const mediafiles_recorder_stats counted = stats();
    summary_.lost = counted.frames_dropped;
    for (size_t i = 0; i < tracks_.size(); ++i) {
        summary_.tracks[i].frames = counted.safe[i]; // of a file that could not be finished its recovery keeps these
        summary_.lost += counted.tracks[i].frames - counted.safe[i];
        summary_.tracks[i].key_frames = counted.tracks[i].key_frames;
        summary_.tracks[i].bytes = counted.tracks[i].bytes;
        summary_.tracks[i].dropped = tracks_[i].unusable + counted.tracks[i].refused;
    }
    summary_.files = files_.list();
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

recording_summary record(const record_options &options, console &console, std::atomic<bool> &stop)
{
    recording_summary summary{.output = options.output};
    recording work(options, console, stop, summary);
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
