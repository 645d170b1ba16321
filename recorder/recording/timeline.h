/**
 * The times of one file's samples.
 *
 * A movie gives each sample the time since the sample before it, and the first
 * sample none (movie.h). So a sample is handed over with the time at which the
 * NEXT one of its track begins, and the first one with its own: of capture
 * times t0, t1, t2 ... and the end tN, the core gets t0, t2, t3 ... tN. Sample
 * i then begins at t(i) for each i from 2 on, samples 0 and 1 begin at t0, and
 * the track ends at tN. One sample of each track is held back for it. A track
 * of one sample has no duration.
 *
 * Times lie on the track's grid of ticks, counted from where the track begins
 * in the file, so that what the core rounds never adds up. Sound within half a
 * frame of its sample count is put on that count. A file, and each of its
 * tracks, begins and ends at a whole millisecond of the capture clock, because
 * movie header and edit list count truncated milliseconds. So the lengths of
 * files that follow each other add up exactly.
 *
 * Tracks differ in how early they arrive: the end of a file is known when the
 * key frame that begins the next one arrives. Sound that was handed over by
 * then with a later time stays in the file. To be exact, take no frame of
 * another track before the first video track has reached its time.
 *
 * How it is used, for each file:
 *
 *     line.begin(t);                               // the first frame's time
 *     if (!line.has_started(track))                // a frame of a track:
 *         hand_over(frame, line.start(track, t));
 *     else {
 *         if (auto time = line.follow(track, t)) hand_over(held, *time);
 *         held = frame;
 *     }
 *     if (auto time = line.release(track))         // no successor within the sync interval
 *         hand_over(held, *time);
 *     if (auto time = line.finish(track, end))     // the file ends
 *         hand_over(held, *time);
 *
 * Capture times are nanoseconds of any origin; within a track they never step
 * back, a recorder begins a new file before. Times that are handed over count
 * from the file's beginning, since the core's seconds have 32 bits. A plain
 * record: it can be copied, and allocates nothing. Used by one thread at a time.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <mediafiles/movie.h>

namespace mediafiles::recorder {

/**
 * Capture times lie between these two, so that no difference of two overflows:
 * 146 years. What is beyond is refused before it gets here.
 */
inline constexpr int64_t latest_time = (int64_t{1} << 62) - 1, earliest_time = -latest_time;

/** The nearest whole millisecond; half up. */
int64_t whole_millisecond(int64_t time);

class timeline {
public:
    /** For all files of a recorder: frames of a track last as long as the last one did, across files. At most 8 tracks. */
    explicit timeline(std::span<const mp4_track_desc> tracks);

    /** A file begins at the whole millisecond next to `time`; no track has started. */
    void begin(int64_t time);
    /** The file's beginning on the capture clock: a whole millisecond. */
    int64_t beginning() const { return beginning_; }

    /**
     * Whether the core can hold a sample of that time: the file lasts less than 2^31 seconds, and the sample before it
     * at most 2^31 - 1 ticks (6.6 hours of video). Where not, a new file has to begin. Ask before start and follow.
     */
    bool has_room_for(uint32_t track, int64_t time) const;

    /**
     * Whether a sample is still one of this file when the track ends at the whole millisecond next to `end`: it begins
     * 2 ms before that or earlier, where the grid or the sample count puts it. Once one is not, no later one is. For
     * the track whose key frame is the cut the question does not arise: all that comes before it is before.
     */
    bool is_before(uint32_t track, int64_t time, int64_t end) const;

    bool has_started(uint32_t track) const { return of(track).started; }
    /** Whether a sample is held back: its time is not known yet. */
    bool is_holding(uint32_t track) const { return of(track).holding; }

    /** The first sample of a track: its own time, which is handed over with itself. */
    mp4_time start(uint32_t track, int64_t time);

    /** A later sample, which is held back from now on. The time for the one that was held until now, if any was. */
    std::optional<mp4_time> follow(uint32_t track, int64_t time);

    /**
     * The successor is late: a time for the sample that is held, which then lasts as long as the one before it. The
     * difference is made up by the successor, which begins there, and added to made_up().
     */
    std::optional<mp4_time> release(uint32_t track);

    /**
     * The track ends at the whole millisecond next to `end`, but not before the sample that is held, and after its usual
     * duration where the core could not hold the sample as long: the time for that sample, if one is held. `end` is the
     * next file's beginning; of another video track its own next key frame; of a recording's last file usual_next().
     */
    std::optional<mp4_time> finish(uint32_t track, int64_t end);

    /** Where the track's next frame begins if the last one lasts as long as usual, on the capture clock. */
    int64_t usual_next(uint32_t track) const;

    /** When the track's last sample began, on the capture clock: what was taken, held back or not. */
    int64_t last(uint32_t track) const;

    /** Nanoseconds by which late successors begin in the file at another time than they were captured, in sum. */
    int64_t made_up() const { return made_up_; }

private:
    struct track_clock {
        uint32_t timescale;   // ticks per second
        uint32_t frame_ticks; // of a frame of sound; 0: video
        int64_t usual;        // ticks from the sample before the last to the last
        int64_t origin;       // where tick 0 is on the capture clock: a whole millisecond
        int64_t placed;       // ticks: where the last sample begins
        int64_t given;        // nanoseconds from origin that were handed over last
        bool started, holding, late;
    };

    const track_clock &of(uint32_t track) const { return clocks_[track]; }
    int64_t place(const track_clock &, int64_t time) const;
    mp4_time give(track_clock &, int64_t since_origin);

    track_clock clocks_[MP4_MAX_TRACKS];
    int64_t beginning_ = 0;
    int64_t made_up_ = 0;
};

} // namespace mediafiles::recorder
