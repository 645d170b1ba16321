/** What the writing thread keeps of a track: the access units on their way, and its parameter sets. */
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <mediafiles/movie.h>

#include "queue.h"

namespace mediafiles::recorder {

struct open_file;

/** The parts of an access unit, as they lie in the queue; a frame of sound has one. */
class access_unit {
public:
    bool empty() const { return parts_.empty(); }
    void add(const queue::taken &part)
    {
        parts_.push_back(part);
        flags_ = static_cast<uint16_t>(flags_ | part.frame->flags);
        size_ += part.frame->length;
        time_ = part.frame->time; // of the slices, which come last
    }
    void clear()
    {
        parts_.clear();
        flags_ = 0;
        size_ = 0;
    }

    void swap(access_unit &other)
    {
        parts_.swap(other.parts_);
        std::swap(flags_, other.flags_);
        std::swap(size_, other.size_);
        std::swap(time_, other.time_);
    }

    uint16_t flags() const { return flags_; }
    bool has(uint16_t flag) const { return flags_ & flag; }
    int64_t time() const { return time_; }
    uint64_t size() const { return size_; }
    uint64_t count() const { return parts_.size(); }
    uint64_t position() const { return parts_.empty() ? queue::everything : parts_.front().position; }
    uint64_t last_position() const { return parts_.back().position; }
    clock::time_point pushed() const { return parts_.back().frame->pushed; }
    const std::vector<queue::taken> &parts() const { return parts_; }

    /** @param scratch  receives the bytes of several parts */
    std::span<const uint8_t> bytes(std::vector<uint8_t> &scratch) const;

private:
    std::vector<queue::taken> parts_;
    uint64_t size_ = 0;
    int64_t time_ = 0;
    uint16_t flags_ = 0;
};

/** The parameter sets of a video track, the latest of each number: those that came last, in their order, are the first. */
class kept_sets {
public:
    /** Takes those of a frame. */
    void update(const mp4_track_desc &track, const queue::entry &frame);
    /** The first one of a kind, which the header of a file has; empty when none came. */
    std::span<const uint8_t> first(uint8_t kind) const;
    /** Those that are neither in the header nor in the access unit, as a sample has them. */
    std::vector<uint8_t> missing_in(const mp4_track_desc &track, const access_unit &unit) const;

    /** Goes up when a set replaces another with other bytes. */
    uint32_t version() const { return version_; }

private:
    struct set {
        uint8_t kind, id;
        std::vector<uint8_t> unit;
    };
    std::vector<set> sets_;
    uint32_t version_ = 1;
};

struct track_input {
    std::vector<queue::taken> waiting; // until the leading track has reached their time
    access_unit incoming;              // parts that came before the first slice
    bool is_left = false;              // its next frame came too late for the event before: the next one's, by the grid
    uint64_t done_until = 0;           // position: what lies before it is on its way, or was let go
    access_unit held;                  // until its successor says how long it lasts
    int64_t held_time = 0;             // where it is in its file, on the capture clock
    kept_sets sets;
    mp4_track_desc description; // of its files; of video, with its size and raw

    open_file *file = nullptr;       // the one its samples go to
    uint32_t file_sets = 0;          // version of the parameter sets with which it entered that file
    std::vector<uint8_t> added_sets; // to its first sample there
    bool comes_in_parts = false;     // parts with slices follow the first one of an access unit
    bool may_have_fields = true;     // two pictures with the same time can be one access unit
    bool needs_key = false;          // video: what comes before the next key frame cannot be decoded

    gap lost; // frames that no file could take, until one takes the next

    bool has_time = false; // of the last access unit; JOIN_STEPS included
    int64_t time = 0, offset = 0;
    uint64_t clock_until = 0;        // position: steps before it were seen
    int64_t stored_time = INT64_MIN; // as it was pushed, of the last access unit that was stored
    uint32_t steps = 0;              // of the capture clock that were seen
    bool bridges = false;            // its times have stepped, and its next file has not begun

    bool has_new_sets() const { return file && file_sets != sets.version(); }
    /** What is held, as the file gets it. @param scratch  receives it where it is in pieces */
    std::span<const uint8_t> sample(std::vector<uint8_t> &scratch) const;
};

} // namespace mediafiles::recorder
