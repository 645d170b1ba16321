/**
 * The recorder for C++20: mediafiles/recorder.h with an owner, durations, spans,
 * exceptions, and events that are values. What is said there of a function holds
 * here, too. Header only: a program links what it links for the C functions.
 *
 *     mediafiles::recorder recorder({
 *         .directory = "/media/card",
 *         .tracks = {mediafiles::h264_track(), mediafiles::aac_track(48000, 2)},
 *         .segment = std::chrono::minutes(1),
 *     });
 *     recorder.push(0, frame, time);                    // for each frame
 *     recorder.stop(std::chrono::seconds(5));
 *
 * Where the C function gives NULL or -1, std::system_error is thrown with its
 * errno and std::generic_category(). Times are nanoseconds; any duration that is
 * as coarse or coarser converts by itself.
 */
#ifndef MEDIAFILES_RECORDER_HPP
#define MEDIAFILES_RECORDER_HPP

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include <mediafiles/recorder.h>

namespace mediafiles {

/** For options: never, or without limit. As patience or timeout: wait for ever. */
inline constexpr std::chrono::nanoseconds never(-1);

/** Video of size 0: taken from its parameter sets. */
inline mp4_track_desc h264_track(uint32_t width = 0, uint32_t height = 0)
{
    return {.type = MP4_TRACK_H264, .video = {width, height, 0}};
}

inline mp4_track_desc h265_track(uint32_t width = 0, uint32_t height = 0)
{
    return {.type = MP4_TRACK_H265, .video = {width, height, 0}};
}

/** AAC-LC; the rate in Hz. */
inline mp4_track_desc aac_track(uint32_t rate, uint32_t channels)
{
    mp4_track_desc made = {};
    made.type = MP4_TRACK_AAC;
    made.audio = {channels, 16, rate};
    return made;
}

/**
 * Owns a recording. It can be moved; what was moved from can only be assigned to
 * and destroyed. Like the C functions, any thread may call anything, but for
 * next_event, which belongs to one thread at a time.
 */
class recorder {
public:
    /** See mediafiles_recorder_options: 0 is the default, and -1, as `never` for times, without limit. */
    struct options {
        std::string directory;              /* exists and is no link */
        std::vector<mp4_track_desc> tracks; /* 1 to 8 */
        std::string pattern = {};           /* empty: "{number}.mp4" */
        std::chrono::nanoseconds sync = {};
        std::chrono::nanoseconds segment = {};
        int64_t segment_bytes = 0;
        std::chrono::nanoseconds longest_gap = {};
        int64_t quota_bytes = 0;
        int64_t keep_free_bytes = 0;
        int64_t protected_bytes = 0;
        int64_t queue_bytes = 0;
        std::chrono::nanoseconds pre_event = {};
        int64_t pre_event_bytes = 0;
        uint32_t file_mode = 0;
        uint32_t flags = 0; /* MEDIAFILES_ANY_START | ... */
    };

    /** What has happened; see the kinds in recorder.h for the fields that each has. */
    struct event {
        uint32_t kind = 0;  /* MEDIAFILES_EVENT_; pass over those that you do not know */
        uint32_t track = 0; /* index */
        uint32_t result = 0, reason = 0;
        std::error_code error;
        uint64_t number = 0, count = 0;
        std::chrono::nanoseconds from = {}, to = {}; /* capture times */
        std::string path;                            /* below the directory of the options; or empty */
    };

    /** Starts recording: mediafiles_recorder_start. */
    explicit recorder(const options &given)
    {
        mediafiles_recorder_options passed = {};
        passed.size = sizeof passed;
        passed.track_count = static_cast<uint32_t>(given.tracks.size());
        passed.tracks = given.tracks.data();
        passed.directory = given.directory.c_str();
        passed.pattern = given.pattern.empty() ? nullptr : given.pattern.c_str();
        passed.sync_ns = given.sync.count();
        passed.segment_ns = given.segment.count();
        passed.segment_bytes = given.segment_bytes;
        passed.longest_gap_ns = given.longest_gap.count();
        passed.quota_bytes = given.quota_bytes;
        passed.keep_free_bytes = given.keep_free_bytes;
        passed.protected_bytes = given.protected_bytes;
        passed.queue_bytes = given.queue_bytes;
        passed.pre_event_ns = given.pre_event.count();
        passed.pre_event_bytes = given.pre_event_bytes;
        passed.file_mode = given.file_mode;
        passed.flags = given.flags;
        handle_.reset(mediafiles_recorder_start(&passed));
        if (!handle_) fail("mediafiles_recorder_start");
    }

