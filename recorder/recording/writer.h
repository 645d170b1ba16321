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
    clock::time_point last_round = {}, ended = {};

    segment &files() { return shared->files; }
};

inline clock::time_point later(clock::time_point from, int64_t by)
{
    return by == never ? clock::time_point::max() : from + std::chrono::nanoseconds(by);
}

class writer {
public:
    writer(std::shared_ptr<state> shared, std::shared_ptr<syncer> syncs);

    /** The body of the thread: until the queue is closed and empty, or the recorder is abandoned. */
    void run();

private:
    /* writer.cpp: what comes when */
    void survey();
    bool rests() const;
    void take(const queue::taken &);
    void pass_on(bool all);
    bool may_go(uint32_t track, const queue::taken &) const;
    void release_late();
    void make_rounds(clock::time_point now);
    void release();
    clock::time_point deadline() const;

    /* writer-units.cpp: access units, from their parts to the file */
    void feed(uint32_t track, const queue::taken &);
    void drop(uint32_t track, access_unit &unit);
    void set_aside(uint32_t track);
    bool continues_clock(uint32_t track, const access_unit &unit, int64_t &time);
    void place(uint32_t track, access_unit &unit);
    void place_again();
    bool has_room_for(open_file &, uint64_t size);
    void hand_over(uint32_t track, mp4_time time, int64_t reached);

    /* writer-choice.cpp: which file */
    bool is_since(const open_file &, const track_input &, int64_t time) const;
    bool has_room(const open_file &, uint64_t size) const;
    bool is_cut_due(const open_file &, const track_input &, uint32_t track, int64_t time, uint64_t size) const;
    void want_key(open_file *, uint32_t track);
    open_file *choose_for_leader(uint32_t track, const access_unit &, int64_t time, bool is_key, bool new_sets);
    open_file *choose_for_video(uint32_t track, int64_t time, bool is_key, bool new_sets);
    open_file *choose_for_sound(uint32_t track, int64_t time);

    /* writer-files.cpp: their beginning and end */
    bool complete_description(uint32_t track);
    std::unique_ptr<muxer> ready_tracks();
    void note_order(uint32_t track);
    open_file *begin_file(uint32_t track, int64_t time);
    void fail_to_begin(int error);
    void want_room(bool stops);
    void enter(uint32_t track, open_file &);
    void leave(uint32_t track, int64_t end);
    void leave_all(open_file &);
    void end_old_files(clock::time_point now, bool all);
    void give_up_failed();

    const std::shared_ptr<state> shared_;
    const std::shared_ptr<syncer> syncs_;
    const settings &options_;
    const uint32_t leader_;
    const std::chrono::nanoseconds patience_; // for successors, and between rounds
    const int64_t old_files_wait_;            // for the tracks that have not left them

    std::vector<track_input> tracks_;
    std::vector<std::unique_ptr<open_file>> files_; // in their order; the last one is current, if it has no end
    open_file *current_ = nullptr;
    timeline times_; // to begin with: of the latest file
    std::vector<uint8_t> scratch_;
    std::vector<uint32_t> order_; // of the tracks in all files
    uint64_t next_number_ = 1;
    int64_t first_second_ = 0; // since 1970, of the first file
    pace pace_;                // of the latest file
    bool is_unplaced_ = false; // the leading track's frame waits for a file
    bool is_failing_ = false;  // the next file could not be begun: the one before goes on
    clock::time_point tried_ = {};
    clock::time_point seen_ = {}; // what was pushed before this moment has been taken from the queue
};

} // namespace mediafiles::recorder
