/** What the properties of the element ask for, and how a recorder is started with it. */
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <gst/gst.h>

#include <mediafiles/recorder.h>

namespace mediafiles::gstreamer {

/** The properties, by their names; times in nanoseconds. */
struct settings {
    std::string location, pattern; // one of them
    uint64_t max_size_time = 0;
    uint64_t max_size_bytes = 0;
    bool send_keyframe_requests = false;
    uint64_t quota = 0;
    uint64_t keep_free = 64 << 20;
    uint64_t sync_interval = GST_SECOND;
    uint64_t queue_bytes = 8 << 20;
    uint64_t pre_event = 0;
    uint64_t pre_event_bytes = 64 << 20;
    uint64_t patience = 5 * GST_SECOND;
};

/** Why nothing can be recorded with them; empty when it can. Does not touch the medium. */
std::string objection_to(const settings &given);

/** The directory of the files, links followed. Waits for the medium. Empty with errno when it is not there. */
std::string directory_of(const settings &given);

/**
 * NULL with errno. Waits for the medium.
 *
 * @param files  that recorders before it have begun. Without {number} it goes on with the name after theirs
 */
mediafiles_recorder *start_recorder(const settings &given, const std::string &directory,
                                    std::span<const mp4_track_desc> tracks, uint32_t files);

/** Why it was NULL. */
std::string reason_of_start(const settings &given, int error);

} // namespace mediafiles::gstreamer
