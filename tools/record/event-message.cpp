#include "tools/record/event-message.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/failure.h"
#include "tools/print.h"
#include "tools/record/output.h"
#include "tools/seconds.h"

namespace tools {

namespace {

std::string frames(uint64_t count)
{
    return counted(count, "frame");
}

/* What is free, and the options by which no more may be used. */
std::string no_room(const std::string &path, const record_options &options)
{
    const auto megabytes = [](auto bytes) { return print("%.1f MB", static_cast<double>(bytes) / 1e6); };
    const std::string directory = std::filesystem::path(path).parent_path();
    std::error_code ignored;
    const auto free = std::filesystem::space(directory.empty() ? "." : directory, ignored).available;
    const int64_t usually_kept = place_of(options.output).is_numbered ? 64 << 20 : 0;
    const int64_t kept = options.keep_free.value_or(usually_kept);
    std::string text = "no room: " + megabytes(free) + " are free";
    if (kept != 0) text += ", --keep-free is " + megabytes(kept);
    if (options.quota != 0) text += ", --quota is " + megabytes(options.quota);
    return text + "; delete files" + (kept != 0 || options.quota != 0 ? ", or change that" : "");
}

std::string why_not_written(int error)
{
    return words_of(error) + (error == EFBIG ? "; --segment makes smaller files" : "");
}

std::string no_directory(int error)
{
    if (error == ENOENT || error == ENODEV) return "the directory is gone; check that the card is inserted and mounted";
    return words_of(error);
}

} // namespace

event_message message_of(const mediafiles_recorder_event &event, const event_context &context,
                         const record_options &options)
{
    const auto &[path, stream, is_slow] = context;
    switch (event.kind) {
    case MEDIAFILES_EVENT_BEGUN:
        return {weight::note, "recording into " + path};
    case MEDIAFILES_EVENT_RECOVERED:
        return {weight::note, "completed: " + path + ": " + frames(event.count)};
    case MEDIAFILES_EVENT_NOT_RECOVERED: {
        const bool is_known = event.reason != 0 && event.reason != MEDIAFILES_REASON_SYSTEM;
        const std::string why = is_known ? mediafiles_reason_text(event.reason) : std::strerror(event.error);
        const std::string repair = "; 'mediafiles repair " + path + "' says what helps";
        return {weight::problem,
                place_of(options.output).is_numbered
                    ? failure("cannot complete an earlier file", path, why + "; the recording goes on" + repair).what()
                    : failure("cannot complete", path, why + repair).what()};
    }
    case MEDIAFILES_EVENT_DELETED:
        return {weight::note, "deleted: " + path + print(": %ju bytes", uintmax_t{event.count})};
    case MEDIAFILES_EVENT_STALLED:
        return {weight::problem, "the medium is slow: " + path +
                                     ": frames wait in memory; when --queue is full, they are lost: a faster card "
                                     "helps, or a larger --queue"};
    case MEDIAFILES_EVENT_GOES_ON:
        return {weight::note, "the recording goes on: " + path};
    case MEDIAFILES_EVENT_CLOCK:
        return {weight::note, "gap: " + stream + print(": %.3f s", seconds(event.to - event.from))};
    case MEDIAFILES_EVENT_DROPPED:
        return {weight::problem,
                frames(event.count) + " lost: " + stream +
                    (is_slow ? ": the medium did not take them in time" : ": they could not be written")};
    case MEDIAFILES_EVENT_REFUSED:
        if (event.reason == MEDIAFILES_REFUSED_BEFORE_KEY)
            return {weight::note, "left out what comes before the first key frame: " + stream};
        return {weight::problem, "frame dropped: " + stream + ": " + mediafiles_refused_text(event.reason) + more};
    case MEDIAFILES_EVENT_FULL:
        return {weight::failure,
                failure("cannot write", path, event.error != 0 ? why_not_written(event.error) : no_room(path, options))
                    .what()};
    case MEDIAFILES_EVENT_NO_MEDIUM:
        return {weight::failure, failure("cannot record", path, no_directory(event.error)).what()};
    case MEDIAFILES_EVENT_WRITE_ERROR:
        if (!event.path) return {weight::problem, failure("cannot begin another file", path, event.error).what()};
        return {weight::failure, failure("cannot write", path, why_not_written(event.error)).what()};
    case MEDIAFILES_EVENT_PROTECTED:
        if (event.error != 0)
            return {weight::problem,
                    failure("cannot protect", path,
                            words_of(event.error) + "; it may be deleted to make room: copy it to a safe place")
                        .what()};
        return {weight::note, "protected: " + path};
    default:
        return {};
    }
}

} // namespace tools
