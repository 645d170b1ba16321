// Repair of a recording that was cut off.
//
//     mp4_fix                          mp4_fix2
//     open_repair                      open_repair
//     write_head                       write_head
//                                      count_video: find the last video sample
//     replay the journal               replay the journal up to that sample
//     finish the movie                 finish the movie
//     write_end                        write_end
//     fill_info, conclude              fill_info, conclude
//
// The journal's samples are added, without data, to a movie whose output only
// counts bytes. Its tables then hold the offsets that the samples have in the
// file. The file itself is written at its head and at its end only.
//
// Names in this file are in snake_case. Names that are printed are part of the
// interface: they are text, and no name in this file has to match them.

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
#include <mediafiles/track.h>

#include "mediafiles/journal/memento-record.h"
#include "mediafiles/journal/take-sample.h"
#include "mediafiles/log.h"
#include "mediafiles/mp4/layout.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

// Log lines are part of the interface, their function names and line numbers
// included.
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

// The function names in the lines on standard output and of the trace.
constexpr const char *printed_check = "checkFrame";
constexpr const char *printed_tail = "writeMetadataToMP4Tail";
constexpr const char *printed_fix2 = "fix2";

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
    int logged = 0;                 // the error that the line names
};

failure failed(const log_line *line = nullptr)
{
    return {errno, line, errno};
}

// The result of a repair that ended with a code: 0 is success.
int result_of(int code)
{
    if (code == 0) return 0;
    errno = code;
    return -1;
}

struct owned_descriptor {
    int fd = -1;

    owned_descriptor() = default;
    owned_descriptor(const owned_descriptor &) = delete;
    owned_descriptor &operator=(const owned_descriptor &) = delete;
    ~owned_descriptor()
    {
        if (fd < 0) return;
        errno_saver keep;
        close(fd);
    }
};

// One repair. The last members are released first.
struct fix_context {
    mp4_fix_callback callback = nullptr;
    mp4_atom mdat = {};
    mp4_fix_info info = {};
    uint32_t len = UINT32_MAX; // the file's size when it was opened; samples from this offset on never reached it

    // The check for the last video sample, of mp4_fix2 alone.
    int32_t video_count = 0; // video samples that begin inside the file
    uint32_t drop_size = 0;  // bytes from the last video sample on
    bool last_found = false; // the replay has reached its time
    int32_t last_sec = 0;    // its time
    uint32_t last_nsec = 0;

    owned_descriptor file;                // the MP4 file; -1 when there is none
    owned_object<mp4_stream> out_stream;  // the file, without cache, or a null stream
    owned_object<mp4_stream> meta_stream; // where head and moov are composed
    owned_object<mp4_stream> null_stream; // receives the replayed media; its position is the replay's
    owned<mp4_movie, mp4_movie_destroy> movie;
    owned<mediafile_caretaker, mediafile_caretaker_destroy> journal;
};

int open_file(fix_context *ctx, const char *path)
{
    ctx->file.fd = open(path, O_RDWR);
    if (ctx->file.fd < 0) return -1;
    struct stat status;
    if (fstat(ctx->file.fd, &status) != 0) return -1;
    ctx->len = static_cast<uint32_t>(status.st_size);
    ctx->out_stream.reset(mp4_file_stream_create(ctx->file.fd, 0));
    return ctx->out_stream ? 0 : -1;
}

int open_outputs(fix_context *ctx, const char *path)
{
    if (path) {
        if (open_file(ctx, path) != 0) return -1;
    } else {
        ctx->out_stream.reset(mp4_null_stream_create());
        if (!ctx->out_stream) return -1;
    }
    ctx->meta_stream.reset(mp4_memory_stream_create());
    if (!ctx->meta_stream) return -1;
    ctx->null_stream.reset(mp4_null_stream_create());
    if (!ctx->null_stream) return -1;
    ctx->movie.reset(mp4_movie_create());
    return ctx->movie ? 0 : -1;
}

// Opens the file, then the journal. Without a journal the repair ends here, and
// this is its result; `line` is logged when the journal is the cause.
int open_repair(fix_context *ctx, const char *mp4_path, const char *journal_path, const log_line *line)
{
    if (open_outputs(ctx, mp4_path) != 0) return -1;
    ctx->journal.reset(mediafile_caretaker_load(journal_path));
    if (ctx->journal) return 0;
    const int error = errno;
    if (line) log_failure_line(*line, error);
    return result_of(error);
}

