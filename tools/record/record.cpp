/**
 * A recording can be repaired after a power cut because of the order in which
 * it reaches the medium: first the media, then the journal that names it.
 * recording::sync keeps that order; without an error nothing else appends to
 * the journal.
 */
#include "tools/record/record.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>

#include "tools/failure.h"
#include "tools/record/recording-files.h"
#include "tools/record/recording-size.h"
#include "tools/record/sources.h"
#include "tools/seconds.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

struct destroy_builder {
    void operator()(mp4_builder *builder) const { builder->destroy(builder); }
};
using builder_ptr = std::unique_ptr<mp4_builder, destroy_builder>;
using journal_ptr = std::unique_ptr<mediafile_caretaker, release_by_value<mediafile_caretaker_destroy>>;
using input_list = std::vector<std::unique_ptr<input>>;

/*
 * A frame this far after the end of the duration shows that no other track has a frame left before it: files
 * interleave their tracks in fragments of many seconds.
 */
constexpr int64_t duration_slack = 30 * second;

/* --realtime does not wait for a longer jump in the times. */
constexpr auto longest_pause = 10s;

struct track_state {
    size_t input;
    size_t stream;
    std::optional<int64_t> latest = {};                 // ns: the time that its frames have reached
    std::array<bool, verdict_count> reported_dropped{}; // by verdict
    uint64_t trimmed = 0;                               // frames that lost a long SEI unit
    bool reached_duration = false;
};

class recording {
public:
    recording(const record_options &options, console &console, std::atomic<bool> &stop, recording_summary &summary)
        : options_(options), console_(console), stop_(stop), summary_(summary)
    {
    }

    /** Throws what keeps the file from being finished. */
    void run();

    /** Reports an error; the first one also goes into the summary. */
    void fail(const std::string &text);

private:
    input_list open_inputs();
    void add_tracks(input_list &inputs);
    bool add_track(input &source, size_t input_index, size_t stream);
    std::string stream_of(size_t track) const;
    std::string reordering(size_t track) const;
    size_t track_of(size_t input, size_t stream) const;

    void open_files(std::span<const struct stat> inputs);
    void record_frames();
    steady::time_point due(int64_t time, steady::time_point now);
    bool add(const source_frame &next);
    bool is_usable(size_t track, const frame &content);
    void follow_time(size_t track, int64_t time);
    void report_first(uint64_t count, size_t track, const char *what, const char *why);
    bool is_within_duration(track_state &track, int64_t time);
    bool is_duration_over(int64_t time) const;

    void sync();
    void drain_journal(std::span<const uint8_t> records);
    std::span<const uint8_t> stored_records();
    void poll_journal();
    void finish();
    void rescue();
    void measure();
    void show_progress();

    const record_options &options_;
    console &console_;
    std::atomic<bool> &stop_;
    recording_summary &summary_;

    /* Released from the last to the first: each uses those before it. */
    std::optional<recording_files> files_;
    journal_ptr journal_;
    builder_ptr builder_;
    std::optional<sources> sources_;

    std::vector<track_state> tracks_; // by the builder's index, as the summary's
    recording_size size_;
    std::optional<int64_t> first_time_; // of the recording, ns
    int64_t latest_time_ = 0;           // ns
    steady::time_point next_sync_;
    bool unsynced_ = true; // something was recorded since the last sync, the tracks to begin with

    /* --realtime: the frame with this time was due at that moment. */
    std::optional<int64_t> pace_time_;
    steady::time_point pace_moment_;

    bool journal_ended_ = false;  // the library's journal has latched an error
    bool journal_behind_ = false; // the journal file could not be appended to
};

[[noreturn]] void throw_write_failure(const std::string &file, int error)
{
    throw failure("cannot write", file, error);
}

std::string stream_name(const std::string &source, int index)
{
    return source + ": stream " + std::to_string(index);
}

void recording::fail(const std::string &text)
{
    console_.problem(text);
    if (!summary_.error) summary_.error = text;
    summary_.stopped_by = stop_reason::error;
}

void recording::run()
{
    input_list inputs = open_inputs();
    builder_.reset(mp4_builder_create());
    if (!builder_) throw std::bad_alloc();
    add_tracks(inputs);

    std::vector<struct stat> read_files;
    for (const auto &source : inputs)
        if (const auto file = source->file()) read_files.push_back(*file);

    sources_.emplace(std::move(inputs), stop_);
    if (const auto found = sources_->look_ahead_for_reordering())
        throw std::runtime_error(reordering(track_of(found->input, found->stream)));
    if (stop_) throw failure("stopped", options_.output, "nothing was recorded yet");

    open_files(read_files);
    try {
        record_frames();
        finish();
    } catch (const std::exception &) {
        rescue();
        throw;
    }
}

