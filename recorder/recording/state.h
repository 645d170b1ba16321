/** What the callers and the two threads of a recorder share. It lives as long as any of them. */
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <mediafiles/recorder.h>

#include "codec.h"
#include "events.h"
#include "medium.h"
#include "names.h"
#include "pause.h"
#include "queue.h"
#include "reserve.h"
#include "safe-file.h"

namespace mediafiles::recorder {

constexpr int64_t never = INT64_MAX;

/** The options, with their defaults in place; `never` stands for "without limit". */
struct settings {
    std::vector<mp4_track_desc> tracks; // without the raw flag
    uint32_t video = 0;                 // a bit for each track
    std::string directory;
    name_pattern names;
    int64_t sync, segment, segment_bytes, longest_gap;
    int64_t queue_bytes, quota, keep_free, most_protected;
    int64_t pre_event, pre_event_bytes; // 0: no event mode
    uint32_t file_mode, flags;

    bool has(uint32_t flag) const { return flags & flag; }
    bool has_events() const { return pre_event != 0; }
    bool is_video(uint32_t track) const { return video >> track & 1; }
    uint32_t track_count() const { return static_cast<uint32_t>(tracks.size()); }
    /** The first video track; of sound alone the first. */
    uint32_t leader() const { return video == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(video)); }
};

/** The largest of what was measured. */
class worst {
public:
    void note(clock::time_point begin)
    {
        const int64_t took = std::chrono::nanoseconds(clock::now() - begin).count();
        int64_t known = value_.load(std::memory_order_relaxed);
        while (took > known && !value_.compare_exchange_weak(known, took, std::memory_order_relaxed)) {}
    }
    int64_t get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<int64_t> value_ = 0;
};

struct track_counters {
    std::atomic<uint64_t> frames = 0, key_frames = 0, bytes = 0, refused = 0;
};

struct counters {
    std::atomic<uint32_t> files = 0;
    std::atomic<uint64_t> frames_in = 0, frames_out = 0, frames_dropped = 0, frames_refused = 0, bytes_in = 0,
                          bytes_out = 0, frames_let_go = 0;
    std::atomic<int64_t> free_bytes = 0, made_up = 0;
    std::array<track_counters, MP4_MAX_TRACKS> tracks = {};
    std::array<std::atomic<uint64_t>, MP4_MAX_TRACKS> safe = {};
    std::array<std::atomic<int64_t>, MP4_MAX_TRACKS> pushed_to = {}, safe_to = {}; // capture times; see has_pushed
    std::array<std::atomic<bool>, MP4_MAX_TRACKS> has_pushed = {};
    worst push, write, sync;
};

/** Time around the moments of calls, on the capture line; calls that the writing thread has not seen are joined. */
struct request {
    bool is_made = false;
    uint64_t first = 0, last = 0; // where the queue ended at the calls
    int64_t from = 0, until = 0;

    /** @param before,after  0 or more */
    void join(const queue::moment &now, int64_t before, int64_t after)
    {
        const int64_t end = now.passed < never - after ? now.passed + after : never;
        from = is_made ? std::min(from, now.passed - before) : now.passed - before;
        until = is_made ? std::max(until, end) : end;
        if (!std::exchange(is_made, true)) first = now.position;
        last = now.position;
    }
};

struct state {
    state(settings given, recovery::descriptor opened)
        : options(std::move(given)), directory(std::move(opened)),
          location(options.directory, options.names.is_numbered(), directory),
          frames(static_cast<uint64_t>(options.queue_bytes), static_cast<uint64_t>(options.pre_event_bytes),
                 options.video, options.leader(), capture_line(options.longest_gap))
    {
    }

    void report(const happening &what, std::string_view path = {}) noexcept { events.add(what, path); }

    const settings options;
    recovery::descriptor directory; // until both threads have ended; while paused the syncing thread changes it
    medium location;                // of the directory; the syncing thread opens it again
    queue frames;
    event_list events;
    counters count;
    pause paused;
    spare_file spare;
    std::atomic<uint64_t> running_bytes = 0;   // of the files that are recorded
    std::atomic<uint64_t> running_samples = 0; // likewise
    std::atomic<uint64_t> next_bytes = 0;      // that the next file takes at once
    std::atomic<bool> wants_split = false;
    std::atomic<bool> is_short = false;      // room was refused that there should be
    std::atomic<bool> is_new_medium = false; // the writing thread has to look for numbers and files
    std::atomic<bool> is_abandoned = false;  // the threads end as soon as the kernel lets them
    std::array<std::atomic<uint32_t>, MP4_MAX_TRACKS> refused_why = {}; // a bit for each reason that was reported

    /** From now on nothing touches the medium but the syncing thread, which looks for it. */
    void miss_medium(int error)
    {
        if (paused.begin(pause::no_medium)) report({.kind = MEDIAFILES_EVENT_NO_MEDIUM, .error = error});
        frames.wake();
    }

    /** A frame that cannot be stored is counted, and reported once for each track and reason. */
    void refuse(uint32_t track, uint32_t reason, int64_t time)
    {
        count.frames_refused.fetch_add(1, std::memory_order_relaxed);
        count.tracks[track].refused.fetch_add(1, std::memory_order_relaxed);
        if (refused_why[track].fetch_or(1u << reason, std::memory_order_relaxed) >> reason & 1) return;
        report({.kind = MEDIAFILES_EVENT_REFUSED, .track = track, .reason = reason, .from = time, .to = time});
    }

    void report_gap(uint32_t track, const gap &dropped)
    {
        if (dropped.count == 0) return;
        report({.kind = MEDIAFILES_EVENT_DROPPED,
                .track = track,
                .count = dropped.count,
                .from = dropped.from,
                .to = dropped.to});
    }

    std::mutex asking; // for the two requests
    request protection, event;
    std::atomic<bool> is_asked = false;

    /* Threads that have not ended. */
    std::mutex lock;
    std::condition_variable ended;
    int threads = 0;
};

} // namespace mediafiles::recorder
