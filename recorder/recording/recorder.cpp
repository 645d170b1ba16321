/**
 * The recorder's C functions. A recorder is a handle on what it shares with its
 * two threads; each of the three owns a share, so that a thread which the
 * kernel holds outlives the handle.
 */
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include <mediafiles/recorder.h>

#include "frame.h"
#include "new-files.h"
#include "options.h"
#include "syncer.h"
#include "timeline.h"
#include "writer.h"

using namespace mediafiles::recorder;
namespace recovery = mediafiles::recovery;

struct mediafiles_recorder {
    std::shared_ptr<state> shared;
};

namespace {

/* destroy gives threads that the kernel does not hold the time to end. */
constexpr auto last_wait = std::chrono::milliseconds(200);

static_assert(MEDIAFILES_REFUSED_OTHER_FORMAT == static_cast<int>(frame_fault::other_format));

/* A record of the caller, which may be shorter or longer than ours. */
template <class Record>
Record take_record(const Record *given)
{
    Record taken = {};
    if (!given || given->size < sizeof given->size) throw recovery::system_failure(EINVAL);
    std::memcpy(&taken, given, std::min<size_t>(given->size, sizeof taken));
    return taken;
}

template <class Record>
void give_record(Record *to, Record made)
{
    const uint32_t size = to->size;
    made.size = size;
    std::memcpy(to, &made, std::min<size_t>(size, sizeof made));
}

/* No two recorders number the same directory. A single recording has its name alone. */
recovery::descriptor prepare_directory(const settings &options)
{
    recovery::descriptor opened = open_directory(options.directory);
    if (options.names.is_numbered()) {
        lock_directory(opened);
        return opened;
    }
    check_names(opened, options.names.make(1, std::time(nullptr)), options.has(MEDIAFILES_OVERWRITE));
    return opened;
}

void abandon(state &shared)
{
    shared.is_abandoned = true;
    shared.frames.close();
}

/* While it exists, new threads get no signal but those of their own faults: others are for the threads that it knows. */
class without_signals {
public:
    without_signals()
    {
        sigset_t all;
        sigfillset(&all);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&all, own);
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~without_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    without_signals(const without_signals &) = delete;
    without_signals &operator=(const without_signals &) = delete;

private:
    sigset_t before_;
};

/* The body of a thread. For want of memory a recorder ends as if it were destroyed: recovery completes the files. */
template <class Body>
void start_thread(const std::shared_ptr<state> &shared, Body body)
{
    {
        const std::lock_guard guard(shared->lock);
        ++shared->threads;
    }
    try {
        const without_signals inherited;
        std::thread([shared, body = std::move(body)]() mutable {
            try {
                body->run();
            } catch (...) {
                abandon(*shared);
                shared->report({.kind = MEDIAFILES_EVENT_WRITE_ERROR, .error = ENOMEM});
            }
            body.reset();
            const std::lock_guard guard(shared->lock);
            if (--shared->threads == 0) {
                shared->directory = recovery::descriptor(); // and its lock
                shared->events.end();
            }
            shared->ended.notify_all();
        }).detach();
    } catch (...) {
        const std::lock_guard guard(shared->lock);
        --shared->threads;
        throw;
    }
}

/* The writing thread, and after it, whatever happens, the end of the syncing thread. */
struct writing {
    std::shared_ptr<syncer> syncs;
    std::unique_ptr<writer> writes;

    writing(std::shared_ptr<state> shared, std::shared_ptr<syncer> with)
        : syncs(with), writes(std::make_unique<writer>(std::move(shared), std::move(with)))
    {
    }
    ~writing() { syncs->end(); }
    void run() { writes->run(); }
};

/* Both, or none: the next start is to find the directory free. */
void start_threads(const std::shared_ptr<state> &shared)
{
    const auto syncs = std::make_shared<syncer>(shared);
    int error = 0;
    try {
        auto writes = std::make_unique<writing>(shared, syncs);
        start_thread(shared, syncs);
        start_thread(shared, std::move(writes));
    } catch (const std::system_error &cause) {
        error = cause.code().value();
    } catch (const std::bad_alloc &) {
        error = ENOMEM;
    }
    if (error == 0) return;
    abandon(*shared);
    syncs->end();
    std::unique_lock guard(shared->lock);
    shared->ended.wait(guard, [&] { return shared->threads == 0; });
    throw recovery::system_failure(error);
}

int refuse(int error)
{
    errno = error;
    return -1;
}

/* -1 is for ever. */
clock::time_point deadline_of(int64_t timeout)
{
    if (timeout == -1) return clock::time_point::max();
    return clock::now() + std::chrono::nanoseconds(std::min(timeout, never / 4));
}

int64_t unsafe_time(const counters &count, uint32_t tracks)
{
    int64_t longest = 0;
    for (uint32_t track = 0; track < tracks; ++track)
        if (count.has_pushed[track]) longest = std::max(longest, count.pushed_to[track] - count.safe_to[track]);
    return longest;
}

} // namespace

