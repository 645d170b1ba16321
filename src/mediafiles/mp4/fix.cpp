// Repair of a recording that was cut off.
//
//     mp4_fix                          mp4_fix2
//     initFixContext                   initFixContext
//     load the journal                 load the journal
//     writeHeaderToMP4Head             writeHeaderToMP4Head
//                                      count: find the last video sample
//     replay the journal               replay the journal up to that sample
//     finish the movie                 finish the movie
//     writeMetadataToMP4Tail           writeMetadataToMP4Tail
//     fill the summary, fsync          fill the summary, fsync
//
// The journal's samples go, without data, into a movie whose output only
// counts: so its tables come to hold the places that the samples have in the
// file. The file itself is written at its head and at its end.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/atom.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/fix.h>
#include <mediafiles/stream.h>

#include "mediafiles/log.h"
#include "mediafiles/journal/memento-record.h"
#include "mediafiles/mp4/layout.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

// One repair. The trailing-frame check is mp4_fix2's alone.
struct mp4_fix_ctx {
    mp4_fix_callback callback;
    int32_t fd;         // the MP4 file, or -1 when there is none
    uint32_t len;       // its size when it was opened; samples from here on never reached it
    int32_t videoCount; // video samples that begin inside the file
    uint32_t dropSize;  // bytes from the last video sample on
    bool lastFound;     // the replay has met its time
    int32_t lastSec;    // its time
    uint32_t lastNsec;
    mp4_stream *outStream;  // the file, without cache, or a null stream
    mp4_stream *metaStream; // where head and moov are composed
    mp4_stream *nullStream; // receives the replayed media; its position is the replay's
    mp4_movie *movie;
    mp4_atom mdat;
    mp4_fix_info info;
};

// Log lines are part of the interface, their line numbers included.
constexpr const char *log_path = "src/mediafiles/mp4/fix";

struct log_line {
    const char *format; // takes path, function, line and the error's text
    const char *function;
    int line;
};

constexpr log_line journal_not_loaded = {"mediafile_caretaker_load [%s:%s:%d]: %s\n", "mp4_fix", 61};
constexpr log_line not_fixed = {"fix [%s:%s:%d]: %s\n", "mp4_fix", 69};
constexpr log_line journal_failed = {"mediafile_caretaker_errcode [%s:%s:%d]: %s\n", "fix", 265};
constexpr log_line movie_failed = {"mp4_movie_errcode [%s:%s:%d]: %s\n", "fix", 273};
constexpr log_line tail_failed = {"exit fialed\n [%s:%s:%d]: %s\n", "fix", 295};

constexpr int log_trace = 8;
constexpr int no_cause = -1; // errno of mp4_fix2 when a repair fails

void log_failure_line(const log_line &what, int error)
{
    if (log_enabled(log_failure))
        __printLog(log_failure, what.format, log_path, what.function, what.line, strerror(error));
}

// How a repair fails: its code, and what mp4_fix logs of it.
struct failure {
    int code = 0;                   // errno; 0 for none
    const log_line *line = nullptr; // of the step, when it has one
    int logged = 0;                 // the error that the line tells
};

failure failed(const log_line *line = nullptr)
{
    return {errno, line, errno};
}

void releaseFixContext(mp4_fix_ctx *ctx)
{
    if (ctx->movie) mp4_movie_destroy(ctx->movie);
    for (mp4_stream *stream : {ctx->nullStream, ctx->metaStream, ctx->outStream})
        if (stream) stream->destroy(stream);
    if (ctx->fd >= 0) close(ctx->fd);
}

using context_ptr = owned<mp4_fix_ctx, releaseFixContext>;
using journal_ptr = owned<mediafile_caretaker, mediafile_caretaker_destroy>;

int openFile(mp4_fix_ctx *ctx, const char *path)
{
    ctx->fd = open(path, O_RDWR);
    if (ctx->fd < 0) return -1;
    struct stat status;
    if (fstat(ctx->fd, &status) != 0) return -1;
    ctx->len = static_cast<uint32_t>(status.st_size);
    ctx->outStream = mp4_file_stream_create(ctx->fd, 0);
    return ctx->outStream ? 0 : -1;
}

// Leaves a context that releaseFixContext can release, also on failure.
int initFixContext(mp4_fix_ctx *ctx, const char *path)
{
    *ctx = {};
    ctx->fd = -1;
    if (path) {
        if (openFile(ctx, path) != 0) return -1;
    } else {
        ctx->len = UINT32_MAX;
        if (!(ctx->outStream = mp4_null_stream_create())) return -1;
    }
    if (!(ctx->metaStream = mp4_memory_stream_create())) return -1;
    if (!(ctx->nullStream = mp4_null_stream_create())) return -1;
    return (ctx->movie = mp4_movie_create()) ? 0 : -1;
}

