// The movie: the tracks of a recording and their time.
//
// All arithmetic is in integers: seconds and nanoseconds have 32 bits, products
// and quotients are unsigned with 64 bits and wrap.

#include <cerrno>

#include <mediafiles/aac-track.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/h264-track.h>
#include <mediafiles/h265-track.h>
#include <mediafiles/movie.h>
#include <mediafiles/track.h>

#include "mediafiles/journal/memento-record.h"
#include "mediafiles/journal/samples.h"
#include "mediafiles/mp4/add-sample.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

struct track_memento {
    memento header;
    mp4_track_desc desc;
};
static_assert(payload_length<track_memento> == 16);

constexpr uint64_t second = 1'000'000'000; // in nanoseconds
constexpr uint32_t longest_duration = 0x7FFFFFFF;

bool earlier(mp4_time a, mp4_time b)
{
    return a.seconds != b.seconds ? a.seconds < b.seconds : a.nanoseconds < b.nanoseconds;
}

uint64_t nanoseconds(mp4_time time)
{
    return static_cast<uint64_t>(time.seconds) * second + static_cast<uint64_t>(time.nanoseconds);
}

mp4_time from_nanoseconds(uint64_t time)
{
    return {static_cast<int32_t>(static_cast<uint32_t>(time / second)), static_cast<int32_t>(time % second)};
}

// Nanoseconds from one time to another; negative when the second is earlier.
int64_t distance(mp4_time from, mp4_time to)
{
    return (int64_t{to.seconds} - from.seconds) * int64_t{second} + (to.nanoseconds - from.nanoseconds);
}

// Nanoseconds in ticks, rounded half up.
uint64_t to_ticks(uint64_t time, uint32_t timescale)
{
    return (time * timescale + second / 2) / second;
}

uint64_t milliseconds(mp4_time time)
{
    const uint64_t microseconds =
        static_cast<uint64_t>(time.nanoseconds / 1000) + static_cast<uint64_t>(time.seconds) * 1'000'000;
    return microseconds * 1000 / 1'000'000;
}

uint32_t track_count(const mp4_movie *movie)
{
    return movie->next_track_id - 1;
}

mp4_track_span &span_of(mp4_movie *movie, const mp4_track *track)
{
    return *movie->spans[track->id - 1];
}

mp4_track *create_track(uint32_t id, const mp4_track_desc *desc)
{
    const uint32_t raw = desc->type & MP4_TRACK_RAW ? 1 : 0;
    const auto width = static_cast<int>(desc->video.width);
    const auto height = static_cast<int>(desc->video.height);
    switch (desc->type & ~MP4_TRACK_RAW) {
    case MP4_TRACK_H264:
        return mp4_h264_track_create(id, width, height, raw);
    case MP4_TRACK_H265:
        return mp4_h265_track_create(id, width, height, raw);
    case MP4_TRACK_AAC:
        return mp4_aac_track_create(id, desc->audio.channels, desc->audio.sample_bits, desc->audio.sample_rate, raw);
    default:
        errno = ENOSYS;
        return nullptr;
    }
}

void begin_track(mp4_movie *movie, uint32_t slot)
{
    mp4_track_begin_record(movie->tracks[slot], movie->stream, movie->caretaker, slot);
    *movie->spans[slot] = {};
    if (!movie->caretaker) return;
    const track_memento record = {memento_header<track_memento>(MEMENTO_TRACK, slot), movie->track_desc[slot]};
    mediafile_caretaker_add(movie->caretaker, &record.header);
}

// After a gap beyond the longest duration, `last` moves by that duration only.
// The frames that follow get the rest.
[[gnu::cold, gnu::noinline]] uint32_t advance_by_longest(mp4_track_span &span, uint32_t timescale)
{
    const uint64_t covered = (longest_duration * second + timescale / 2) / timescale;
    const mp4_time whole = from_nanoseconds(covered + static_cast<uint64_t>(span.last.nanoseconds));
    span.last = {static_cast<int32_t>(static_cast<uint32_t>(span.last.seconds) + static_cast<uint32_t>(whole.seconds)),
                 whole.nanoseconds};
    return longest_duration;
}

// The time since the track's previous frame, in ticks.
uint32_t advance(mp4_track_span &span, mp4_time timestamp, uint32_t timescale)
{
    if (!span.started) {
        span = {1, timestamp, timestamp};
        return 0;
    }
    const int64_t passed = distance(span.last, timestamp);
    if (passed < 0) return 0;

    const uint64_t ticks = to_ticks(static_cast<uint64_t>(passed), timescale);
    if (ticks > longest_duration) return advance_by_longest(span, timescale);
    span.last = timestamp;
    return static_cast<uint32_t>(ticks);
}

// Keeps the first error of a record.
void latch(mp4_movie *movie)
{
    if (movie->error == 0) movie->error = errno;
}

// The earliest first frame of all tracks.
mp4_time start_of(const mp4_movie *movie)
{
    mp4_time start = {INT32_MAX, 999'999'999};
    for (uint32_t i = 0; i < track_count(movie); ++i)
        if (movie->spans[i]->started && earlier(movie->spans[i]->first, start)) start = movie->spans[i]->first;
    return start;
}

