/** What a user is told of a recorder's events. */
#ifndef TOOLS_RECORD_EVENT_MESSAGE_H
#define TOOLS_RECORD_EVENT_MESSAGE_H

#include <string>

#include <mediafiles/recorder.h>

#include "tools/record/record.h"

namespace tools {

/** Ends a message about a frame that stands for others. */
inline constexpr const char *more = " (later ones are only counted)";

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

/** What is said with an event. */
struct event_context {
    std::string path;   // of its file; else where is recorded: a directory, which ends in a slash, or a file
    std::string stream; // the source of its track
    bool is_slow;       // of what goes wrong the latest that was reported is that the medium is slow
};

event_message message_of(const mediafiles_recorder_event &event, const event_context &, const record_options &);

} // namespace tools

#endif
