/**
 * Sources and recorders come and go. A recorder's tracks are fixed, so another
 * one goes on where a source comes with streams that it has no track for, and
 * where the source that decides on where files begin stays away. The recording
 * of one file ends when it cannot be written any longer; with numbered files it
 * goes on as soon as there is room.
 */
#include "tools/record/record.h"

#include <algorithm>
#include <cerrno>
#include <future>
#include <new>
#include <utility>

#include <poll.h>

#include "tools/failure.h"
#include "tools/record/recording.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

/* How long the sources that are there wait for the others before the recording begins. */
constexpr auto longest_start = 5s;

/* How long the first frames are looked at before it begins. */
constexpr auto time_to_look_ahead = 1s;

/* A source that is away for longer has no say any more in where files begin. */
constexpr auto longest_absence = 10s;

constexpr const char *stopped_by_signal = "stopped by a signal";
constexpr const char *nothing_yet = "no frame had been recorded yet, so there is no file";

} // namespace

void recording::run()
{
    sources_.emplace(options_.inputs, options_.retry);
    lost_.resize(sources_->size());
    for (size_t i = 0; i < sources_->size(); ++i) summary_.sources.push_back({.name = sources_->at(i).name().shown});
    service_manager::notify("READY=1"); // whatever is away: it is waited for
    await_sources();
    look_ahead();
    if (is_stopped_) throw failure(stopped_by_signal, options_.output, nothing_yet);

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
    if (is_stopped_ || !tracks_.all.empty()) return;
    const std::string why = sources_->at(0).error();
    throw std::runtime_error(why.empty() ? "nothing to record: " + sources_->at(0).name().shown + ": it has no frame"
                                         : why);
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
    const auto since = from.away_since();
    if (!since || now < *since + longest_absence) return;
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
            console_.problem("left out: " + stream_of(i) + ": a file has at most eight tracks; --map chooses");
        }
    std::vector<struct stat> read_files;
    for (size_t i = 0; i < sources_->size(); ++i)
        if (const auto file = sources_->at(i).name().file()) read_files.push_back(*file);
    recorder_ = start_recorder(options_, place_, descriptions, read_files);
}

/* The medium may take long; who watches the recording is told meanwhile that it goes on. */
void recording::stop_recorder()
{
    constexpr auto beside = std::launch::async | std::launch::deferred; // in get(), where there is no other thread
    auto stopped = std::async(beside, mediafiles_recorder_stop, recorder_.get(), int64_t{-1});
    while (stopped.wait_until(report_status(steady::now())) == std::future_status::timeout) {}
    stopped.get();
}

/* What it has stored is finished and counted. */
void recording::end_recorder()
{
    if (!recorder_) return; // the next one could not be started
    stop_recorder();
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

void recording::finish()
{
    service_manager::notify("STOPPING=1");
    report_sources();
    end_recorder();
    summary_.files = files_.list();
    const bool nothing = std::ranges::all_of(summary_.tracks, [](auto &each) { return each.frames == 0; });
    if (options_.pre_event > 0 && summary_.files.empty())
        console_.note(options_.output + ": no event (SIGUSR1) has made a file");
    if (!nothing || summary_.error || options_.pre_event > 0) return;
    if (summary_.stopped_by == stop_reason::signal) throw failure(stopped_by_signal, options_.output, nothing_yet);
    throw failure("nothing was recorded", options_.output, "no frame could be used, so there is no file");
}

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
