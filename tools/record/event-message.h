/** What a user is told of a recorder's events. */
#ifndef TOOLS_RECORD_EVENT_MESSAGE_H
#define TOOLS_RECORD_EVENT_MESSAGE_H

#include <string>

#include <mediafiles/recorder.h>

namespace tools {

/** Ends a message about a frame that stands for others. */
inline constexpr const char *more = " (more of these are only counted)";

enum class weight {
    none,    // nothing is said
    note,    // information
    problem, // something is lost, or left as it is
    failure, // nothing can be recorded for now
};

struct event_message {
    weight is = weight::none;
    std::string text = {};
};

/**
 * @param path    of the event's file, or of the recording
 * @param stream  the source of the event's track
 */
event_message message_of(const mediafiles_recorder_event &event, const std::string &path, const std::string &stream);

} // namespace tools

#endif