input_list recording::open_inputs()
{
    input_list inputs;
    for (input_options each : options_.inputs) {
        each.journaled = options_.journal.has_value();
        inputs.push_back(std::make_unique<input>(each, stop_));
    }
    return inputs;
}

void recording::add_tracks(input_list &inputs)
{
    for (size_t i = 0; i < inputs.size(); ++i) {
        input &source = *inputs[i];
        for (size_t stream = 0; stream < source.streams().size();)
            if (add_track(source, i, stream)) ++stream;
        for (const auto &[index, what, why] : source.others())
            console_.problem("left out: " + stream_name(source.name(), index) + " (" + what + "): " + why);
    }
    if (tracks_.empty()) throw failure("nothing to record", inputs.front()->name(), "no stream that can be recorded");
}

/* False when there is no track for the stream, which is then left out of the source. */
bool recording::add_track(input &source, size_t input_index, size_t stream)
{
    const source_stream &from = source.streams()[stream];
    if (builder_->add_track(builder_.get(), &from.description()) < 0) {
        if (errno == ENOBUFS)
            source.leave_out(stream, "there are eight tracks already");
        else if (errno == ENOSYS)
            source.leave_out(stream, "the library does not record this codec");
        else
            throw std::bad_alloc();
        return false;
    }
    tracks_.push_back({.input = input_index, .stream = stream});
    summary_.tracks.push_back(
        {.source = source.name(), .stream = from.source()->index, .description = from.description()});
    const auto rate = from.timed_by();
    if (rate && !options_.inputs[input_index].frame_rate)
        console_.note(stream_of(tracks_.size() - 1) + " has no timestamps: taken as " + std::to_string(rate->num) +
                      "/" + std::to_string(rate->den) + " frames a second (--fps)");
    return true;
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

void recording::open_files(std::span<const struct stat> inputs)
{
    files_.emplace(options_.output, options_.journal, options_.overwrite, inputs);
    if (options_.journal) {
        journal_.reset(mediafile_caretaker_create());
        if (!journal_) throw std::bad_alloc();
    }
    if (builder_->open(builder_.get(), files_->media(), options_.buffer, journal_.get()) != 0)
        throw_write_failure(options_.output, errno);
    files_->keep();
    summary_.journal = options_.journal;
    summary_.journal_kept = options_.journal.has_value();
}

void recording::record_frames()
{
    next_sync_ = steady::now();
    std::optional<source_frame> next;
    while (!stop_) {
        const auto wake = unsynced_ ? next_sync_ : steady::now() + 1s;
        if (!next) next = sources_->take(wake);
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
                std::this_thread::sleep_until(std::min({moment, wake, now + 50ms}));
            }
        }
        if (unsynced_ && steady::now() >= next_sync_) {
            next_sync_ = steady::now() + options_.sync_interval;
            sync();
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
    if (!is_usable(track, content)) return true;

    const auto length = static_cast<uint32_t>(content.packet->size);
    if (!size_.has_room_for(length, content.unit.stored_size)) {
        console_.problem("size limit reached: " + options_.output + ": the recording ends here");
        summary_.stopped_by = stop_reason::limit;
        return false;
    }
    follow_time(track, content.time);

    const mp4_frame given{static_cast<int32_t>(track), content.packet->data, length, to_mp4_time(content.time),
                          content.unit.key};
    if (builder_->add_frame(builder_.get(), &given) != 0) throw_write_failure(options_.output, errno);
    unsynced_ = true;
    size_.add(length, content.unit.stored_size);
    poll_journal();

    track_summary &counts = summary_.tracks[track];
    ++counts.frames;
    counts.key_frames += content.unit.key;
    counts.bytes += content.unit.stored_size;
    if (content.damaged) report_first(++counts.damaged, track, "damaged frame", "recorded as it is");
    if (content.trimmed)
        report_first(++tracks_[track].trimmed, track, "SEI left out", "above 508 bytes it would end the journal");
    return true;
}

bool recording::is_usable(size_t track, const frame &content)
{
    const verdict result = content.unit.result;
    if (result == verdict::usable) return true;
    ++summary_.tracks[track].dropped;
    bool &reported = tracks_[track].reported_dropped[static_cast<size_t>(result)];
    if (!reported) console_.problem("frame dropped: " + stream_of(track) + ": " + name(result));
    reported = true;
    return false;
}

/* The library gives a frame whose time runs backwards no duration; the time of the track stays. */
void recording::follow_time(size_t track, int64_t time)
{
    auto &latest = tracks_[track].latest;
    if (latest && time < *latest)
        report_first(++summary_.tracks[track].backwards, track, "time runs backwards", "the frame lasts no time");
    else
        latest = time;
    latest_time_ = std::max(latest_time_, time);
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

/*
 * After it every sample that the journal file names is on the medium, and the
 * journal file names every sample given so far.
 */
void recording::sync()
{
    if (builder_->flush(builder_.get()) != 0) throw_write_failure(options_.output, errno);
    poll_journal(); // the flush has journaled what was cached
    files_->sync_media();
    drain_journal(stored_records());
    unsynced_ = false;
}

std::span<const uint8_t> recording::stored_records()
{
    if (!journal_) return {};
    uint32_t count = 0;
    const void *bytes = mediafile_caretaker_read(journal_.get(), &count);
    return {static_cast<const uint8_t *>(bytes), count};
}

void recording::drain_journal(std::span<const uint8_t> records)
{
    if (!journal_) return;
    const int error = files_->append_journal(records);
    if (error != 0 && !journal_behind_) {
        console_.problem(failure("cannot write", *options_.journal, error).what());
        if (!journal_ended_) summary_.journal_error = std::strerror(error);
    } else if (error == 0 && journal_behind_) {
        console_.problem("written again: " + *options_.journal + ": the journal is complete up to here");
        if (!journal_ended_) summary_.journal_error.reset();
    }
    journal_behind_ = error != 0;
}

/* After a failure the library logs the journal's state at every query, so it is not queried again. */
void recording::poll_journal()
{
    if (!journal_ || journal_ended_) return;
    const int error = mediafile_caretaker_errcode(journal_.get());
    if (error == 0) return;
    journal_ended_ = true;
    const std::string why = error == EFBIG ? "a parameter set is larger than 508 bytes" : std::strerror(error);
    console_.problem("journal ended: " + *options_.journal + ": " + why + "; the recording goes on");
    summary_.journal_error = why;
}

void recording::finish()
{
    sync();
    console_.clear_progress(); // the library prints a line
    if (builder_->close(builder_.get()) != 0) throw_write_failure(options_.output, errno);
    files_->sync_media();
    measure();
    const bool nothing = std::ranges::all_of(summary_.tracks, [](auto &each) { return each.frames == 0; });
    if (nothing && summary_.stopped_by != stop_reason::signal && !summary_.error)
        fail("nothing was recorded: " + options_.output + ": no frame could be used");
    if (!options_.journal || options_.keep_journal) return;
    files_->remove_journal();
    summary_.journal_kept = false;
}

/* The file cannot be finished: what has reached the medium gets its journal, so that it can be repaired. */
void recording::rescue()
{
    builder_->close(builder_.get());
    try {
        measure();
        files_->sync_media();
        drain_journal(records_within(stored_records(), files_->media_size()));
    } catch (const std::exception &) {
        /* The cause was an earlier failure, which is reported. */
    }
}

void recording::measure()
{
    mp4_time length;
    mp4_movie_timespan(builder_->movie, &length);
    summary_.duration = seconds(length);
    summary_.bytes = files_->media_size();
}

void recording::show_progress()
{
    uint64_t frames = 0;
    uint64_t bytes = 0;
    for (const track_summary &track : summary_.tracks) {
        frames += track.frames;
        bytes += track.bytes;
    }
    const double passed = first_time_ ? seconds(latest_time_ - *first_time_) : 0;
    const auto whole = static_cast<unsigned>(passed);
    const double megabytes = static_cast<double>(bytes) / 1e6;
    const double rate = passed > 0 ? megabytes * 8 / passed : 0;
    char text[100];
    std::snprintf(text, sizeof text, "%02u:%02u:%04.1f  %ju frames  %.1f MB  %.2f Mbit/s", whole / 3600,
                  whole / 60 % 60, passed - (whole - whole % 60), uintmax_t{frames}, megabytes, rate);
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