mediafiles_recorder *mediafiles_recorder_start(const mediafiles_recorder_options *options)
{
    std::unique_ptr<mediafiles_recorder> made;
    const int result = recovery::guarded([&] {
        settings given = complete(take_record(options));
        recovery::descriptor directory = prepare_directory(given);
        made = std::make_unique<mediafiles_recorder>();
        made->shared = std::make_shared<state>(std::move(given), std::move(directory));
        start_threads(made->shared);
    });
    return result == 0 ? made.release() : nullptr;
}

int mediafiles_recorder_pushv(mediafiles_recorder *recorder, uint32_t track, const struct iovec *pieces, int count,
                              int64_t time, uint32_t flags)
{
    state &shared = *recorder->shared;
    const clock::time_point begin = clock::now();
    if (track >= shared.options.track_count() || count <= 0 || !pieces || flags & ~(MEDIAFILES_KEY | MEDIAFILES_DISC))
        return refuse(EINVAL);
    const mp4_track_desc &description = shared.options.tracks[track];
    const frame_pieces frame(pieces, static_cast<size_t>(count));
    uint64_t size = 0;
    for (const iovec &piece : frame) {
        size += piece.iov_len;
        if (std::max<uint64_t>(size, piece.iov_len) > static_cast<uint64_t>(shared.options.queue_bytes))
            return refuse(EMSGSIZE);
    }
    if (size == 0) return refuse(EINVAL);

    const frame_facts facts = look_at_frame(description, frame);
    if (facts.fault != frame_fault::none || time > latest_time || time < earliest_time) {
        if (shared.frames.is_closed()) return refuse(ESHUTDOWN);
        ++shared.count.frames_in;
        shared.count.bytes_in += size;
        shared.refuse(track,
                      facts.fault != frame_fault::none ? static_cast<uint32_t>(facts.fault)
                                                       : uint32_t{MEDIAFILES_REFUSED_TIME},
                      time);
        return 1;
    }
    const bool is_video = shared.options.is_video(track);
    const bool is_key = facts.key || flags & MEDIAFILES_KEY;
    const auto known = static_cast<uint32_t>(
        (is_key ? frame_is_key : 0) | (facts.has_slices || !is_video ? frame_has_picture : 0) |
        (facts.begins_picture ? frame_begins : 0) | (facts.has_sets ? frame_has_sets : 0) |
        (facts.recovery_point ? frame_is_recovery : 0) | (flags & MEDIAFILES_DISC ? frame_steps : 0));
    const queue::result made =
        shared.frames.push(track, time, begin, facts.stored_size, known, [&](uint8_t *to, queue::entry &entry) {
            store_frame(description, frame, facts, to);
            entry.length = facts.stored_size;
            return true;
        });
    if (made.what == queue::outcome::closed) return refuse(ESHUTDOWN);
    if (made.what == queue::outcome::too_large) return refuse(EMSGSIZE);
    ++shared.count.frames_in;
    shared.count.bytes_in += size;
    if (made.stalls) shared.report({.kind = MEDIAFILES_EVENT_STALLED});
    shared.report_gap(track, made.ended);
    shared.count.frames_dropped += made.ended.count;
    if (!shared.count.has_pushed[track]) {
        shared.count.safe_to[track] = time;
        shared.count.has_pushed[track] = true;
    }
    shared.count.pushed_to[track] = time;
    shared.count.push.note(begin);
    return made.what == queue::outcome::taken ? 0 : 1;
}

int mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len, int64_t time,
                             uint32_t flags)
{
    const iovec piece = {const_cast<void *>(data), data ? len : 0};
    return mediafiles_recorder_pushv(recorder, track, &piece, 1, time, flags);
}

int mediafiles_recorder_await_room(mediafiles_recorder *recorder, size_t len, int64_t timeout)
{
    if (timeout < -1) return refuse(EINVAL);
    state &shared = *recorder->shared;
    if (len > std::min(static_cast<uint64_t>(shared.options.queue_bytes), shared.frames.largest()))
        return refuse(EMSGSIZE);
    /* Start codes of three bytes become lengths of four, each before a byte at least. */
    const uint64_t stored = len + uint64_t{len} / 4 + 1;
    switch (shared.frames.await_room(stored, deadline_of(timeout))) {
    case queue::wait::over:
        return 1;
    case queue::wait::timed_out:
        return 0;
    case queue::wait::closed:
        break;
    }
    return refuse(ESHUTDOWN);
}

int mediafiles_recorder_split(mediafiles_recorder *recorder)
{
    if (recorder->shared->frames.is_closed()) return refuse(ESHUTDOWN);
    recorder->shared->wants_split = true;
    return 0;
}

