#include "options.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "adts.h"

namespace mediafiles::recorder {

namespace {

using recovery::system_failure;

constexpr int64_t second = 1'000'000'000;
constexpr int64_t mebibyte = 1 << 20;
constexpr uint32_t widest = 0xFFFF; // pixels: 16 bits of a sample entry
constexpr int64_t least_queue = 4096;
constexpr int64_t largest_queue = INT32_MAX / 2;
constexpr uint32_t all_flags = MEDIAFILES_ANY_START | MEDIAFILES_OVERWRITE | MEDIAFILES_JOIN_STEPS |
                               MEDIAFILES_PLAIN_NAME | MEDIAFILES_KEEP_JOURNAL;
constexpr uint32_t permissions = 0777;

/* 0 is the default, -1 never. */
int64_t number(int64_t given, int64_t usual, int64_t least)
{
    if (given == 0) return usual;
    if (given == -1) return never;
    if (given < least) throw system_failure(EINVAL);
    return given;
}

mp4_track_desc track(mp4_track_desc given)
{
    const recovery::codec *const codec = recovery::codec_of(given.type);
    if (!codec || given.type & MP4_TRACK_RAW) throw system_failure(ENOTSUP);
    if (!codec->is_video()) {
        if (!can_state(given.audio)) throw system_failure(ENOTSUP);
    } else if (given.video.width > widest || given.video.height > widest) {
        throw system_failure(ENOTSUP);
    } else if ((given.video.width == 0) != (given.video.height == 0)) {
        throw system_failure(EINVAL);
    }
    return given;
}

} // namespace

settings complete(const mediafiles_recorder_options &given)
{
    if (given.track_count == 0 || given.track_count > MP4_MAX_TRACKS || !given.tracks || !given.directory ||
        given.flags & ~all_flags || given.file_mode & ~permissions)
        throw system_failure(EINVAL);

    if (given.flags & MEDIAFILES_PLAIN_NAME && !given.pattern) throw system_failure(EINVAL);
    const std::string_view pattern = given.pattern ? std::string_view(given.pattern) : default_pattern;
    auto names = given.flags & MEDIAFILES_PLAIN_NAME ? name_pattern::of_file(pattern) : name_pattern::parse(pattern);
    if (!names) throw system_failure(EINVAL);
    if (!names->is_numbered() && (given.quota_bytes > 0 || given.protected_bytes > 0)) throw system_failure(EINVAL);
    settings made = {
        .tracks = {},
        .video = 0,
        .directory = given.directory,
        .names = std::move(*names),
        .sync = number(given.sync_ns, second, 1),
        .segment = number(given.segment_ns, never, 1),
        .segment_bytes = number(given.segment_bytes, never, 1),
        .longest_gap = number(given.longest_gap_ns, 10 * second, 1),
        .queue_bytes = given.queue_bytes == 0 ? 8 * mebibyte : given.queue_bytes,
        .quota = number(given.quota_bytes, never, 1),
        .keep_free = given.keep_free_bytes == -1 ? 0 : number(given.keep_free_bytes, 64 * mebibyte, 1),
        .most_protected = number(given.protected_bytes, never, 1),
        .pre_event = number(given.pre_event_ns, 0, 1),
        .pre_event_bytes = given.pre_event_bytes,
        .file_mode = given.file_mode == 0 ? 0640 : given.file_mode,
        .flags = given.flags,
    };
    if (made.queue_bytes < least_queue || made.queue_bytes > largest_queue) throw system_failure(EINVAL);
    if (made.has_events() ? made.pre_event_bytes < 1 || made.pre_event_bytes > largest_queue
                          : made.pre_event_bytes != 0)
        throw system_failure(EINVAL);
    for (uint32_t i = 0; i < given.track_count; ++i) {
        made.tracks.push_back(track(given.tracks[i]));
        if (recovery::is_video(given.tracks[i])) made.video |= 1u << i;
    }
    return made;
}

} // namespace mediafiles::recorder