int writeHeaderToMP4Head(mp4_fix_ctx *ctx)
{
    mp4_stream *meta = ctx->metaStream;
    if (compose_head(meta, ctx->movie, &ctx->mdat) != 0) return -1;
    // The replay begins where the first byte of media lies.
    if (ctx->nullStream->seek(ctx->nullStream, meta->tell(meta)) != 0) return -1;
    return meta->copy_to(meta, ctx->outStream) != 0 ? -1 : 0;
}

const uint8_t *payload(const memento *record)
{
    return reinterpret_cast<const uint8_t *>(record) + sizeof(memento);
}

int addTrackFromMemento(mp4_fix_ctx *ctx, const memento *record)
{
    mp4_track_desc desc;
    memcpy(&desc, payload(record), sizeof desc);
    const mp4_track_desc given = desc;
    desc.type |= MP4_TRACK_RAW;
    const int index = mp4_movie_add_track(ctx->movie, &desc);
    if (index < 0) return -1;
    ctx->info.tracks[index].desc = given;
    return 0;
}

int32_t low_seconds(const sample_memento &sample)
{
    return static_cast<int32_t>(sample.seconds[0]);
}

// Notes whether the sample has the time of the last video sample.
void checkFrame(mp4_fix_ctx *ctx, const sample_memento &sample)
{
    if (low_seconds(sample) != ctx->lastSec || sample.nanoseconds != ctx->lastNsec) return;
    ctx->lastFound = true;
    printf("[%s] find last video frame! hStream=%d, len=%d, key=%d. ctx->dropSize=%d. (%ld:%ld)\n", __func__,
           sample.header.track, static_cast<int>(sample.len), sample.key, static_cast<int>(ctx->dropSize),
           static_cast<long>(ctx->lastSec), static_cast<long>(ctx->lastNsec));
}

uint32_t replay_position(mp4_fix_ctx *ctx)
{
    return ctx->nullStream->tell(ctx->nullStream);
}

int replay_sample(mp4_fix_ctx *ctx, const sample_memento &sample)
{
    if (sample.offset < replay_position(ctx)) return refuse(EBADMSG);
    if (sample.offset >= ctx->len) return 0; // it never reached the file
    if (ctx->videoCount > 0) checkFrame(ctx, sample);
    if (ctx->lastFound) return 0;

    const uint8_t track = sample.header.track;
    const mp4_frame frame = {
        track, nullptr, sample.len, {low_seconds(sample), static_cast<int32_t>(sample.nanoseconds)}, sample.key};
    if (mp4_movie_add_frame(ctx->movie, &frame) != 0) return -1;
    ++ctx->info.tracks[track].frameCount;
    return 0;
}

int replay_record(mp4_fix_ctx *ctx, const memento *record)
{
    switch (record->kind) {
    case MEMENTO_USER:
        if (ctx->callback) ctx->callback(record);
        return 0;
    case MEMENTO_TRACK:
        return addTrackFromMemento(ctx, record);
    case MEMENTO_SAMPLE:
        return replay_sample(ctx, whole_memento<sample_memento>(record));
    case MEMENTO_VPS:
        return mp4_movie_set_track_vps(ctx->movie, record->track, payload(record), record->length);
    case MEMENTO_SPS:
        return mp4_movie_set_track_sps(ctx->movie, record->track, payload(record), record->length);
    case MEMENTO_PPS:
        return mp4_movie_set_track_pps(ctx->movie, record->track, payload(record), record->length);
    default:
        return 0;
    }
}

// With outStream's file cut to the end of the replayed media, its tail is
// written as a recording's is.
int writeMetadataToMP4Tail(mp4_fix_ctx *ctx)
{
    const uint32_t end = replay_position(ctx);
    if (ctx->fd >= 0) {
        printf("[%s] ftruncate(), len=%d, ctx->dropSize=%d\n", __func__, static_cast<int>(end),
               static_cast<int>(ctx->dropSize));
        while (ftruncate(ctx->fd, static_cast<off_t>(uint64_t{end})) != 0)
            if (errno != EINTR) return -1;
    }
    if (ctx->outStream->seek(ctx->outStream, end) != 0) return -1;
    return write_tail(ctx->outStream, ctx->metaStream, ctx->movie, &ctx->mdat);
}

// From the journal's first record to the end of the file.
failure replay_and_finish(mp4_fix_ctx *ctx, mediafile_caretaker *journal)
{
    while (const memento *record = mediafile_caretaker_pop(journal))
        if (replay_record(ctx, record) != 0) return failed();

    if (const int code = mediafile_caretaker_errcode(journal); code != 0) return {code, &journal_failed, errno};
    mp4_movie_finish_record(ctx->movie);
    if (const int code = ctx->movie->error; code != 0) return {code, &movie_failed, errno};
    if (writeMetadataToMP4Tail(ctx) != 0) return failed(&tail_failed);
    return {};
}