namespace {

/* The writing thread answers it: it knows which files hold that time. */
int ask(state &shared, request &which, int64_t before, int64_t after)
{
    if (before < 0 || after < 0) return refuse(EINVAL);
    if (shared.frames.is_closed()) return refuse(ESHUTDOWN);
    const queue::moment now = shared.frames.now();
    {
        const std::lock_guard guard(shared.asking);
        which.join(now, before, after);
        shared.is_asked = true;
    }
    shared.frames.wake();
    return 0;
}

} // namespace

int mediafiles_recorder_protect(mediafiles_recorder *recorder, int64_t before, int64_t after)
{
    return ask(*recorder->shared, recorder->shared->protection, before, after);
}

int mediafiles_recorder_trigger(mediafiles_recorder *recorder, int64_t after)
{
    if (!recorder->shared->options.has_events()) return refuse(ENOTSUP);
    return ask(*recorder->shared, recorder->shared->event, 0, after);
}

int mediafiles_recorder_get_stats(mediafiles_recorder *recorder, mediafiles_recorder_stats *stats)
{
    if (!stats || stats->size < sizeof stats->size) return refuse(EINVAL);
    state &shared = *recorder->shared;
    const counters &count = shared.count;
    const queue::use use = shared.frames.in_use();
    mediafiles_recorder_stats made = {};
    made.files = count.files;
    made.frames_in = count.frames_in;
    made.frames_out = count.frames_out;
    made.frames_dropped = count.frames_dropped + use.dropped;
    made.frames_refused = count.frames_refused;
    made.frames_let_go = count.frames_let_go;
    made.bytes_in = count.bytes_in;
    made.bytes_out = count.bytes_out;
    std::ranges::copy(count.safe, made.safe);
    made.unsafe_ns = unsafe_time(count, shared.options.track_count());
    made.made_up_ns = count.made_up;
    made.queue_used = use.bytes;
    made.queue_most = use.most;
    made.worst_push = count.push.get();
    made.worst_write = count.write.get();
    made.worst_sync = count.sync.get();
    made.free_bytes = count.free_bytes;
    std::ranges::transform(count.tracks, made.tracks, [](const track_counters &each) {
        return mediafiles_recorder_track_stats{each.frames, each.key_frames, each.bytes, each.refused};
    });
    give_record(stats, made);
    return 0;
}

const char *mediafiles_event_text(uint32_t kind)
{
    static constexpr const char *texts[] = {
        "",
        "begun",
        "finished",
        "recovered",
        "not recovered",
        "deleted",
        "stalled",
        "frames dropped",
        "frames refused",
        "full",
        "no medium",
        "write error",
        "goes on",
        "clock has stepped",
        "key frame wanted",
        "events lost",
        "protected",
    };
    static_assert(std::size(texts) == MEDIAFILES_EVENT_PROTECTED + 1);
    return kind < std::size(texts) ? texts[kind] : "";
}

const char *mediafiles_refused_text(uint32_t reason)
{
    static constexpr const char *texts[] = {
        "",
        "it is empty",
        "it has 2 GiB or more",
        "damaged (it has no start code)",
        "damaged (a NAL unit header is cut off)",
        "damaged (a parameter set has no valid number)",
        "damaged (its ADTS header is cut, or states another length)",
        "its ADTS header has another profile, rate or channel count than the track, or several AAC blocks",
        "a file begins with a key frame",
        "no parameter set (SPS) before it says its size",
        "its time is more than 146 years from 0",
    };
    static_assert(std::size(texts) == MEDIAFILES_REFUSED_TIME + 1);
    return reason < std::size(texts) ? texts[reason] : "";
}

int mediafiles_recorder_event_descriptor(mediafiles_recorder *recorder)
{
    return recorder->shared->events.descriptor();
}

int mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event, int32_t timeout_ms)
{
    if (!event || event->size < sizeof event->size) return refuse(EINVAL);
    mediafiles_recorder_event taken = {};
    if (!recorder->shared->events.take(taken, timeout_ms)) return 0;
    give_record(event, taken);
    return 1;
}

int mediafiles_recorder_stop(mediafiles_recorder *recorder, int64_t patience)
{
    if (patience < -1) return refuse(EINVAL);
    state &shared = *recorder->shared;
    shared.frames.close();
    std::unique_lock guard(shared.lock);
    const auto has_ended = [&] { return shared.threads == 0; };
    if (patience == -1)
        shared.ended.wait(guard, has_ended);
    else if (!shared.ended.wait_for(guard, std::chrono::nanoseconds(std::min(patience, never / 4)), has_ended)) {
        guard.unlock();
        abandon(shared);
        shared.events.end(); // who waits for events waits no longer than the one who stops
        return refuse(ETIMEDOUT);
    }
    return 0;
}

void mediafiles_recorder_destroy(mediafiles_recorder *recorder)
{
    if (!recorder) return;
    state &shared = *recorder->shared;
    abandon(shared);
    {
        std::unique_lock guard(shared.lock);
        shared.ended.wait_for(guard, last_wait, [&] { return shared.threads == 0; });
    }
    delete recorder;
}
