/**
 * A recording while it runs: its state, and what the files record*.cpp do with
 * it. record.cpp: sources and recorders come and go; record-frames.cpp: the way
 * of a frame; record-reports.cpp: what the user and who watches it learn.
 */
#ifndef TOOLS_RECORD_RECORDING_H
#define TOOLS_RECORD_RECORDING_H

#include "tools/record/output.h"
#include "tools/record/pace.h"
#include "tools/record/record.h"
#include "tools/record/recorded-files.h"
#include "tools/record/service-manager.h"
#include "tools/record/sources.h"
#include "tools/record/status.h"
#include "tools/record/tracks.h"

namespace tools {

/** A stream of a source, as it is shown. */
inline std::string stream_name(const std::string &source, int index)
{
    return source + ": stream " + std::to_string(index);
}

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
    void stop_recorder();
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
    void note_times(const source_frame &next, size_t track);
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
    uint32_t trouble_ = 0;                          // the event that said so last
    pace pace_;

    status_file status_file_;
    std::string status_problem_; // as it was reported
    steady::time_point next_status_, next_watchdog_;
    const std::optional<std::chrono::microseconds> watchdog_ = service_manager::watchdog_interval();
    steady::time_point rate_since_ = steady::now();
    uint64_t rate_bytes_ = 0; // that were stored then
    steady::duration lag_{};  // of the latest frame
};

} // namespace tools

#endif
