/**
 * Frames on their way from the callers to the writing thread: a ring of bytes
 * that is allocated once.
 *
 * A frame lies in one piece, in the form in which it is stored. Entries are
 * taken in order; their bytes stay where they are until they are released, so
 * that the writer can hold frames back without a copy. The lock is held for
 * copies in memory only, never while the medium is used.
 *
 * When the ring is full, groups of pictures go: a video frame that finds no
 * room, and those that follow it up to the next start of a group that has room.
 * Sound without room takes the place of the newest groups of pictures that
 * wait; it goes only when no video is left.
 *
 * In event mode the ring is also the memory of what came before an event: the
 * writer does not release what it has taken, and rewinds when the event comes.
 */
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include <mediafiles/movie.h>

#include "capture-line.h"
#include "light-lock.h"

namespace mediafiles::recorder {

using clock = std::chrono::steady_clock;

/** What is known of a frame from its bytes; bits of queue::entry::flags. */
enum frame_flag : uint16_t {
    frame_is_key = 1,      // decoding can begin with it
    frame_has_picture = 2, // or part of one; sound always
    frame_has_sets = 4,    // parameter sets
    frame_is_recovery = 8, // a recovery point
    frame_steps = 16,      // the caller says that its time does not continue those before
    frame_after_gap = 32,  // frames of its track that came before it were dropped
    frame_after_tear = 64, // likewise, parts of the access unit before the gap among them
    frame_begins = 128,    // its first slice is a picture's first
};

/** Frames of one track that were dropped one after another. */
struct gap {
    uint64_t count = 0;
    int64_t from = 0, to = 0; // capture times of the first and last of them
};

class queue {
public:
    struct entry {
        uint32_t size;   // of header, bytes and padding
        uint32_t length; // bytes of the frame
        uint16_t track;
        uint16_t flags;
        uint32_t unused;
        int64_t time;
        int64_t passed; // on the capture line
        clock::time_point pushed;

        uint8_t *bytes() { return reinterpret_cast<uint8_t *>(this + 1); }
        const uint8_t *bytes() const { return reinterpret_cast<const uint8_t *>(this + 1); }
    };
    static_assert(sizeof(entry) == 40);

    enum class outcome { taken, dropped, refused, too_large, closed };
    struct result {
        outcome what;
        gap ended;   // of the track, when this frame ends one
        bool stalls; // half of the queue is used, and was not at the frame before
    };

    /** What the largest frame may grow by when it is stored, and its header. */
    static constexpr uint64_t spare = 4096;

    /**
     * @param kept    bytes in addition, which what was taken and is not released may use without a stall
     * @param video   a bit for each track: 1 for video
     * @param leader  the track whose frames make the capture line
     */
    queue(uint64_t bytes, uint64_t kept, uint32_t video, uint32_t leader, capture_line line);

    /** Bytes of the largest frame. Half of them lie before the ring's end, when what is kept divides the rest. */
    uint64_t largest() const { return largest_; }

    /**
     * Adds a frame.
     *
     * @param now   when it was given
     * @param room  bytes that fill may write
     * @param fill  (uint8_t *to, entry &) sets length and flags; false: the frame is refused. Called with the lock held
     */
    template <class Fill>
    result push(uint32_t track, int64_t time, clock::time_point now, uint64_t room, uint32_t flags, Fill fill)
    {
        result made = {outcome::taken, {}, false};
        bool wakes;
        {
            const std::lock_guard guard(lock_);
            if (is_closed_) return {outcome::closed, {}, false};
            if (room > largest()) return {outcome::too_large, {}, false};
            if (track == leader_) line_.pass(time, flags & frame_steps);
            entry *const to = find_room(track, room);
            if (!to) {
                drop(track, time);
                return {outcome::dropped, {}, false};
            }
            *to = {0, 0, static_cast<uint16_t>(track), static_cast<uint16_t>(flags), 0, time, line_.elapsed(), now};
            if (!fill(to->bytes(), *to)) return {outcome::refused, {}, false};
            track_state &state = tracks_[track];
            if (state.is_dropping) {
                if (is_video(track) && !starts_group(*to)) {
                    drop(track, time);
                    return {outcome::dropped, {}, false};
                }
                to->flags |= frame_after_gap;
                if (state.is_torn) to->flags |= frame_after_tear;
                made.ended = state.dropped;
                state.dropped = {};
                state.is_dropping = state.is_torn = false;
            }
            state.last = time;
            append(*to);
            made.stalls = note_use();
            wakes = (track == leader_ || awaits_all_ || end_ - next_ > (capacity() - kept_) / 4) && taker_.call();
        }
        if (wakes) taker_.wake();
        return made;
    }