int write_head(fix_context *ctx)
{
    mp4_stream *meta = ctx->meta_stream.get();
    if (compose_head(meta, ctx->movie.get(), &ctx->mdat) != 0) return -1;
    // The replay begins at the first byte of media.
    if (ctx->null_stream->seek(ctx->null_stream.get(), meta->tell(meta)) != 0) return -1;
    return meta->copy_to(meta, ctx->out_stream.get()) != 0 ? -1 : 0;
}

const uint8_t *payload(const memento *record)
{
    return reinterpret_cast<const uint8_t *>(record) + sizeof(memento);
}

int add_track(fix_context *ctx, const memento *record)
{
    mp4_track_desc desc;
    memcpy(&desc, payload(record), sizeof desc);
    const mp4_track_desc given = desc;
    desc.type |= MP4_TRACK_RAW;
    const int index = mp4_movie_add_track(ctx->movie.get(), &desc);
    if (index < 0) return -1;
    ctx->info.tracks[index].desc = given;
    return 0;
}

int32_t low_seconds(const sample_memento &sample)
{
    return static_cast<int32_t>(sample.seconds[0]);
}

// Whether a sample up to this one has the time of the last video sample.
bool last_reached(fix_context *ctx, const sample_memento &sample)
{
    if (low_seconds(sample) == ctx->last_sec && sample.nanoseconds == ctx->last_nsec) {
        ctx->last_found = true;
        printf("[%s] find last video frame! hStream=%d, len=%d, key=%d. ctx->dropSize=%d. (%ld:%ld)\n", printed_check,
               sample.header.track, static_cast<int>(sample.len), sample.key, static_cast<int>(ctx->drop_size),
               static_cast<long>(ctx->last_sec), static_cast<long>(ctx->last_nsec));
    }
    return ctx->last_found;
}

uint32_t replay_position(fix_context *ctx)
{
    return ctx->null_stream->tell(ctx->null_stream.get());
}

int replay_sample(fix_context *ctx, const sample_memento &sample)
{
    if (sample.offset < replay_position(ctx)) return refuse(EBADMSG);
    if (sample.offset >= ctx->len) return 0; // it never reached the file
    if (ctx->video_count > 0 && last_reached(ctx, sample)) return 0;

    const mp4_time time = {low_seconds(sample), static_cast<int32_t>(sample.nanoseconds)};
    const mp4_frame frame = {sample.header.track, nullptr, sample.len, time, sample.key};
    return mp4_movie_add_frame(ctx->movie.get(), &frame);
}

int replay_record(fix_context *ctx, const memento *record)
{
    if (record->kind == MEMENTO_SAMPLE) [[likely]]
        return replay_sample(ctx, whole_memento<sample_memento>(record));
    switch (record->kind) {
    case MEMENTO_USER:
        if (ctx->callback) ctx->callback(record);
        return 0;
    case MEMENTO_TRACK:
        return add_track(ctx, record);
    case MEMENTO_VPS:
        return mp4_movie_set_track_vps(ctx->movie.get(), record->track, payload(record), record->length);
    case MEMENTO_SPS:
        return mp4_movie_set_track_sps(ctx->movie.get(), record->track, payload(record), record->length);
    case MEMENTO_PPS:
        return mp4_movie_set_track_pps(ctx->movie.get(), record->track, payload(record), record->length);
    default:
        return 0;
    }
}

// Cuts the file to the end of the replayed media, then writes its tail as a
// recording's is written.
int write_end(fix_context *ctx)
{
    const uint32_t end = replay_position(ctx);
    if (ctx->file.fd >= 0) {
        printf("[%s] ftruncate(), len=%d, ctx->dropSize=%d\n", printed_tail, static_cast<int>(end),
               static_cast<int>(ctx->drop_size));
        while (ftruncate(ctx->file.fd, static_cast<off_t>(uint64_t{end})) != 0)
            if (errno != EINTR) return -1;
    }
    if (ctx->out_stream->seek(ctx->out_stream.get(), end) != 0) return -1;
    return write_tail(ctx->out_stream.get(), ctx->meta_stream.get(), ctx->movie.get(), &ctx->mdat);
}

