/**
 * The writing thread: takes frames from the queue, puts each into its file, and
 * decides where files begin and end.
 *
 * A file ends where a key frame of the leading track (the first video track;
 * of sound alone the first track) begins the next one. Frames of the other
 * tracks wait until the leading track has reached their time, at most for the
 * time between two rounds. Then sound goes to the file that its time belongs
 * to, and the other video tracks change over at their own key frames; the old
 * file stays open until all have left it.
 *
 * The builders belong to this thread until a file is handed to the syncing
 * thread, so that neither waits for a lock of the other.
 */
#pragma once

#include <memory>
#include <vector>

#include "syncer.h"
#include "timeline.h"
#include "track-input.h"

namespace mediafiles::recorder {

constexpr int64_t closest = 2'000'000; // nanoseconds: a sample nearer to the end of a file is the next file's

struct open_file {
    open_file(file_ptr files, const timeline &times) : shared(std::move(files)), line(times) {}

    file_ptr shared;
    timeline line;
    uint32_t steps = 0;     // of the track that began it, then
    int64_t end = 0;        // capture time; once has_end
    bool has_end = false;   // the next file has begun
    bool wants_key = false; // the event was reported
    bool has_failed = false;
    bool is_out_of_room = false; // it can be finished, and take nothing more
    bool had_round = false;
    uint64_t samples = 0;
    int64_t passed = 0, ended_passed = 0; // capture line: where it begins, and where the next one does
    clock::time_point last_round = {}, ended = {};

    segment &files() { return shared->files; }
    bool wants_round() const { return !has_failed && shared->files.has_news(); }
};

inline clock::time_point later(clock::time_point from, int64_t by)
{
    const clock::duration left = clock::time_point::max() - from;
    return left.count() <= by ? clock::time_point::max() : from + std::chrono::nanoseconds(by);
}

class writer {
public:
    writer(std::shared_ptr<state> shared, std::shared_ptr<syncer> syncs);

    /** The body of the thread: until the queue is closed and empty, or the recorder is abandoned. */
    void run();

private:
    /* writer.cpp: what comes when */
    bool turn();
    void end();
    void survey();
    bool is_paused() const { return shared_->paused.why() != pause::none; }
    bool rests() const { return is_paused() && !is_idle_; }
    void end_for_pause();
    void take_some();
    bool is_steady() const;
    void take(const queue::taken &);
    void pass_on(bool all);
    bool may_go(uint32_t track, const queue::taken &) const;
    std::chrono::nanoseconds patience_with_leader() const;
    std::chrono::nanoseconds patience_for(const track_input &) const;
    void release_late();
    clock::time_point late_at(const track_input &) const;
    void count_running(const open_file *but = nullptr);
    bool make_rounds(clock::time_point now);
    void release();
    clock::time_point deadline() const;

    /* writer-units.cpp: access units, from their parts to the file */
    void feed(uint32_t track, const queue::taken &);
    void drop(uint32_t track, access_unit &unit);
    void lose(uint32_t track, const access_unit &unit);
    void lose(uint32_t track, int64_t time, uint64_t frames);
    void set_aside(uint32_t track);
    bool follow_clock(uint32_t track, int64_t pushed_time, bool steps);
    bool is_start(uint16_t flags) const;
    void update_sets(uint32_t track, const access_unit &unit);
    bool begins_next(const track_input &, const queue::entry &) const;
    void place(uint32_t track, access_unit &unit);
    void place_again();
    bool has_room_for(open_file &, uint64_t size);
    int64_t departure(uint32_t track) const;
    void hand_over(uint32_t track, mp4_time time, int64_t reached);

    /* writer-choice.cpp: which file */
    bool is_since(const open_file &, const track_input &, int64_t time) const;
    bool is_over_for(uint32_t track, const open_file *) const;
    int64_t placed_in(const timeline &, uint32_t track, int64_t time) const;
    bool has_room(const open_file &, uint64_t size) const;
    bool is_cut_due(const open_file &, uint32_t track, int64_t time, uint64_t size) const;
    void want_key(open_file *, uint32_t track);
    open_file *choose_for_leader(uint32_t track, const access_unit &, int64_t time, bool is_key);
    open_file *choose_for_video(uint32_t track, int64_t time, bool is_key);
    open_file *choose_for_sound(uint32_t track, int64_t time);

    /* writer-event.cpp: requests, protection, and frames that wait for an event */
    void answer_requests();
    void protect(int64_t from, int64_t until);
    void protect(open_file &);
    bool is_held(const open_file &) const;
    void begin_event();
    bool ends_event(const access_unit &);
    void end_event(const access_unit &);
    void wait_for_event(uint32_t track);
    void put_back(uint32_t track);
    void keep(const queue::taken &);
    void keep_other(const queue::taken &);
    void let_old_go();
    void let_go(uint64_t until, bool all_tracks);
    void find_next_group();

    /* writer-files.cpp: their beginning and end */
    bool complete_description(uint32_t track);
    std::unique_ptr<muxer> ready_tracks();
    open_file *begin_file(uint32_t track, int64_t time);
    void fail_to_begin(int error);
    void want_room(bool stops);
    void enter(uint32_t track, open_file &);
    void leave(uint32_t track, int64_t end);
    void leave_all(open_file &);
    void end_old_files(clock::time_point now, bool all);
    void give_up_failed();
    void lack_memory();

    const std::shared_ptr<state> shared_;
    const std::shared_ptr<syncer> syncs_;
    const settings &options_;
    const uint32_t leader_;
    const std::chrono::nanoseconds patience_; // for successors, and between rounds
    const int64_t old_files_wait_;            // for the tracks that have not left them

    std::vector<track_input> tracks_;
    std::vector<std::unique_ptr<open_file>> files_; // in their order; the last one is current, if it has no end
    open_file *current_ = nullptr;
    int64_t passed_ = 0; // on the capture line, up to the leading track's latest frame in a file
    uint64_t seen_until_ = 0;
    clock::time_point as_of_ = {};           // when the latest frame was pushed; later once none waits
    clock::time_point none_late_until_ = {}; // of frames that are held or incoming
    int64_t protect_until_ = -1;             // files that begin until then, on the capture line
    uint64_t round_at_ = queue::everything;  // position: a round is made at once when the queue has come there

    /* A start of a group of pictures in the memory of event mode. */
    struct group {
        uint64_t position = queue::everything;
        int64_t time = 0, passed = 0;
        bool is_known() const { return position != queue::everything; }
    };
    bool is_idle_;                   // event mode: no event
    uint64_t front_ = 0;             // the memory reaches from here to seen_until_
    group first_group_, next_group_; // in it
    group unit_;                     // the leading track's newest access unit
    int64_t newest_ = 0;             // on the capture line, likewise
    int64_t event_end_ = 0;          // on the capture line
    bool has_made_file_ = false;     // in this event

    timeline times_; // to begin with: of the latest file
    std::vector<uint8_t> scratch_;
    uint64_t next_number_ = 1;
    int64_t first_second_ = 0; // since 1970, of the first file
    pace pace_;                // of the latest file
    bool is_loose_ = false;    // a frame was taken from the queue, and nothing holds it yet
    amount last_size_;         // of the latest file that another one followed
    bool is_unplaced_ = false; // the leading track's frame waits for a file
    bool is_failing_ = false;  // the next file could not be begun: the one before goes on
    clock::time_point tried_ = {};
};

} // namespace mediafiles::recorder
