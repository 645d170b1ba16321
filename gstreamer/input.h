/** A stream of a recording: what a pad and the recording know of it. The recording's lock guards it. */
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <mediafiles/recorder.h>

#include "format.h"
#include "owners.h"

namespace mediafiles::gstreamer {

using steady = std::chrono::steady_clock;

using format_ptr = std::shared_ptr<const format>;

inline bool is_delta(GstBuffer *buffer)
{
    return GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
}

/* Frames that were dropped while no recorder could take them. */
struct gap {
    uint64_t count = 0;
    int64_t from = 0, to = 0; // their times
};

struct input : std::enable_shared_from_this<input> {
    explicit input(GstPad *pad) : name(GST_PAD_NAME(pad)) { g_weak_ref_init(&pad_, pad); }
    ~input() { g_weak_ref_clear(&pad_); }
    input(const input &) = delete;
    input &operator=(const input &) = delete;

    /** NULL when it has gone. */
    owner<GstPad> pad() { return owner<GstPad>(static_cast<GstPad *>(g_weak_ref_get(&pad_))); }

    const std::string name;
    format_ptr carries;                  // by its caps; one for all that fit to the same track
    bool is_flushing = false;            // nothing waits
    bool has_started = false;            // a stream
    bool has_ended = false;              // until another stream starts
    bool can_wait = false;               // its source is not live
    gap missing = {};                    // that goes on up to the next key frame
    std::optional<uint32_t> recorded_as; // the track, in the recorder that runs
    format_ptr recorded_format;          // of that

    /* Streams that can wait for each other. */
    std::optional<int64_t> latest;    // its time, ns
    steady::time_point moved_at = {}; // to that
    std::thread::id thread = {};      // that brought it

    /* By the recorders that have ended. */
    mediafiles_recorder_track_stats before = {};
    uint64_t safe_before = 0;

private:
    GWeakRef pad_;
};

using input_ptr = std::shared_ptr<input>;

} // namespace mediafiles::gstreamer
