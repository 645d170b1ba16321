/**
 * What the element records from READY to PAUSED and back: the streams of its
 * pads, and one recorder after the other that takes them.
 *
 * The tracks of a recorder are fixed when it starts. So it starts when all pads
 * have said what they bring, and another one follows when that changes: a pad
 * has come or gone, or carries something else. A recorder begins with a key
 * frame of its leader, the first of its tracks that has pictures. So the
 * one before it goes on until that key frame has come, which is asked for;
 * what it has no track for is held.
 *
 * Starting and stopping wait for the medium. A thread of the recording's own
 * does both, and reads the events; meanwhile the buffers are held here, as
 * many as half of the recorder's queue would.
 *
 * A streaming thread never waits for the medium. That of a source which can
 * wait, like a file, waits while the recorder's queue is half full, and for
 * streams that are behind its own.
 *
 *     streaming threads    push ----------------------> recorder
 *                            \--> held --\               ^   |
 *     thread of its own                   starts, hands over |
 *                                         posts messages <---+ events
 *
 * The state is shared with that thread: one that the kernel holds outlives the
 * element.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "input.h"
#include "settings.h"
#include "tools/record/waker.h"

namespace mediafiles::gstreamer {

class recording : public std::enable_shared_from_this<recording> {
public:
    recording(GstElement *element, settings options);

    void begin();
    /** Streaming threads do not wait from now on. */
    void interrupt();
    /** Stores what has come and finishes the files, with the patience of the settings. */
    void end();
    void set_playing(bool is_playing);

    void add(const input_ptr &from);
    void remove(const input_ptr &from);
    void describe(input &from, const format &carries);
    void flush(input &from, bool begins);
    /** Whether no other one goes on. */
    bool start_stream(input &from);
    /** Whether its source is not live. */
    void set_can_wait(input &from, bool can_wait);
    void end_stream(input &from, uint32_t sequence);
    /** Nothing comes up to then. */
    void move_on(input &from, int64_t time);

    GstFlowReturn push(input &from, GstBuffer *buffer, int64_t time);

    /** False when nothing is recorded, or there are no events. */
    bool split(bool at_once);
    bool trigger(uint64_t after);
    bool protect(uint64_t before, uint64_t after);
    owner<GstStructure> stats();

private:
    using guard = std::unique_lock<std::mutex>;
    using recorder_ptr = std::shared_ptr<mediafiles_recorder>;
    struct held_buffer {
        input_ptr from;
        format_ptr carries;
        owner<GstBuffer> buffer;
        int64_t time;
    };
    enum class over { no, reached, posted };

    /* streaming threads: recording.cpp */
    bool stops(const input &from) const { return is_ending_ || has_failed_ || from.is_flushing; }
    GstFlowReturn why_stopped() const { return has_failed_ ? GST_FLOW_ERROR : GST_FLOW_FLUSHING; }
    bool is_ahead(const input &from, int64_t time) const;
    void await_others(guard &locked, const input &from, int64_t time);
    void note_time(input &from, int64_t time);
    std::vector<input_ptr> tracks_with_pictures() const;
    input_ptr ended_leader() const;
    bool outlasts_leader(const input &from, int64_t time) const;
    bool begins_next(const input &from, GstBuffer *buffer) const;
    bool hold(input &from, GstBuffer *buffer, int64_t time);
    void drop(input &from, int64_t time);
    void end_gap(input &from);
    bool give(guard &locked, input &from, GstBuffer *buffer, int64_t time);
    bool ask(steady::time_point &until, uint64_t after, const std::function<int(mediafiles_recorder *, int64_t)> &of);
    static void ask_for_key(input &from);
    void wake();

    /* its own thread: recording-thread.cpp */
    void run();
    bool step(guard &locked);
    static bool is_recorded(const input_ptr &each) { return each->recorded_as.has_value(); }
    bool has_all_ended() const;
    bool needs_a_recorder() const;
    bool is_outdated() const;
    bool may_change() const;
    input_ptr next_leader() const;
    void await_key(guard &locked);
    void ask_others(guard &locked);
    void start_recorder(guard &locked);
    void ask_again();
    bool may_succeed_later(int error) const;
    std::vector<input_ptr> candidates() const;
    std::vector<mp4_track_desc> choose_tracks();
    format_ptr held_format(const input_ptr &from) const;
    void hand_over(guard &locked);
    void stop_recorder(guard &locked);
    void forget_tracks();
    void wait(guard &locked);
    void take_events(guard &locked, const recorder_ptr &recorder);
    void report_gaps(guard &locked);
    void warn(guard &locked, int error);
    void fail(guard &locked, int error);
    void post_end(guard &locked);
    void drop_too_large(guard &locked, input &from, size_t size, int64_t time);
    void with_element(guard &locked, const std::function<void(GstElement *)> &use);

    const settings options_;
    std::mutex lock_;
    std::condition_variable moved_;
    tools::waker waker_;
    std::thread thread_;
    GstElement *element_; // borrowed; NULL: it has gone

    std::vector<input_ptr> inputs_;
    recorder_ptr recorder_;
    std::vector<input_ptr> tracks_; // of the recorder, by index
    bool is_direct_ = false;        // streaming threads push into the recorder
    bool has_left_ = false;         // one of its tracks, or its leader has ended and files are to begin without it
    input_ptr awaited_;             // its key frame begins the next recorder; NULL: none is needed
    steady::time_point awaited_since_ = {};
    steady::time_point triggered_until_ = {}, protected_until_ = {};
    bool is_giving_ = false;       // a stream that can wait pushes
    bool is_handing_over_ = false; // what is held; what can wait comes after it
    bool is_playing_ = false, has_failed_ = false, has_ended_ = false;
    std::atomic<bool> is_ending_ = false;
    over stream_is_ = over::no;
    bool latest_to_go_had_ended_ = false; // of the pads
    uint32_t end_sequence_ = 0;

    std::deque<held_buffer> held_;
    uint64_t held_bytes_ = 0, dropped_ = 0;
    std::vector<std::pair<std::string, gap>> gaps_; // of pads, to be reported
    steady::time_point first_held_ = {};
    steady::time_point not_before_ = {}; // another recorder is tried
    std::string directory_;              // of the recorder; this and the next two are its own thread's
    bool has_begun_ = false;             // a file
    int trouble_ = 0;                    // errno: why nothing can be recorded

    mediafiles_recorder_stats before_ = {}; // of recorders that have ended
};

} // namespace mediafiles::gstreamer
