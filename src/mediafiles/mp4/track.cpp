// A track: samples go to the stream, their description into five tables.
//
// The entries of the tables are in file byte order from the start. Four tables
// are kept short: stts and stsc hold runs, stss is empty while every sample is
// a sync sample, and stsz holds one entry while all samples have the same size.

#include <cstring>

#include <mediafiles/caretaker.h>
#include <mediafiles/stream.h>
#include <mediafiles/support/array-stream.h>
#include <mediafiles/support/io.h>
#include <mediafiles/track.h>

#include "mediafiles/byte-order.h"
#include "mediafiles/journal/samples.h"
#include "mediafiles/mp4/add-sample.h"
#include "mediafiles/mp4/gather.h"
#include "mediafiles/ownership.h"

namespace mediafiles {
namespace {

// The sample tables, in the order in which they are made.
struct {
    array_stream *mp4_track::*table;
    uint32_t element_size; // bytes
    uint32_t reserve;      // elements
} constexpr tables[] = {
    {&mp4_track::stts_table, 8, 512}, {&mp4_track::stss_table, 4, 64},   {&mp4_track::stco_table, 4, 128},
    {&mp4_track::stsc_table, 12, 64}, {&mp4_track::stsz_table, 4, 1024},
};

constexpr uint32_t sample_description_index = 1;

// A track, with the field that its users do not see.
struct whole_track : mp4_track {
    // The last entry of stts_table, once the first sample is in. An entry stays
    // in place until the next one is added.
    uint8_t *last_run = nullptr;
};

uint8_t *&last_run(mp4_track *track)
{
    return static_cast<whole_track *>(track)->last_run;
}

bool has(const mp4_track *track, uint8_t flag)
{
    return track->flags & flag;
}

void clear(mp4_track *track, uint8_t flag)
{
    track->flags = static_cast<uint8_t>(track->flags & ~flag);
}

// The track's number in the journal.
uint8_t journal_index(const mp4_track *track)
{
    return static_cast<uint8_t>(track->index);
}

// The new entry; NULL with errno.
template <class... Fields>
uint8_t *new_entry(array_stream *table, Fields... fields)
{
    const uint32_t entry[] = {big_endian(fields)...};
    uint32_t n = 1;
    auto *to = static_cast<uint8_t *>(array_stream_write(table, &n));
    if (to) memcpy(to, entry, sizeof entry);
    return to;
}

template <class... Fields>
int append(array_stream *table, Fields... fields)
{
    return new_entry(table, fields...) ? 0 : -1;
}

// Appends value(0), value(1) ... value(count - 1), a contiguous run at a time.
template <class Value>
int append_many(array_stream *table, uint32_t count, Value value)
{
    for (uint32_t done = 0; done < count;) {
        uint32_t n = count - done;
        auto *to = static_cast<uint8_t *>(array_stream_write(table, &n));
        if (!to) return -1;
        const uint32_t granted = n; // a local copy, which the stores cannot alias
        for (uint32_t i = 0; i < granted; ++i) store_be32(to + size_t{i} * sizeof(uint32_t), value(done + i));
        done += granted;
    }
    return 0;
}

uint8_t *last_element(array_stream *table)
{
    return static_cast<uint8_t *>(array_stream_index(table, array_stream_length(table) - 1));
}

// ISO/IEC 14496-12, 8.6.1.2
int begin_run(mp4_track *track, uint32_t duration)
{
    uint8_t *run = new_entry(track->stts_table, uint32_t{1}, duration);
    if (!run) return -1;
    last_run(track) = run;
    return 0;
}

int add_duration(mp4_track *track, uint32_t duration)
{
    uint8_t *run = last_run(track);
    if (load_be32(run + 4) != duration) return begin_run(track, duration);
    store_be32(run, load_be32(run) + 1);
    return 0;
}

// The first non-sync sample starts the table, which then lists all earlier
// ones.
[[gnu::noinline]] int end_all_sync(mp4_track *track)
{
    clear(track, MP4_TRACK_ALL_SYNC);
    return append_many(track->stss_table, track->sample_count, [](uint32_t i) { return i + 1; });
}

// The first sample of another size gives the table an entry for each earlier
// sample; the first one has its entry already.
[[gnu::noinline]] int end_same_size(mp4_track *track)
{
    clear(track, MP4_TRACK_SAME_SIZE);
    const uint32_t common = track->common_size;
    return append_many(track->stsz_table, track->sample_count - 1, [common](uint32_t) { return common; });
}

// ISO/IEC 14496-12, 8.6.2
inline int add_sync(mp4_track *track, bool key)
{
    if (has(track, MP4_TRACK_ALL_SYNC)) return key ? 0 : end_all_sync(track);
    return key ? append(track->stss_table, track->sample_count + 1) : 0;
}

// ISO/IEC 14496-12, 8.7.3
int add_size(mp4_track *track, uint32_t size)
{
    if (has(track, MP4_TRACK_SAME_SIZE)) {
        if (size == track->common_size) return 0;
        if (end_same_size(track) != 0) return -1;
    }
    return append(track->stsz_table, size);
}

// The first sample starts the tables.
[[gnu::noinline]] int add_first(mp4_track *track, uint32_t duration, bool key, uint32_t size)
{
    if (begin_run(track, duration) != 0) return -1;
    if (add_sync(track, key) != 0) return -1;
    if (append(track->stsz_table, size) != 0) return -1;
    track->common_size = size;
    track->sample_count = 1;
    return 0;
}

// ISO/IEC 14496-12, 8.7.4: starts a run with chunk `first`, unless it has as
// many samples as the chunks of the last run.
int close_chunk(mp4_track *track, uint32_t first, uint32_t samples)
{
    if (array_stream_length(track->stsc_table) != 0 && load_be32(last_element(track->stsc_table) + 4) == samples)
        return 0;
    return append(track->stsc_table, first, samples, sample_description_index);
}

// Closes the open chunk, which the samples do not continue, and opens one.
[[gnu::noinline]] int open_chunk(mp4_track *track, uint32_t position, uint32_t size, uint32_t samples)
{
    if (track->chunk_count != 0 && close_chunk(track, track->chunk_count, track->chunk_samples) != 0) return -1;
    track->chunk_offset = position;
    track->chunk_size = size;
    track->chunk_samples = samples;
    ++track->chunk_count;
    return append(track->stco_table, position);
}

inline int write_chunk(mp4_track *track, const mp4_gather_list *list, uint32_t samples)
{
    const uint32_t position = track->stream->tell(track->stream);
    if (track->stream->writev(track->stream, list) != 0) return -1;

    if (track->caretaker)
        journal_chunk(track->caretaker, journal_index(track), position, static_cast<int32_t>(samples));

    if (track->chunk_count == 0 || track->chunk_offset + track->chunk_size != position)
        return open_chunk(track, position, list->length, samples);
    track->chunk_size += list->length;
    track->chunk_samples += samples;
    return 0;
}

// Writes the cached samples and one more, which did not fit, as one chunk.
int write_with_cache(mp4_track *track, const mp4_gather_list *list)
{
    gather_array<1 + sample_entries> gather;
    if (!gather.push(track->cache, track->cache_used) || !gather.push(list)) return -1;

    const mp4_gather_list all = {gather.data(), gather.count(), 0, track->cache_used + list->length};
    if (write_chunk(track, &all, track->cache_samples + 1) != 0) return -1;
    track->cache_used = track->cache_samples = 0;
    return 0;
}

int store(mp4_track *track, const mp4_gather_list *list)
{
    if (track->cache_size != 0) {
        if (uint64_t{track->cache_used} + list->length < track->cache_size) {
            memcpy_fromiovec(track->cache + track->cache_used, list->iov, list->length);
            track->cache_used += list->length;
            ++track->cache_samples;
            return 0;
        }
        if (track->cache_used != 0) return write_with_cache(track, list);
    }
    return write_chunk(track, list, 1);
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_track *mp4_track_create(uint32_t id, uint32_t media_kind, uint32_t timescale, uint32_t cache_size)
{
    owned<mp4_track, mp4_track_destroy> track(create<whole_track>());
    if (!track) return nullptr;
    track->id = id;
    track->media_kind = media_kind;
    track->timescale = timescale;
    track->cache_size = cache_size;
    for (const auto &each : tables)
        if (!(track.get()->*each.table = array_stream_create(each.element_size, each.reserve))) return nullptr;
    if (cache_size != 0 && !(track->cache = static_cast<uint8_t *>(malloc(cache_size)))) return nullptr;
    return track.release();
}

void mp4_track_destroy(mp4_track *track)
{
    if (track->on_destroy) track->on_destroy(track);
    free(track->cache);
    for (const auto &each : tables)
        if (track->*each.table) array_stream_destroy(track->*each.table);
    destroy(static_cast<whole_track *>(track));
}

void mp4_track_begin_record(mp4_track *track, mp4_stream *stream, mediafile_caretaker *caretaker, uint32_t index)
{
    if (has(track, MP4_TRACK_RECORDING)) return;
    for (const auto &each : tables) array_stream_clear(track->*each.table);
    track->cache_used = track->cache_samples = 0;
    track->common_size = track->sample_count = 0;
    track->chunk_offset = track->chunk_size = track->chunk_samples = track->chunk_count = 0;
    track->delay = track->duration = 0;
    track->stream = stream;
    track->caretaker = caretaker;
    track->index = index;
    track->flags |= MP4_TRACK_RECORDING | MP4_TRACK_ALL_SYNC | MP4_TRACK_SAME_SIZE;
    if (track->on_begin_record) track->on_begin_record(track);
}

int mp4_track_add_sample(mp4_track *track, const void *data, uint32_t len, uint32_t duration, int key)
{
    return add_sample(track, data, len, duration, key);
}

int __mp4_track_add_sample(mp4_track *track, const mp4_gather_list *list, uint32_t duration, int key)
{
    if (track->caretaker) journal_sample_size(track->caretaker, journal_index(track), list->length);
    if (store(track, list) != 0) return -1;
    if (track->sample_count == 0) return add_first(track, duration, key != 0, list->length);
    if (add_duration(track, duration) != 0) return -1;
    if (add_sync(track, key != 0) != 0) return -1;
    if (add_size(track, list->length) != 0) return -1;
    track->duration += duration;
    ++track->sample_count;
    return 0;
}

int mp4_track_flush_cache(mp4_track *track)
{
    if (track->cache_used == 0) return 0;
    if (write_chunk(track, one_buffer(track->cache, track->cache_used).list(), track->cache_samples) != 0) return -1;
    track->cache_used = track->cache_samples = 0;
    return 0;
}

int mp4_track_finish_record(mp4_track *track, int flush)
{
    if (!has(track, MP4_TRACK_RECORDING)) return 0;
    int result = 0;
    if (flush && mp4_track_flush_cache(track) != 0)
        result = -1;
    else if (track->chunk_count != 0)
        result = close_chunk(track, track->chunk_count, track->chunk_samples);
    clear(track, MP4_TRACK_RECORDING);
    return result;
}

void saveCodecExtraDataToCaretaker(mp4_track *track, uint8_t kind, const void *data, uint32_t len)
{
    if (!track->caretaker) return;
    // For a record that is too large the journal reads the header alone.
    struct {
        memento header;
        uint8_t bytes[MEMENTO_MAX_SIZE - sizeof(memento)];
    } record;
    const auto length = static_cast<uint16_t>(len < UINT16_MAX ? len : UINT16_MAX);
    record.header = {kind, journal_index(track), length};
    if (length <= sizeof record.bytes) {
        memset(record.bytes, 0, sizeof record.bytes);
        if (length > 0) memcpy(record.bytes, data, length);
    }
    mediafile_caretaker_add(track->caretaker, &record.header);
}