    /** An entry that next gave; it stays in place until it is released. */
    struct taken {
        const entry *frame = nullptr;
        uint64_t position = 0;
        bool has_next = false; // another one may be there
    };
    /**
     * Waits for an entry, until the deadline, wake or close.
     *
     * @param all  frames of any track end the wait; otherwise those of the leading track, and others when a quarter of
     *             the queue is full of them
     * @return whether there is one
     */
    bool await(clock::time_point deadline, bool all);
    /** Waits until wake or close. @return false: what comes is left where it is */
    bool rest();
    /** The next entry, or none. */
    taken next();

    /**
     * What lies before this position is not needed any more; `everything`: all that next gave.
     *
     * @return whether more than half of the queue was used and no more than a quarter is: once for each `stalls`
     */
    bool release(uint64_t position);
    static constexpr uint64_t everything = UINT64_MAX;

    enum class wait { over, timed_out, closed };
    /** Until no more than half of the queue is used, and a frame of that many bytes, the largest at most, finds room. */
    wait await_room(uint64_t room, clock::time_point until);
    /** next gives the entries from this position on once more; none of them was released. */
    void rewind(uint64_t position);
    /** Goes through entries that next gave and that were not released. For the thread that calls next. */
    template <class Visit>
    void look_back(uint64_t from, uint64_t to, Visit visit)
    {
        for (uint64_t position = from; position < to; position += at(position).size)
            if (at(position).track != padding) visit(taken{&at(position), position});
    }
    struct moment {
        uint64_t position; // where the next entry is going to lie, at the earliest
        int64_t passed;    // on the capture line
    };
    moment now();

    /** Makes next return. */
    void wake();

    /** No frame is taken any more. */
    void close();
    bool is_closed();
    bool is_drained();

    /** The gap of a track that no frame has ended. */
    gap open_gap(uint32_t track);

    struct use {
        uint64_t bytes, most;
        uint64_t dropped; // frames, in gaps that no frame has ended
    };
    use in_use();

private:
    struct track_state {
        bool is_dropping = false, is_torn = false;
        int64_t last = INT64_MIN; // time of the last entry
        int64_t seen = INT64_MIN; // and of the last one that next gives, or gave
        gap dropped;
    };
    /* Positions count bytes from the beginning of time; an entry lies at the position modulo the ring's size. */
    static constexpr uint16_t padding = UINT16_MAX; // as its track: an entry that fills the ring up to its end
    static constexpr uint32_t most_reserved = 16;
    uint64_t capacity() const { return capacity_; }
    /* What is kept, and of the rest one in so many. */
    uint64_t part_in_use(uint64_t divisor) const { return kept_ + (capacity() - kept_) / divisor; }
    entry &at(uint64_t position)
    {
        return *reinterpret_cast<entry *>(reinterpret_cast<uint8_t *>(memory_.data()) +
                                          static_cast<size_t>(position % capacity_));
    }
    bool is_video(uint32_t track) const { return video_ >> track & 1; }
    static bool starts_group(const entry &each)
    {
        return each.flags & (frame_is_key | frame_has_sets | frame_is_recovery);
    }

    entry *find_room(uint32_t track, uint64_t room);
    entry *room_at_end(uint64_t room);
    bool has_room(uint64_t room) const;
    void append(entry &filled);
    void drop(uint32_t track, int64_t time);
    bool drop_newest_group();
    void skip_padding(uint64_t &position);
    bool reserve();
    bool note_use();
    template <class IsDue>
    void sleep(std::unique_lock<light_lock> &, clock::time_point until, IsDue);

    const uint32_t video_, leader_;
    const uint64_t kept_;
    std::vector<entry> memory_; // entries and the bytes between them
    const uint64_t capacity_;   // bytes of it
    const uint64_t largest_;
    light_lock lock_;
    capture_line line_; // of what was pushed
    std::condition_variable_any released_;
    uint32_t awaiting_room_ = 0; // threads
    sleeper taker_;              // the thread that calls next
    uint64_t begin_ = 0;         // oldest entry that is not released
    uint64_t next_ = 0;          // entry that next gives, after those that are reserved
    uint64_t end_ = 0;
    uint64_t given_ = 0,
             reserved_ = 0; // next gives what lies between them; of the thread that calls it, without the lock
    uint64_t seen_ = 0;     // what lies before was given once: it stays where it is
    uint64_t most_used_ = 0;
    bool awaits_all_ = true;
    bool is_stalled_ = false, is_woken_ = false, is_closed_ = false;
    std::array<track_state, MP4_MAX_TRACKS> tracks_;
};

} // namespace mediafiles::recorder
