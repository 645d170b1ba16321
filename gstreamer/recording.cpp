/** The part of a recording that streaming threads and applications call. */
#include "recording.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <gst/video/video.h>

#include "messages.h"
#include "push-buffer.h"

namespace mediafiles::gstreamer {

namespace {

using namespace std::chrono_literals;

/* So far a stream runs ahead of another one that can wait, too; one that has not moved for so long is not waited for. */
constexpr int64_t longest_lead = 500 * GST_MSECOND;
constexpr auto longest_wait = 1s;
/* Sound that goes on for so long when the pictures have ended gets files of its own. */
constexpr int64_t longest_sound_after = GST_SECOND;
/* How often a wait for room in the recorder's queue, which nothing interrupts, looks at what else happens. */
constexpr int64_t poll_interval = 50 * GST_MSECOND;

/* A time of an application, which can be added to a clock. */
int64_t within_reach(uint64_t time)
{
    return static_cast<int64_t>(std::min<uint64_t>(time, G_MAXINT64 / 2));
}

} // namespace

recording::recording(GstElement *element, settings options) : options_(std::move(options)), element_(element)
{
    before_.size = sizeof before_;
}

void recording::begin()
{
    thread_ = std::thread([own = shared_from_this()] { own->run(); });
}

void recording::interrupt()
{
    const guard locked(lock_);
    is_ending_ = true;
    wake();
}

void recording::end()
{
    guard locked(lock_);
    is_ending_ = true;
    wake();
    /* The last recorder is started and stopped; a kernel that does not come back from either keeps the thread. */
    const auto patience = std::chrono::nanoseconds(options_.patience) + longest_wait;
    if (moved_.wait_for(locked, patience, [this] { return has_ended_; })) {
        locked.unlock();
        thread_.join();
        return;
    }
    element_ = nullptr;
    thread_.detach();
}

void recording::wake()
{
    waker_.wake();
    moved_.notify_all();
}

void recording::set_playing(bool is_playing)
{
    const guard locked(lock_);
    is_playing_ = is_playing;
    if (!is_playing && stream_is_ == over::posted) stream_is_ = over::reached; // a bin forgets what was posted before
    wake();
}

/* ---- What the pads bring ---- */

void recording::add(const input_ptr &from)
{
    const guard locked(lock_);
    from->moved_at = steady::now();
    inputs_.push_back(from);
}

void recording::remove(const input_ptr &from)
{
    const guard locked(lock_);
    from->is_flushing = true;
    has_left_ = has_left_ || from->recorded_as;
    latest_to_go_had_ended_ = from->has_ended;
    end_gap(*from);
    std::erase(inputs_, from);
    wake();
}

void recording::describe(input &from, const format &carries)
{
    const guard locked(lock_);
    if (!from.carries || !from.carries->fits(carries)) from.carries = std::make_shared<const format>(carries);
    wake();
}

void recording::flush(input &from, bool begins)
{
    const guard locked(lock_);
    from.is_flushing = begins;
    if (!begins) {
        from.has_ended = false;
        stream_is_ = over::no;
    }
    wake();
}

void recording::set_can_wait(input &from, bool can_wait)
{
    const guard locked(lock_);
    from.can_wait = can_wait;
}

bool recording::start_stream(input &from)
{
    const guard locked(lock_);
    const bool is_first =
        std::ranges::none_of(inputs_, [](const input_ptr &each) { return each->has_started && !each->has_ended; });
    from.has_started = true;
    from.has_ended = false;
    from.latest.reset();
    from.moved_at = steady::now();
    from.thread = std::this_thread::get_id();
    stream_is_ = over::no;
    return is_first;
}

void recording::end_stream(input &from, uint32_t sequence)
{
    const guard locked(lock_);
    from.has_ended = true;
    end_sequence_ = sequence;
    end_gap(from);
    wake();
}

void recording::note_time(input &from, int64_t time)
{
    from.latest = time;
    from.moved_at = steady::now();
    from.thread = std::this_thread::get_id();
    if (from.can_wait) moved_.notify_all();
}

void recording::move_on(input &from, int64_t time)
{
    const guard locked(lock_);
    note_time(from, time);
}

/* ---- The way of a buffer ---- */

bool recording::is_ahead(const input &from, int64_t time) const
{
    const auto now = steady::now();
    return std::ranges::any_of(inputs_, [&](const input_ptr &other) {
        if (other.get() == &from || other->has_ended || other->is_flushing) return false;
        if (other->thread == std::this_thread::get_id() || now - other->moved_at >= longest_wait) return false;
        return !other->latest || *other->latest + longest_lead < time;
    });
}

void recording::await_others(guard &locked, const input &from, int64_t time)
{
    while (!stops(from) && is_ahead(from, time)) moved_.wait_for(locked, 100ms);
}

GstFlowReturn recording::push(input &from, GstBuffer *buffer, int64_t time)
{
    guard locked(lock_);
    moved_.wait(locked, [&] { return is_playing_ || stops(from); });
    note_time(from, time);
    if (from.can_wait) await_others(locked, from, time);
    for (bool taken = false; !taken;) {
        if (stops(from)) return why_stopped();
        if (begins_next(from, buffer)) is_direct_ = false;
        if (outlasts_leader(from, time)) {
            has_left_ = true;
            wake();
        }
        if (from.missing.count != 0 && from.carries->is_video() && is_delta(buffer)) {
            drop(from, time);
            taken = true;
        } else if (is_direct_ && from.recorded_as && from.recorded_format == from.carries) {
            taken = give(locked, from, buffer, time);
        } else {
            taken = !(from.can_wait && is_handing_over_) && hold(from, buffer, time);
            if (!taken) moved_.wait(locked);
        }
    }
    return has_failed_ ? GST_FLOW_ERROR : GST_FLOW_OK;
}

/* False when it has to be tried again. */
bool recording::give(guard &locked, input &from, GstBuffer *buffer, int64_t time)
{
    end_gap(from);
    const recorder_ptr recorder = recorder_;
    const uint32_t track = *from.recorded_as;
    const bool waits = from.can_wait;
    if (waits) { /* streams that wait push one at a time: the room that one of them finds is its own */
        moved_.wait(locked, [&] { return !is_giving_ || stops(from); });
        if (stops(from) || recorder != recorder_) return false;
        is_giving_ = true;
    }
    locked.unlock();
    int result = -1;
    const size_t size = gst_buffer_get_size(buffer);
    const bool has_room = !waits || mediafiles_recorder_await_room(recorder.get(), size, poll_interval) != 0;
    if (has_room) result = push_buffer(recorder.get(), track, buffer, time);
    const int error = errno;
    locked.lock();
    if (waits) {
        is_giving_ = false;
        moved_.notify_all();
    }
    if (!has_room) return false;
    if (result >= 0) return true;
    if (error == ESHUTDOWN && (recorder != recorder_ || !is_direct_)) return false;
    if (error == EMSGSIZE)
        drop_too_large(locked, from, size, time);
    else
        fail(locked, error == ESHUTDOWN ? ENOMEM : error);
    return true;
}

/* Of the recorder that runs; the first is its leader. */
std::vector<input_ptr> recording::tracks_with_pictures() const
{
    std::vector<input_ptr> found;
    std::ranges::copy_if(tracks_, std::back_inserter(found),
                         [](const input_ptr &each) { return each->recorded_format->is_video(); });
    return found;
}

/* Without its key frames no file begins. NULL: it goes on. */
input_ptr recording::ended_leader() const
{
    const auto video = tracks_with_pictures();
    return video.empty() || !video.front()->has_ended ? nullptr : video.front();
}

bool recording::outlasts_leader(const input &from, int64_t time) const
{
    if (has_left_ || !from.recorded_as || (options_.max_size_time == 0 && options_.max_size_bytes == 0)) return false;
    const input_ptr leader = ended_leader();
    return leader && leader->latest && time > *leader->latest + longest_sound_after;
}

bool recording::begins_next(const input &from, GstBuffer *buffer) const
{
    return awaited_.get() == &from && !is_delta(buffer);
}

/* False when there is no room for what can wait. */
bool recording::hold(input &from, GstBuffer *buffer, int64_t time)
{
    const uint64_t size = gst_buffer_get_size(buffer);
    if (held_bytes_ + size > options_.queue_bytes / 2 && !held_.empty() && !begins_next(from, buffer)) {
        if (from.can_wait) return false;
        drop(from, time);
        return true;
    }
    owner<GstBuffer> own(gst_buffer_copy_deep(buffer)); // the memory goes back to its source, which may have little
    if (!own) {                                         // it cannot be read
        drop(from, time);
        return true;
    }
    end_gap(from);
    if (held_.empty()) first_held_ = steady::now();
    if (held_.empty() || !is_delta(buffer)) wake();
    held_.push_back({from.shared_from_this(), from.carries, std::move(own), time});
    held_bytes_ += size;
    return true;
}

void recording::drop(input &from, int64_t time)
{
    if (from.missing.count++ == 0) from.missing.from = time;
    from.missing.to = time;
    ++dropped_;
}

void recording::end_gap(input &from)
{
    if (from.missing.count == 0) return;
    gaps_.emplace_back(from.name, std::exchange(from.missing, {}));
    wake();
}

/* ---- What an application asks for ---- */

bool recording::split(bool at_once)
{
    std::vector<input_ptr> video;
    {
        const guard locked(lock_);
        if (!recorder_ || mediafiles_recorder_split(recorder_.get()) != 0) return false;
        if (ended_leader()) {
            has_left_ = true;
            wake();
        }
        if (at_once) video = tracks_with_pictures();
    }
    for (const input_ptr &each : video) ask_for_key(*each);
    return true;
}

bool recording::trigger(uint64_t after)
{
    return options_.pre_event != 0 && ask(triggered_until_, after, [](mediafiles_recorder *recorder, int64_t left) {
               return mediafiles_recorder_trigger(recorder, left);
           });
}

bool recording::protect(uint64_t before, uint64_t after)
{
    return ask(protected_until_, after, [before](mediafiles_recorder *recorder, int64_t left) {
        return mediafiles_recorder_protect(recorder, within_reach(before), left);
    });
}

/* Of the recorder that runs, and of those that follow until then; what is held is for one of these. */
bool recording::ask(steady::time_point &until, uint64_t after,
                    const std::function<int(mediafiles_recorder *, int64_t)> &of)
{
    const guard locked(lock_);
    const int64_t left = within_reach(after);
    if ((!recorder_ || of(recorder_.get(), left) != 0) && held_.empty()) return false;
    until = std::max(until, steady::now() + std::chrono::nanoseconds(left));
    return true;
}

void recording::ask_for_key(input &from)
{
    if (const auto pad = from.pad())
        gst_pad_push_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

owner<GstStructure> recording::stats()
{
    const guard locked(lock_);
    mediafiles_recorder_stats now = {}, sum = before_;
    now.size = sizeof now;
    if (recorder_ && mediafiles_recorder_get_stats(recorder_.get(), &now) == 0) gstreamer::add(sum, now);
    sum.frames_in += dropped_;
    sum.frames_dropped += dropped_;
    auto made = structure_of(sum);
    for (const input_ptr &each : inputs_) {
        auto own = each->before;
        uint64_t safe = each->safe_before;
        if (each->recorded_as) {
            gstreamer::add(own, now.tracks[*each->recorded_as]);
            safe += now.safe[*each->recorded_as];
        }
        gst_structure_set(made.get(), each->name.c_str(), GST_TYPE_STRUCTURE, structure_of(own, safe).get(), nullptr);
    }
    return made;
}

} // namespace mediafiles::gstreamer
