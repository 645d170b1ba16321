/**
 * One file of a recording, with its journal.
 *
 * The writing thread begins it, adds samples and takes rounds; the syncing
 * thread makes rounds safe and, once the writing thread has let go, finishes
 * it. The two share the descriptors and the names alone, which do not change.
 *
 * A round keeps the order that makes the journal true: the builder's flush and
 * directly after it the journal's records; then, on the other thread, a sync of
 * the media; these records and the round's mark appended; a sync of the journal.
 * The journal file never names a sample that is not on the medium.
 */
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

#include "muxer.h"
#include "reserve.h"
#include "safe-file.h"

namespace mediafiles::recorder {

using recovery::descriptor;

struct progress {
    std::array<uint64_t, MP4_MAX_TRACKS> samples = {};
    std::array<int64_t, MP4_MAX_TRACKS> reached = {}; // capture times up to which the tracks are in the file
};

/** What the writing thread has given to the kernel, for the syncing thread to make safe. */
struct round : progress {
    std::vector<uint8_t> records; // of the journal, its mark included
    bool is_protected = false;    // the journal says so with this round, or said so before
};

/** Of media. */
struct amount {
    uint64_t bytes = 0, samples = 0;
};

/** What comes between two rounds: of the busiest of late. */
struct pace : amount {

    /** Falls by half in a round at most. */
    void note(uint64_t new_bytes, uint64_t new_samples)
    {
        bytes = std::max(new_bytes, bytes / 2);
        samples = std::max(new_samples, samples / 2);
    }
};

class segment {
public:
    /**
     * Makes the files, locked, and the directories on their way.
     *
     * @param directory  stays the caller's
     * @param name       below the directory
     * @param replaces   an older recording of that name
     * Throws recovery::obstacle: EEXIST, EBUSY or ELOOP where one of the names is taken.
     */
    segment(int directory, std::string name, uint64_t number, uint32_t mode, bool replaces);
    segment(const segment &) = delete;
    segment &operator=(const segment &) = delete;

    const std::string &name() const { return name_; }
    uint64_t number() const { return number_; }

    /* ---- On the writing thread: 0, or -1 with errno ---- */

    /** The muxer's tracks begin in the file, which has room for two rounds of that pace. */
    int begin(std::unique_ptr<muxer> muxer, const pace &expected);
    muxer &tracks() { return *muxer_; }

    /** A parameter set (NAL unit), before the track's first sample: into the header, and into the journal where it fits. */
    int give_set(uint32_t track, uint8_t kind, std::span<const uint8_t> set);

    /** @param time  as the movie is to have it; @param reached  capture time up to which the track then is in the file */
    int add(uint32_t track, std::span<const uint8_t> sample, mp4_time time, bool key, int64_t reached);

    /**
     * Gives the file room for all that it will hold, where the file system is better off so and has it.
     *
     * @param left_free  bytes of the file system, then
     * @return the room that the next file of that size will want, in bytes
     */
    uint64_t keep_whole(const amount &expected, uint64_t left_free);

    /**
     * Whether a sample can be added and the file be finished then: room is kept for the journal and the movie header
     * so far, and for what two rounds bring. `little`: no more could be kept.
     */
    enum class room { enough, little, none };
    room room_for(uint64_t bytes);

    /** What a spare file has to hold for it: 0 where the file system keeps room ahead. */
    uint64_t unkept() const;
    const pace &rate() const { return pace_; }
    /** Journals that the file is to be kept: the next round makes it safe. */
    int protect();
    bool is_protected() const { return is_protected_; }

    /** Writes out what is cached and takes what that makes true. */
    int take_round(round &to);
    bool has_news() const { return has_news_; }

    /** Bytes of media that were accepted. */
    uint64_t bytes() const;
    uint64_t sample_bytes() const { return muxer_->builder()->movie->bytes; }

    /* ---- On the syncing thread: 0, or -1 with errno ---- */

    /**
     * Not after a failure: what a sync has lost stays lost.
     *
     * @param spare  is cut when the journal lacks room
     */
    int sync(round &made, spare_file &spare);

    /**
     * The movie header, and its sync; a protected file loses its write permission; then, unless it is kept, the journal
     * goes. Nothing may be added any more.
     */
    int finish(bool keep_journal);

    /** errno of taking the write permission away; 0: it is gone, or was not to go. */
    int protection_error() const { return protection_error_; }

    /** Ends the use of the files as they are, for recovery. */
    void give_up();

    /** Room beyond the media's end, unless it was finished. */
    void give_back();

    /** Removes the files, which hold nothing yet. */
    void remove();

    /** For the next file, once this one is finished or given up. */
    std::unique_ptr<muxer> take_tracks() { return std::move(muxer_); }

    /** Bytes of the finished file. */
    uint64_t size() const { return size_; }

private:
    int append_journal();
    int sync_names();
    int sync_table();
    uint64_t header_room(uint64_t samples) const;
    int keep_room(uint64_t bytes);

    const std::string name_;
    const uint64_t number_;
    std::string media_name_, journal_name_; // in directory_
    descriptor directory_, media_, journal_;
    std::unique_ptr<muxer> muxer_;
    bool has_news_ = false, is_protected_ = false;
    round counted_; // of samples that no round has taken

    /* Of the writing thread. */
    pace pace_;
    reserve media_room_, journal_room_;
    uint64_t samples_ = 0, samples_before_ = 0; // in the file, at the last round
    uint64_t bytes_before_ = 0;                 // likewise
    uint64_t records_ = 0;                      // bytes of the journal that rounds have taken
    bool is_refused_ = false;                   // no more room could be kept since the last round

    uint32_t rounds_ = 0;
    bool is_named_ = false;          // the directory was synced since the files were made
    blkcnt_t synced_blocks_ = 0;     // of both files, in a table that has to be synced before them
    std::vector<uint8_t> unwritten_; // the rest of a short append goes first
    uint64_t size_ = 0;
    int protection_error_ = 0;
};

} // namespace mediafiles::recorder