    /**
     * Takes a copy of a frame, or of a part of one.
     *
     * @param time   capture time on a monotonic clock that all tracks share
     * @param flags  MEDIAFILES_KEY | MEDIAFILES_DISC
     * @return whether it was taken; false: counted, and reported by an event
     */
    bool push(uint32_t track, std::span<const uint8_t> frame, std::chrono::nanoseconds time, uint32_t flags = 0)
    {
        return check(mediafiles_recorder_push(get(), track, frame.data(), frame.size(), time.count(), flags),
                     "mediafiles_recorder_push") == 0;
    }

    /** The same for a frame in pieces. */
    bool push(uint32_t track, std::span<const iovec> pieces, std::chrono::nanoseconds time, uint32_t flags = 0)
    {
        constexpr size_t most = std::numeric_limits<int>::max();
        const int count = static_cast<int>(std::min(pieces.size(), most));
        return check(mediafiles_recorder_pushv(get(), track, pieces.data(), count, time.count(), flags),
                     "mediafiles_recorder_pushv") == 0;
    }

    /** The next key frame begins a file. */
    void split() { check(mediafiles_recorder_split(get()), "mediafiles_recorder_split"); }

    /** Keeps what was recorded from `before` ago on, until `after` from now. */
    void protect(std::chrono::nanoseconds before, std::chrono::nanoseconds after = {})
    {
        check(mediafiles_recorder_protect(get(), before.count(), after.count()), "mediafiles_recorder_protect");
    }

    /** Event mode: a file of what the memory holds, and of `after` more. */
    void trigger(std::chrono::nanoseconds after)
    {
        check(mediafiles_recorder_trigger(get(), after.count()), "mediafiles_recorder_trigger");
    }

    mediafiles_recorder_stats stats() const
    {
        mediafiles_recorder_stats made = {};
        made.size = sizeof made;
        check(mediafiles_recorder_get_stats(get(), &made), "mediafiles_recorder_get_stats");
        return made;
    }

    /** Readable while an event waits: for poll, not to be read or closed. */
    int event_descriptor() const { return mediafiles_recorder_event_descriptor(get()); }

    /** The oldest event; none when none came in time, or when all are taken after stop. */
    std::optional<event> next_event(std::chrono::nanoseconds timeout = {})
    {
        mediafiles_recorder_event taken = {};
        taken.size = sizeof taken;
        if (check(mediafiles_recorder_next_event(get(), &taken, milliseconds(timeout)),
                  "mediafiles_recorder_next_event") == 0)
            return std::nullopt;
        return event{
            .kind = taken.kind,
            .track = taken.track,
            .result = taken.result,
            .reason = taken.reason,
            .error = {taken.error, std::generic_category()},
            .number = taken.number,
            .count = taken.count,
            .from = std::chrono::nanoseconds(taken.from),
            .to = std::chrono::nanoseconds(taken.to),
            .path = taken.path ? taken.path : "",
        };
    }

    /**
     * Stores what was pushed and finishes the files. Without it, the destructor
     * gives up what is on its way: recovery completes the files. Throws ETIMEDOUT
     * when the medium does not answer within `patience`.
     */
    void stop(std::chrono::nanoseconds patience = never)
    {
        check(mediafiles_recorder_stop(get(), patience.count()), "mediafiles_recorder_stop");
    }

    /** For the C functions. */
    mediafiles_recorder *get() const { return handle_.get(); }

private:
    struct destroy {
        void operator()(mediafiles_recorder *owned) const { mediafiles_recorder_destroy(owned); }
    };

    [[noreturn]] static void fail(const char *function)
    {
        throw std::system_error(errno, std::generic_category(), function);
    }

    static int check(int result, const char *function)
    {
        if (result < 0) fail(function);
        return result;
    }

    static int32_t milliseconds(std::chrono::nanoseconds timeout)
    {
        if (timeout < std::chrono::nanoseconds(0)) return -1;
        constexpr int64_t most = std::numeric_limits<int32_t>::max();
        return static_cast<int32_t>(
            std::min<int64_t>(std::chrono::ceil<std::chrono::milliseconds>(timeout).count(), most));
    }

    std::unique_ptr<mediafiles_recorder, destroy> handle_;
};

} // namespace mediafiles

#endif