void make_relative(mp4_movie *movie)
{
    const mp4_time start = start_of(movie);
    for (uint32_t i = 0; i < track_count(movie); ++i) {
        mp4_track_span &span = *movie->spans[i];
        if (!span.started) continue;
        span.first = from_nanoseconds(static_cast<uint64_t>(distance(start, span.first)));
        span.last = from_nanoseconds(static_cast<uint64_t>(distance(start, span.last)));
        movie->tracks[i]->delay = to_ticks(nanoseconds(span.first), movie->tracks[i]->timescale);
    }
}

int set_parameter_set(mp4_movie *movie, uint32_t index, void (*mp4_track::*hook)(mp4_track *, const void *, uint32_t),
                      const void *data, uint32_t len)
{
    if (index >= track_count(movie)) return refuse(EINVAL);
    mp4_track *track = movie->tracks[index];
    if (!(track->*hook)) return refuse(ENOSYS);
    (track->*hook)(track, data, len);
    return 0;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_movie *mp4_movie_create(void)
{
    auto *movie = create<mp4_movie>();
    if (movie) movie->next_track_id = 1;
    return movie;
}

void mp4_movie_destroy(mp4_movie *movie)
{
    for (uint32_t i = 0; i < track_count(movie); ++i) {
        mp4_track_destroy(movie->tracks[i]);
        free(movie->spans[i]);
    }
    free(movie);
}

int mp4_movie_add_track(mp4_movie *movie, const mp4_track_desc *desc)
{
    const uint32_t slot = track_count(movie);
    if (slot == MP4_MAX_TRACKS) return refuse(ENOBUFS);
    owned<mp4_track_span, free> span(create<mp4_track_span>());
    if (!span) return -1;
    mp4_track *track = create_track(movie->next_track_id, desc);
    if (!track) return -1;

    movie->track_desc[slot] = *desc;
    movie->tracks[slot] = track;
    movie->spans[slot] = span.release();
    ++movie->next_track_id;
    if (movie->stream) begin_track(movie, slot);
    return static_cast<int>(slot);
}

void mp4_movie_begin_record(mp4_movie *movie, mp4_stream *stream, mediafile_caretaker *caretaker)
{
    if (movie->stream) return;
    movie->stream = stream;
    movie->caretaker = caretaker;
    movie->error = 0;
    movie->bytes = 0;
    if (caretaker) mediafile_caretaker_reset(caretaker);
    for (uint32_t i = 0; i < track_count(movie); ++i) begin_track(movie, i);
}

int mp4_movie_add_frame(mp4_movie *movie, const mp4_frame *frame)
{
    if (movie->error != 0) return refuse(movie->error);
    const auto index = static_cast<uint32_t>(frame->track);
    if (index >= track_count(movie) || frame->len == 0 || static_cast<uint32_t>(frame->timestamp.nanoseconds) >= second)
        return refuse(EINVAL);
    if (frame->len > MP4_MAX_RECORD_BYTES - movie->bytes) return refuse(EFBIG);

    if (movie->caretaker)
        journal_sample(movie->caretaker, static_cast<uint8_t>(index), frame->timestamp.seconds,
                       static_cast<uint32_t>(frame->timestamp.nanoseconds), frame->key);

    mp4_track *track = movie->tracks[index];
    const uint32_t duration = advance(*movie->spans[index], frame->timestamp, track->timescale);
    if (add_sample(track, frame->data, frame->len, duration, frame->key) != 0) {
        latch(movie);
        return -1;
    }
    movie->bytes += frame->len;
    return 0;
}

int mp4_movie_flush_cache(mp4_movie *movie)
{
    if (movie->error != 0) return refuse(movie->error);
    for (uint32_t i = 0; i < track_count(movie); ++i) {
        if (mp4_track_flush_cache(movie->tracks[i]) != 0) {
            latch(movie);
            return -1;
        }
    }
    return 0;
}

void mp4_movie_finish_record(mp4_movie *movie)
{
    if (!movie->stream) return;
    bool flush = movie->error == 0;
    for (uint32_t i = 0; i < track_count(movie); ++i) {
        if (mp4_track_finish_record(movie->tracks[i], flush) == 0) continue;
        latch(movie);
        flush = false;
    }
    make_relative(movie);
    movie->stream = nullptr;
}

int mp4_movie_set_track_vps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len)
{
    return set_parameter_set(movie, index, &mp4_track::set_vps, data, len);
}

int mp4_movie_set_track_sps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len)
{
    return set_parameter_set(movie, index, &mp4_track::set_sps, data, len);
}

int mp4_movie_set_track_pps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len)
{
    return set_parameter_set(movie, index, &mp4_track::set_pps, data, len);
}

uint64_t mp4_movie_track_duration(mp4_movie *movie, mp4_track *track)
{
    return milliseconds(span_of(movie, track).last);
}

uint64_t mp4_movie_track_delay_duration(mp4_movie *movie, mp4_track *track)
{
    return milliseconds(span_of(movie, track).first);
}

void mp4_movie_track_timespan(mp4_movie *movie, mp4_track *track, mp4_time *out)
{
    *out = span_of(movie, track).last;
}

void mp4_movie_timespan(mp4_movie *movie, mp4_time *out)
{
    *out = {};
    for (uint32_t i = 0; i < track_count(movie); ++i)
        if (!earlier(movie->spans[i]->last, *out)) *out = movie->spans[i]->last;
}

uint64_t mp4_movie_duration(mp4_movie *movie)
{
    mp4_time span;
    mp4_movie_timespan(movie, &span);
    return milliseconds(span);
}