failure fix(mp4_fix_ctx *ctx, mediafile_caretaker *journal)
{
    if (writeHeaderToMP4Head(ctx) != 0) return failed();
    mp4_movie_begin_record(ctx->movie, ctx->nullStream, nullptr);
    return replay_and_finish(ctx, journal);
}

void fill_info(mp4_fix_ctx *ctx)
{
    mp4_fix_info &info = ctx->info;
    mp4_movie_timespan(ctx->movie, &info.timespan);
    info.fileSize = ctx->outStream->tell(ctx->outStream);
    info.trackCount = ctx->movie->next_track_id - 1;
    for (uint32_t i = 0; i < info.trackCount; ++i)
        mp4_movie_track_timespan(ctx->movie, ctx->movie->tracks[i], &info.tracks[i].timespan);
}

// Hands out the summary and makes the file durable.
int conclude(mp4_fix_ctx *ctx, mp4_fix_info *info)
{
    if (info) *info = ctx->info;
    return ctx->fd >= 0 && fsync(ctx->fd) != 0 ? -1 : 0;
}

// Finds the last video sample that begins inside the file, and counts what
// goes with it. A damaged record ends the count; the replay meets it again.
void count_video(mp4_fix_ctx *ctx, mediafile_caretaker *journal)
{
    ctx->videoCount = 0;
    ctx->dropSize = 0;
    ctx->lastFound = false;
    while (const memento *record = mediafile_caretaker_pop(journal)) {
        if (record->kind != MEMENTO_SAMPLE) continue;
        const auto &sample = whole_memento<sample_memento>(record);
        if (sample.offset < replay_position(ctx) || sample.offset >= ctx->len) continue;
        if (record->track != 0) {
            ctx->dropSize += sample.len;
            continue;
        }
        ++ctx->videoCount;
        ctx->lastSec = low_seconds(sample);
        ctx->lastNsec = sample.nanoseconds;
        ctx->dropSize = sample.len;
    }
}

enum class outcome { repaired, left_alone, refused };

outcome fix2(mp4_fix_ctx *ctx, mediafile_caretaker *journal)
{
    if (writeHeaderToMP4Head(ctx) != 0) return outcome::refused;
    mp4_movie_begin_record(ctx->movie, ctx->nullStream, nullptr);
    if (log_enabled(log_trace)) __printLog(log_trace, "[%s] ctx->len=%d\n", __func__, static_cast<int>(ctx->len));

    count_video(ctx, journal);
    if (ctx->videoCount <= 0) {
        printf("[%s] ctx->videoCount=%d, drop file!\n", __func__, ctx->videoCount);
        return outcome::refused;
    }
    if (ctx->videoCount == 1) {
        printf("[%s] ctx->videoCount=%d, don't fixed file!\n", __func__, ctx->videoCount);
        return outcome::left_alone;
    }
    mediafile_caretaker_reset2(journal);
    return replay_and_finish(ctx, journal).code == 0 ? outcome::repaired : outcome::refused;
}

// The end of a repair that reports a code: none is success.
int result_of(int code)
{
    if (code == 0) return 0;
    errno = code;
    return -1;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int mp4_fix(const char *mp4_path, const char *journal_path, mp4_fix_callback callback, mp4_fix_info *info)
{
    mp4_fix_ctx ctx;
    const int initialised = initFixContext(&ctx, mp4_path);
    const context_ptr release(&ctx);
    if (initialised != 0) return -1;
    ctx.callback = callback;

    const journal_ptr journal(mediafile_caretaker_load(journal_path));
    if (!journal) {
        const int error = errno;
        log_failure_line(journal_not_loaded, error);
        return result_of(error);
    }
    if (const failure cause = fix(&ctx, journal.get()); cause.code != 0) {
        if (cause.line) log_failure_line(*cause.line, cause.logged);
        log_failure_line(not_fixed, cause.code);
        return result_of(cause.code);
    }
    fill_info(&ctx);
    return conclude(&ctx, info);
}

int mp4_fix2(const char *mp4_path, const char *journal_path, mp4_fix_callback callback, mp4_fix_info *info)
{
    mp4_fix_ctx ctx;
    const int initialised = initFixContext(&ctx, mp4_path);
    const context_ptr release(&ctx);
    if (initialised != 0) return -1;
    ctx.callback = callback;

    const journal_ptr journal(mediafile_caretaker_load(journal_path));
    if (!journal) return result_of(errno);
    const outcome result = fix2(&ctx, journal.get());
    if (result == outcome::refused) return result_of(no_cause);
    if (result == outcome::repaired) fill_info(&ctx);
    return conclude(&ctx, info);
}
