#include "settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "owners.h"
#include "place.h"

namespace mediafiles::gstreamer {

namespace {

constexpr std::string_view extension = ".mp4"; // of every pattern, in any case

place place_of(const settings &given)
{
    return given.location.empty() ? place_of_pattern(given.pattern) : place_of_location(given.location);
}

/* 0 is none in a property, and the default in a recorder's options. */
int64_t or_none(uint64_t given)
{
    return given == 0 ? -1 : static_cast<int64_t>(given);
}

} // namespace

std::string objection_to(const settings &given)
{
    if (given.location.empty() == given.pattern.empty())
        return given.location.empty() ? "one of the properties location and pattern has to be set"
                                      : "only one of the properties location and pattern can be set";
    const mp4_track_desc any_track = {.type = MP4_TRACK_H264, .video = {}};
    try {
        /* What is wrong with the options is found before the directory is opened, and none has an empty name. */
        if (start_recorder(given, "", {&any_track, 1}, 0) != nullptr || errno != EINVAL) return {};
    } catch (const std::invalid_argument &wrong) {
        return wrong.what();
    }
    return reason_of_start(given, EINVAL);
}

std::string directory_of(const settings &given)
{
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(place_of(given).directory.c_str(), nullptr),
                                                           &std::free);
    return real ? real.get() : "";
}

mediafiles_recorder *start_recorder(const settings &given, const std::string &directory,
                                    std::span<const mp4_track_desc> tracks, uint32_t files)
{
    std::string pattern = place_of(given).pattern;
    if (files != 0 && pattern.find("{number") == pattern.npos)
        pattern.insert(pattern.size() - extension.size(), std::to_string(files + 1).insert(0, 1, '-'));
    mediafiles_recorder_options options = {};
    options.size = sizeof options;
    options.track_count = static_cast<uint32_t>(tracks.size());
    options.tracks = tracks.data();
    options.directory = directory.c_str();
    options.pattern = pattern.c_str();
    options.sync_ns = std::max<int64_t>(static_cast<int64_t>(given.sync_interval), 1);
    options.segment_ns = static_cast<int64_t>(given.max_size_time);
    options.segment_bytes = static_cast<int64_t>(given.max_size_bytes);
    options.quota_bytes = static_cast<int64_t>(given.quota);
    options.keep_free_bytes = or_none(given.keep_free);
    options.queue_bytes = static_cast<int64_t>(given.queue_bytes);
    options.pre_event_ns = static_cast<int64_t>(given.pre_event);
    options.pre_event_bytes = given.pre_event == 0 ? 0 : static_cast<int64_t>(given.pre_event_bytes);
    options.file_mode = 0666;
    options.flags = MEDIAFILES_ANY_START;
    return mediafiles_recorder_start(&options);
}

std::string reason_of_start(const settings &given, int error)
{
    if (error == EINVAL && !given.location.empty())
        return "no name for files: a location ends in .mp4, and no part of it is .. or too long, or ends in a dot or a "
               "space";
    if (error == EINVAL)
        return "not a pattern: its fields are {number} or {number:DIGITS} and %Y %m %d %H %M %S, its end is .mp4; "
               "quota needs {number}";
    if (error == EBUSY)
        return "another recorder numbers files in this directory, or one that has ended waits for its medium";
    if (error == EEXIST) return "it is there already";
    if (error == ENOSPC && given.keep_free != 0)
        return "no room is left beside the " + std::to_string(given.keep_free) + " bytes of keep-free";
    return g_strerror(error);
}

} // namespace mediafiles::gstreamer
