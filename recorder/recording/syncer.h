/**
 * The syncing thread: makes rounds safe, finishes files, removes journals,
 * protects files that are finished, and recovers what was interrupted. It takes its work in order, except that
 * recovery waits until nothing else is to do.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kept-files.h"
#include "segment.h"
#include "state.h"

namespace mediafiles::recorder {

/** A file between the two threads. */
struct shared_file {
    shared_file(int directory, std::string name, uint64_t number, uint32_t mode, bool replaces)
        : files(directory, std::move(name), number, mode, replaces)
    {
    }

    segment files;
    round pending, last;               // the syncing thread's while is_busy; the last one from finish on
    std::atomic<bool> is_busy = false; // pending is on its way
    std::atomic<int> error = 0;        // of a sync: the writing thread gives the file up
    int64_t from = 0, to = 0;          // capture times, set before finish
    int64_t passed = 0;                // likewise: where it ends on the recorder's capture line
    bool is_protection_told = false;   // the syncing thread's
};
using file_ptr = std::shared_ptr<shared_file>;

class syncer {
public:
    explicit syncer(std::shared_ptr<state> shared);

    /** The body of the thread: until `end` was called and all is done, or the recorder is abandoned. */
    void run();

    /* From the writing thread. */
    void sync(file_ptr file);    // pending
    void finish(file_ptr file);  // last, then the movie header
    void give_up(file_ptr file); // recovery completes it
    void protect(int64_t from);  // files that were finished or given up before and end after that on the capture line
    void recover(std::vector<std::string> names);
    void know(std::vector<kept_file> finished);
    void remove_stale(); // temporary files, once all is recovered
    void make_room();    // some was refused: paused, or is_short
    void end();

    /** Tracks that a finished file has left; nullptr when there are none. */
    std::unique_ptr<muxer> take_tracks();

private:
    enum class task { sync, finish, give_up, protect };
    struct job {
        task what;
        file_ptr file;
        int64_t from = 0;
        uint64_t ending = 0; // bytes of a file that is to be finished
    };
    /* What protect may still concern. */
    struct past_file {
        uint64_t number;
        std::string name;
        int64_t passed;
        bool is_finished, is_protected;
    };
    bool work();
    void add(job);
    void carry_out(job &);
    void take_found();
    bool complete(shared_file &);
    void make_safe(shared_file &, round &);
    void count_safe(const progress &);
    void remember(const shared_file &, bool is_finished);
    void protect_past(int64_t from);
    void make_read_only(const past_file &);
    void report_protected(uint64_t number, const std::string &name, int error);
    void remove_surplus();
    void report_deleted(const kept_file &);
    void recover_file(const std::string &name);
    uint64_t most_a_round() const;
    uint64_t room_to_finish() const;
    uint64_t lacking(uint64_t more);
    bool is_within_quota(uint64_t ending) const;
    bool has_room();
    bool make_some_room(uint64_t more = 0);
    bool remove_oldest();
    void keep_room();
    void end_full();
    void await_medium();
    bool has_jobs();
    void forget_medium();
    int examine_medium();
    void note_failure(int error);
    void go_on();
    void recover_again(bool has_room);
    void add_kept(const std::string &name);

    const std::shared_ptr<state> shared_;
    std::mutex lock_; // never held while the medium is used
    std::condition_variable wake_;
    std::vector<job> jobs_;
    std::vector<std::string> to_recover_; // the last one is next
    std::vector<kept_file> found_;        // at start
    std::unique_ptr<muxer> idle_;
    bool is_last_ = false, is_asked_ = false, has_stale_ = false;
    std::atomic<uint64_t> ending_bytes_ = 0; // of files that are to be finished

    /* Of the thread alone. */
    std::vector<job> taken_;
    kept_files kept_;
    std::deque<past_file> past_;            // the latest ones
    std::vector<std::string> lacking_room_; // files that could not be completed
    uint64_t room_lacked_ = 0;              // what was free then
    clock::time_point tried_ = {};          // to complete them, or to find the medium
    bool is_full_reported_ = false, is_ending_ = false;
    uint32_t failures_ = 0; // files in a row of which nothing could be made safe
    progress late_;         // it is safe with the next flush
    uint64_t round_bytes_ = 0, bytes_before_ = 0;
};

} // namespace mediafiles::recorder
