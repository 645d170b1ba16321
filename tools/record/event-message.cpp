#include "tools/record/event-message.h"

#include <cerrno>

#include "tools/failure.h"
#include "tools/print.h"
#include "tools/seconds.h"

namespace tools {

namespace {

std::string frames(uint64_t count)
{
    return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

event_message lasting(const char *what, const std::string &path, int error)
{
    return {weight::failure, failure(what, path, error).what()};
}

} // namespace

event_message message_of(const mediafiles_recorder_event &event, const std::string &path, const std::string &stream)
{
    switch (event.kind) {
    case MEDIAFILES_EVENT_BEGUN:
        return {weight::note, "recording into " + path};
    case MEDIAFILES_EVENT_RECOVERED:
        return {weight::note, "completed: " + path + ": " + frames(event.count)};
    case MEDIAFILES_EVENT_NOT_RECOVERED:
        if (event.reason != 0 && event.reason != MEDIAFILES_REASON_SYSTEM)
            return {weight::problem,
                    failure("cannot complete", path,
                            std::string(mediafiles_reason_text(event.reason)) + "; 'mediafiles repair' says what helps")
                        .what()};
        return {weight::problem, failure("cannot complete", path, event.error).what()};
    case MEDIAFILES_EVENT_DELETED:
        return {weight::note, "deleted: " + path + print(": %ju bytes", uintmax_t{event.count})};
    case MEDIAFILES_EVENT_STALLED:
        return {weight::problem,
                "the medium is slow: " + path + ": frames wait in memory; when --queue is full, they are lost"};
    case MEDIAFILES_EVENT_GOES_ON:
        return {weight::note, "the recording goes on: " + path};
    case MEDIAFILES_EVENT_CLOCK:
        return {weight::note, "the time steps: " + stream + print(": by %.3f s", seconds(event.to - event.from))};
    case MEDIAFILES_EVENT_DROPPED:
        return {weight::problem, frames(event.count) + " lost: " + stream + ": the medium did not take them in time"};
    case MEDIAFILES_EVENT_REFUSED:
        if (event.reason == MEDIAFILES_REFUSED_BEFORE_KEY)
            return {weight::note, "left out what comes before the first key frame: " + stream};
        return {weight::problem, "frame dropped: " + stream + ": " + mediafiles_refused_text(event.reason) + more};
    case MEDIAFILES_EVENT_FULL:
        if (event.error != 0) return lasting("cannot write", path, event.error);
        return {weight::failure, failure("cannot write", path,
                                         "--keep-free and --quota leave no room, and nothing may be deleted; make room")
                                     .what()};
    case MEDIAFILES_EVENT_NO_MEDIUM:
        return {weight::failure, failure("cannot record", path,
                                         std::string("its directory cannot be used: ") + std::strerror(event.error))
                                     .what()};
    case MEDIAFILES_EVENT_WRITE_ERROR:
        if (!event.path) return {weight::problem, failure("cannot begin another file", path, event.error).what()};
        return lasting("cannot write", path, event.error);
    case MEDIAFILES_EVENT_PROTECTED:
        if (event.error != 0) return {weight::problem, failure("cannot protect", path, event.error).what()};
        return {weight::note, "protected: " + path};
    default:
        return {};
    }
}

} // namespace tools
