/** What happens in a recorder, as messages and structures of GStreamer. */
#pragma once

#include <string>

#include <gst/gst.h>

#include <mediafiles/recorder.h>

#include "owners.h"

namespace mediafiles::gstreamer {

/**
 * An element message, "mediafiles-" and the event's text, with the fields that the event has.
 *
 * @param directory  of the recorder
 * @param pad        of the event's track; empty: it has none
 */
GstMessage *message_of(GstElement *element, const mediafiles_recorder_event &event, const std::string &directory,
                       const std::string &pad);

/** Of the whole recording, without those of its pads. */
owner<GstStructure> structure_of(const mediafiles_recorder_stats &stats);
owner<GstStructure> structure_of(const mediafiles_recorder_track_stats &stats, uint64_t safe);

/** What has happened in recorders that followed each other; what is so now is the later one's. */
void add(mediafiles_recorder_stats &to, const mediafiles_recorder_stats &later);
void add(mediafiles_recorder_track_stats &to, const mediafiles_recorder_track_stats &later);

} // namespace mediafiles::gstreamer