// From the journal's first record to the end of the file.
failure replay_and_finish(fix_context *ctx)
{
    while (const memento *record = next_record(ctx->journal.get()))
        if (replay_record(ctx, record) != 0) return failed();

    if (const int code = mediafile_caretaker_errcode(ctx->journal.get()); code != 0)
        return {code, &journal_failed, errno};
    mp4_movie_finish_record(ctx->movie.get());
    if (const int code = ctx->movie->error; code != 0) return {code, &movie_failed, errno};
    if (write_end(ctx) != 0) return failed(&tail_failed);
    return {};
}

failure fix(fix_context *ctx)
{
    if (write_head(ctx) != 0) return failed();
    mp4_movie_begin_record(ctx->movie.get(), ctx->null_stream.get(), nullptr);
    return replay_and_finish(ctx);
}

void fill_info(fix_context *ctx)
{
    mp4_fix_info &info = ctx->info;
    mp4_movie_timespan(ctx->movie.get(), &info.timespan);
    info.fileSize = ctx->out_stream->tell(ctx->out_stream.get());
    info.trackCount = ctx->movie->next_track_id - 1;
    for (uint32_t i = 0; i < info.trackCount; ++i) {
        mp4_track *track = ctx->movie->tracks[i];
        mp4_movie_track_timespan(ctx->movie.get(), track, &info.tracks[i].timespan);
        info.tracks[i].frameCount = track->sample_count; // each frame in stored form is a sample
    }
}

// Hands out the summary and makes the file durable.
int conclude(fix_context *ctx, mp4_fix_info *info)
{
    if (info) *info = ctx->info;
    return ctx->file.fd >= 0 && fsync(ctx->file.fd) != 0 ? -1 : 0;
}

// Finds the last video sample that begins inside the file, and counts the bytes
// that are cut with it. A damaged record ends the count; the replay reads it
// again, and fails.
void count_video(fix_context *ctx)
{
    while (const memento *record = next_record(ctx->journal.get())) {
        if (record->kind != MEMENTO_SAMPLE) continue;
        const auto &sample = whole_memento<sample_memento>(record);
        if (sample.offset < replay_position(ctx) || sample.offset >= ctx->len) continue;
        if (record->track != 0) {
            ctx->drop_size += sample.len;
            continue;
        }
        ++ctx->video_count;
        ctx->last_sec = low_seconds(sample);
        ctx->last_nsec = sample.nanoseconds;
        ctx->drop_size = sample.len;
    }
}

enum class decision { repaired, left_alone, refused };

decision fix2(fix_context *ctx)
{
    if (write_head(ctx) != 0) return decision::refused;
    mp4_movie_begin_record(ctx->movie.get(), ctx->null_stream.get(), nullptr);
    if (log_enabled(log_trace)) __printLog(log_trace, "[%s] ctx->len=%d\n", printed_fix2, static_cast<int>(ctx->len));

    count_video(ctx);
    if (ctx->video_count <= 0) {
        printf("[%s] ctx->videoCount=%d, drop file!\n", printed_fix2, ctx->video_count);
        return decision::refused;
    }
    if (ctx->video_count == 1) {
        printf("[%s] ctx->videoCount=%d, don't fixed file!\n", printed_fix2, ctx->video_count);
        return decision::left_alone;
    }
    mediafile_caretaker_reset2(ctx->journal.get());
    return replay_and_finish(ctx).code == 0 ? decision::repaired : decision::refused;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int mp4_fix(const char *mp4_path, const char *journal_path, mp4_fix_callback callback, mp4_fix_info *info)
{
    fix_context ctx;
    ctx.callback = callback;
    const int opened = open_repair(&ctx, mp4_path, journal_path, &journal_not_loaded);
    if (!ctx.journal) return opened;

    if (const failure cause = fix(&ctx); cause.code != 0) {
        if (cause.line) log_failure_line(*cause.line, cause.logged);
        log_failure_line(not_fixed, cause.code);
        return result_of(cause.code);
    }
    fill_info(&ctx);
    return conclude(&ctx, info);
}

int mp4_fix2(const char *mp4_path, const char *journal_path, mp4_fix_callback callback, mp4_fix_info *info)
{
    fix_context ctx;
    ctx.callback = callback;
    const int opened = open_repair(&ctx, mp4_path, journal_path, nullptr);
    if (!ctx.journal) return opened;

    const decision result = fix2(&ctx);
    if (result == decision::refused) return result_of(no_cause);
    if (result == decision::repaired) fill_info(&ctx);
    return conclude(&ctx, info);
}
