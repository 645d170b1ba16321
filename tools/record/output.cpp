#include "tools/record/output.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/failure.h"
#include "tools/journal-name.h"

namespace tools {

namespace {

constexpr const char *cannot_record = "cannot record";
constexpr int64_t usual_queue = 8 << 20; // bytes

bool is_there(const std::string &path, struct stat &status)
{
    return stat(path.c_str(), &status) == 0;
}

void refuse_inputs(const std::string &output, std::span<const struct stat> inputs)
{
    for (const std::string &path : {output, journal_of(output)}) {
        struct stat status;
        if (!is_there(path, status)) continue;
        const auto is_it = [&](const struct stat &input) {
            return status.st_dev == input.st_dev && status.st_ino == input.st_ino;
        };
        if (std::ranges::any_of(inputs, is_it))
            throw failure(cannot_record, path, "it is an input, too; choose another --output");
    }
}

/* A recorder takes no link for its directory; a user may give one. */
std::string real_directory(const output_place &place)
{
    const std::unique_ptr<char, decltype(&std::free)> real(
        realpath(place.directory.empty() ? "." : place.directory.c_str(), nullptr), &std::free);
    if (!real)
        throw failure(cannot_record, place.directory + place.name,
                      errno == ENOENT ? "its directory does not exist; make it first" : words_of(errno));
    return real.get();
}

/* What --overwrite does not replace. */
std::string what_protects(const std::string &output)
{
    struct stat status;
    for (const std::string &path : {output, journal_of(output)}) {
        if (lstat(path.c_str(), &status) != 0) continue;
        const std::string which = path == output ? "it" : "its journal";
        if (!S_ISREG(status.st_mode)) return which + " is not a regular file";
        if ((status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) return which + " is write-protected";
    }
    return "it exists";
}

std::string reason_of_start(const record_options &options, const output_place &place, int error)
{
    struct stat status;
    if (place.is_numbered && error == EINVAL)
        return "it is not a pattern; write {number} or {number:DIGITS}, %Y %m %d %H %M %S, and .mp4 at the end";
    if (place.is_numbered && error == EBUSY)
        return "another process records numbered files in this directory; choose another one";
    if (place.is_numbered) return words_of(error);
    if (error == EINVAL) return "it is not the name of a file; write DIRECTORY/NAME.mp4";
    if (error == EBUSY) return "another process records it; choose another --output";
    if (error == EEXIST && is_there(options.output, status) && S_ISDIR(status.st_mode))
        return "it is a directory; write DIRECTORY/NAME.mp4";
    if (error == EEXIST && options.overwrite) return what_protects(options.output) + "; choose another --output";
    if (error == EEXIST && is_there(journal_of(options.output), status))
        return "it exists with a journal, so it may have been cut off; repair it, or choose another --output; "
               "--overwrite replaces both";
    if (error == EEXIST) return "it exists; choose another --output; --overwrite replaces it";
    return words_of(error);
}

[[noreturn]] void throw_start_failure(const record_options &options, const output_place &place, int error)
{
    struct stat status;
    if (!place.is_numbered && error == EEXIST && !options.overwrite && lstat(options.output.c_str(), &status) != 0)
        throw failure(
            cannot_record, journal_of(options.output),
            "it exists, and a repair may need it; move it, or choose another --output; --overwrite replaces it");
    throw failure(cannot_record, options.output, reason_of_start(options, place, error));
}

/* The recorder's default is for those who let it delete; 0 is its default, -1 none. */
int64_t keep_free(const record_options &options, const output_place &place)
{
    if (options.keep_free) return *options.keep_free == 0 ? -1 : *options.keep_free;
    return place.is_numbered ? 0 : -1;
}

/* A frame that is larger than the queue cannot be recorded; few pictures are larger than they are uncompressed. */
int64_t queue_for(const std::vector<mp4_track_desc> &tracks)
{
    int64_t bytes = usual_queue;
    for (const mp4_track_desc &track : tracks)
        if (track.type != MP4_TRACK_AAC)
            bytes = std::max(bytes, int64_t{track.video.width} * track.video.height / 2 * 3);
    return std::min(bytes, largest_queue);
}

} // namespace

output_place place_of(const std::string &output)
{
    const bool is_numbered = output.find("{number") != std::string::npos;
    /* Fields may stand in names of directories, which the recorder makes. */
    const size_t slash = output.rfind('/', is_numbered ? output.find_first_of("{%") : std::string::npos);
    const size_t name = slash == std::string::npos ? 0 : slash + 1;
    return {output.substr(0, name), output.substr(name), is_numbered};
}

output_place next_place(const output_place &place)
{
    const size_t dot = place.name.rfind('.');
    const size_t end = dot == std::string::npos || dot == 0 ? place.name.size() : dot;
    output_place next = place;
    struct stat status;
    unsigned number = 2;
    do next.name = place.name.substr(0, end) + "-" + std::to_string(number++) + place.name.substr(end);
    while (is_there(next.directory + next.name, status) || is_there(journal_of(next.directory + next.name), status));
    return next;
}

bool may_split(const record_options &options)
{
    return place_of(options.output).is_numbered || options.segment != 0 || options.segment_bytes != 0;
}

std::optional<int64_t> longest_gap(const record_options &options)
{
    return may_split(options) ? std::optional(10 * second) : std::nullopt;
}

recorder_ptr start_recorder(const record_options &options, const output_place &place,
                            const std::vector<mp4_track_desc> &tracks, std::span<const struct stat> inputs)
{
    if (!place.is_numbered) refuse_inputs(options.output, inputs);
    const std::string directory = real_directory(place);

    /* The size of pictures may change: each file has that of its parameter sets. */
    std::vector<mp4_track_desc> own_size = tracks;
    for (mp4_track_desc &each : own_size)
        if (each.type != MP4_TRACK_AAC) each.video = {};

    mediafiles_recorder_options given = {};
    given.size = sizeof given;
    given.track_count = static_cast<uint32_t>(own_size.size());
    given.tracks = own_size.data();
    given.directory = directory.c_str();
    given.pattern = place.name.c_str();
    given.sync_ns = std::max<int64_t>(options.sync_interval, 1);
    given.segment_ns = options.segment;
    given.segment_bytes = options.segment_bytes;
    given.longest_gap_ns = longest_gap(options).value_or(-1);
    given.quota_bytes = options.quota;
    given.keep_free_bytes = keep_free(options, place);
    given.pre_event_ns = options.pre_event;
    given.pre_event_bytes = options.pre_event > 0 ? options.pre_event_bytes : 0;
    given.queue_bytes = options.queue != 0 ? options.queue : queue_for(tracks);
    given.file_mode = 0666;
    given.flags = MEDIAFILES_ANY_START;
    if (!place.is_numbered) given.flags |= MEDIAFILES_PLAIN_NAME;
    if (options.overwrite) given.flags |= MEDIAFILES_OVERWRITE;
    if (options.keep_journal) given.flags |= MEDIAFILES_KEEP_JOURNAL;
    recorder_ptr made(mediafiles_recorder_start(&given));
    if (!made) throw_start_failure(options, place, errno);
    return made;
}

} // namespace tools
