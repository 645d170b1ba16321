/** The thread of a recording: it starts and stops recorders, and posts what happens in them. */
#include "recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>

#include "messages.h"
#include "push-buffer.h"

namespace mediafiles::gstreamer {

namespace {

using namespace std::chrono_literals;

/*
 * So long after the first buffer pads that have brought none are waited for: encoders that look ahead take seconds, and
 * without the first picture there is no file for sound. Later they get another recorder.
 */
constexpr auto patience_with_pads = 3s;
/* So long a recorder that lacks a track goes on where no key frame comes. */
constexpr auto patience_with_key_frame = 10s;
/* How often a directory is tried again. */
constexpr auto retry_interval = 200ms;
constexpr int64_t poll_interval = 50 * GST_MSECOND;

const std::string &place_in(const settings &given)
{
    return given.location.empty() ? given.pattern : given.location;
}

} // namespace

void recording::run()
{
    guard locked(lock_);
    while (step(locked)) {}
    for (const held_buffer &each : held_) drop(*each.from, each.time);
    for (const held_buffer &each : held_) end_gap(*each.from);
    for (const input_ptr &each : inputs_) end_gap(*each);
    report_gaps(locked);
    held_.clear();
    tracks_.clear();
    inputs_.clear();
    has_ended_ = true;
    moved_.notify_all();
}

/* False when it is over. */
bool recording::step(guard &locked)
{
    if (!gaps_.empty()) {
        report_gaps(locked);
    } else if (needs_a_recorder()) {
        stop_recorder(locked);
        if (!has_failed_) start_recorder(locked);
        hand_over(locked);
        ask_others(locked);
    } else if (is_ending_) {
        stop_recorder(locked);
        return false;
    } else if (recorder_ && is_outdated() && awaited_ != next_leader()) {
        await_key(locked);
    } else if (has_all_ended() && held_.empty() && stream_is_ == over::no && !has_failed_) {
        stop_recorder(locked);
        if (!has_all_ended()) return true; // a stream has begun meanwhile
        if (!has_begun_ && trouble_ != 0) fail(locked, trouble_);
        if (!has_failed_) stream_is_ = over::reached;
    } else if (stream_is_ == over::reached && is_playing_) {
        post_end(locked);
    } else if (has_left_ && !is_outdated()) {
        stop_recorder(locked);
    } else {
        wait(locked);
        if (recorder_) take_events(locked, recorder_);
    }
    return true;
}

bool recording::has_all_ended() const
{
    if (inputs_.empty()) return latest_to_go_had_ended_;
    return std::ranges::all_of(inputs_, [](const input_ptr &each) { return each->has_ended; });
}

/* Whether there is one whose tracks are not those that are needed now. */
bool recording::is_outdated() const
{
    const auto goes_on = [](const input_ptr &each) { return is_recorded(each) && !each->has_ended; };
    if (has_left_ && !is_ending_ && std::ranges::any_of(inputs_, goes_on)) return true;
    return !held_.empty();
}

/* Whether the one that follows can begin: it has the key frame of its leader, or none will come. */
bool recording::may_change() const
{
    if (!is_direct_ || is_ending_ || has_all_ended()) return true;
    const input_ptr leader = next_leader();
    if (!leader || leader->has_ended || leader->is_flushing) return true;
    const bool has_key = std::ranges::any_of(
        held_, [&](const held_buffer &each) { return each.from == leader && !is_delta(each.buffer.get()); });
    return has_key || (awaited_ && steady::now() - awaited_since_ >= patience_with_key_frame);
}

/* The first track of the recorder that follows which has pictures; NULL: none has. */
input_ptr recording::next_leader() const
{
    const std::vector<input_ptr> all = candidates();
    const auto found = std::ranges::find_if(all, [this](const input_ptr &each) {
        const format_ptr held = held_format(each);
        return (held ? held : each->carries)->is_video();
    });
    return found == all.end() ? nullptr : *found;
}

void recording::await_key(guard &locked)
{
    if (!awaited_) awaited_since_ = steady::now();
    const input_ptr from = awaited_ = next_leader();
    if (!from) return;
    locked.unlock();
    ask_for_key(*from);
    locked.lock();
}

/* The leader's key frame has begun a file; other pads join it with theirs. */
void recording::ask_others(guard &locked)
{
    const auto video = tracks_with_pictures();
    locked.unlock();
    for (size_t n = 1; n < video.size(); ++n) ask_for_key(*video[n]);
    locked.lock();
}

bool recording::needs_a_recorder() const
{
    if (has_failed_ || steady::now() < not_before_) return false;
    if (recorder_) return is_outdated() && may_change();
    if (held_.empty()) return false;
    const bool is_complete =
        std::ranges::all_of(inputs_, [](const input_ptr &each) { return each->latest || each->has_ended; });
    return is_complete || is_ending_ || steady::now() - first_held_ >= patience_with_pads;
}

/* What the first of its buffers that are held is; NULL: none is. */
format_ptr recording::held_format(const input_ptr &from) const
{
    const auto found = std::ranges::find(held_, from, &held_buffer::from);
    return found == held_.end() ? nullptr : found->carries;
}

/* Those that go on, the pad "video" first, and those that have gone and left something here. */
std::vector<input_ptr> recording::candidates() const
{
    std::vector<input_ptr> all = inputs_;
    std::stable_partition(all.begin(), all.end(), [](const input_ptr &each) { return each->name == "video"; });
    for (const held_buffer &each : held_)
        if (std::ranges::find(all, each.from) == all.end()) all.push_back(each.from);
    const auto is_idle = [this](const input_ptr &each) {
        return !held_format(each) && (each->has_ended || !each->carries);
    };
    std::erase_if(all, is_idle);
    /* More than a recorder takes: that of the first buffer is one of them, and the next recorder has the others. */
    if (all.size() > MP4_MAX_TRACKS && !held_.empty()) {
        std::rotate(all.begin(), std::ranges::find(all, held_.front().from), all.end());
        all.resize(MP4_MAX_TRACKS);
    }
    return all;
}

std::vector<mp4_track_desc> recording::choose_tracks()
{
    std::vector<mp4_track_desc> tracks;
    has_left_ = false;
    for (const input_ptr &each : candidates()) {
        const format_ptr held = held_format(each);
        each->recorded_format = held ? held : each->carries;
        each->recorded_as = static_cast<uint32_t>(tracks.size());
        tracks.push_back(each->recorded_format->track);
        tracks_.push_back(each);
        has_left_ = has_left_ || std::ranges::find(inputs_, each) == inputs_.end();
    }
    return tracks;
}

void recording::start_recorder(guard &locked)
{
    const std::vector<mp4_track_desc> tracks = choose_tracks();
    locked.unlock();
    int error = 0;
    directory_ = directory_of(options_);
    recorder_ptr made;
    if (!directory_.empty())
        made.reset(gstreamer::start_recorder(options_, directory_, tracks, before_.files), mediafiles_recorder_destroy);
    if (!made) error = errno;
    locked.lock();
    if (error == 0) {
        recorder_ = std::move(made);
        ask_again();
        return;
    }
    forget_tracks();
    if (!may_succeed_later(error)) return fail(locked, error);
    not_before_ = steady::now() + retry_interval;
    warn(locked, error);
}

/* What an application has asked for holds for this recorder, too: from the first buffer that it gets. */
void recording::ask_again()
{
    const auto begin = held_.empty() ? steady::now() : first_held_;
    const std::chrono::nanoseconds event = triggered_until_ - begin, kept = protected_until_ - begin;
    if (event.count() > 0) mediafiles_recorder_trigger(recorder_.get(), event.count());
    if (kept.count() > 0) mediafiles_recorder_protect(recorder_.get(), 0, kept.count());
}

/*
 * A medium that a recording has begun on comes back. And a recorder that has ended holds the lock of its directory as long
 * as its medium does not answer, that of another element, too.
 */
bool recording::may_succeed_later(int error) const
{
    if (error == EINVAL || error == ENOTSUP || error == EEXIST) return false;
    return has_begun_ || (error == EBUSY && steady::now() < first_held_ + std::chrono::nanoseconds(options_.patience));
}

/*
 * What was held goes first; then the streaming threads push themselves. What is not for one of the recorder's tracks stays,
 * and needs another recorder.
 */
void recording::hand_over(guard &locked)
{
    if (!recorder_) return;
    const recorder_ptr recorder = recorder_;
    const auto fits = [](const held_buffer &held) {
        return held.from->recorded_as && held.from->recorded_format == held.carries;
    };
    is_handing_over_ = true;
    while (!held_.empty() && fits(held_.front())) {
        const input &first = *held_.front().from;
        const held_buffer next = std::move(held_.front());
        held_.pop_front();
        const size_t size = gst_buffer_get_size(next.buffer.get());
        held_bytes_ -= size;
        moved_.notify_all();
        const uint32_t track = *first.recorded_as;
        const bool waits = first.can_wait;
        locked.unlock();
        while (waits && !is_ending_ && mediafiles_recorder_await_room(recorder.get(), size, poll_interval) == 0) {}
        const int result = push_buffer(recorder.get(), track, next.buffer.get(), next.time);
        const int error = errno;
        locked.lock();
        if (result < 0 && error == EMSGSIZE)
            drop_too_large(locked, *next.from, size, next.time);
        else if (result < 0)
            drop(*next.from, next.time);
    }
    is_handing_over_ = false;
    is_direct_ = held_.empty();
    moved_.notify_all();
}

void recording::forget_tracks()
{
    for (const input_ptr &each : tracks_) each->recorded_as.reset();
    tracks_.clear();
}

void recording::stop_recorder(guard &locked)
{
    is_direct_ = false;
    has_left_ = false;
    awaited_.reset();
    if (!recorder_) return;
    const recorder_ptr old = recorder_;
    locked.unlock();
    const bool has_stopped = mediafiles_recorder_stop(old.get(), static_cast<int64_t>(options_.patience)) == 0;
    locked.lock();
    take_events(locked, old);
    mediafiles_recorder_stats last = {};
    last.size = sizeof last;
    mediafiles_recorder_get_stats(old.get(), &last);
    gstreamer::add(before_, last);
    for (uint32_t track = 0; track < tracks_.size(); ++track) {
        gstreamer::add(tracks_[track]->before, last.tracks[track]);
        tracks_[track]->safe_before += last.safe[track];
    }
    recorder_.reset();
    forget_tracks();
    if (has_stopped) return;
    with_element(locked, [](GstElement *element) {
        GST_ELEMENT_WARNING(element, RESOURCE, WRITE, ("The medium does not answer."),
                            ("the files are completed when the directory is recorded into again"));
    });
}

void recording::wait(guard &locked)
{
    std::array<pollfd, 2> waits = {{{waker_.descriptor(), POLLIN, 0}, {-1, POLLIN, 0}}};
    const recorder_ptr recorder = recorder_;
    if (recorder && !has_failed_) waits[1].fd = mediafiles_recorder_event_descriptor(recorder.get());
    int timeout = -1;
    if ((awaited_ || (!recorder && !held_.empty())) && !has_failed_) {
        const auto now = steady::now();
        const auto until = awaited_            ? awaited_since_ + patience_with_key_frame
                           : not_before_ > now ? not_before_
                                               : first_held_ + patience_with_pads;
        const auto left = until - now;
        timeout =
            static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(std::max(left, steady::duration{})).count());
    }
    locked.unlock();
    poll(waits.data(), waits.size(), timeout);
    waker_.drain();
    locked.lock();
}

/* ---- What an application learns ---- */

void recording::with_element(guard &locked, const std::function<void(GstElement *)> &use)
{
    if (!element_) return;
    const owner<GstElement> element = share(element_);
    locked.unlock();
    use(element.get());
    locked.lock();
}

/* Without a medium at the beginning nothing is recorded; a recording that has begun goes on when the medium is back. */
void recording::take_events(guard &locked, const recorder_ptr &recorder)
{
    const std::vector<input_ptr> tracks = tracks_;
    int error = 0;
    bool is_missing = false;
    const auto report = [&](GstElement *element) {
        mediafiles_recorder_event event = {};
        event.size = sizeof event;
        while (mediafiles_recorder_next_event(recorder.get(), &event, 0) == 1) {
            const input_ptr from = event.track < tracks.size() ? tracks[event.track] : nullptr;
            gst_element_post_message(element, message_of(element, event, directory_, from ? from->name : ""));
            is_missing |= event.kind == MEDIAFILES_EVENT_NO_MEDIUM;
            if (event.kind == MEDIAFILES_EVENT_NO_MEDIUM) error = event.error;
            if (event.kind == MEDIAFILES_EVENT_FULL) error = ENOSPC;
            if (event.kind == MEDIAFILES_EVENT_BEGUN || event.kind == MEDIAFILES_EVENT_GOES_ON) trouble_ = error = 0;
            has_begun_ |= event.kind == MEDIAFILES_EVENT_BEGUN;
            const bool waits =
                event.kind == MEDIAFILES_EVENT_KEY_WANTED ||
                (event.kind == MEDIAFILES_EVENT_REFUSED && event.reason == MEDIAFILES_REFUSED_BEFORE_KEY);
            if (waits && from && from->recorded_format->is_video() && options_.send_keyframe_requests)
                ask_for_key(*from);
        }
    };
    with_element(locked, report);
    if (error == 0) return;
    if (is_missing && !has_begun_ && options_.pre_event == 0)
        fail(locked, error);
    else
        warn(locked, error);
}

void recording::report_gaps(guard &locked)
{
    const auto gaps = std::exchange(gaps_, {});
    with_element(locked, [&](GstElement *element) {
        for (const auto &[pad, missing] : gaps) {
            mediafiles_recorder_event event = {};
            event.kind = MEDIAFILES_EVENT_DROPPED;
            event.count = missing.count;
            event.from = missing.from;
            event.to = missing.to;
            gst_element_post_message(element, message_of(element, event, directory_, pad));
        }
    });
}

void recording::post_end(guard &locked)
{
    stream_is_ = over::posted;
    const uint32_t sequence = end_sequence_;
    with_element(locked, [sequence](GstElement *element) {
        GstMessage *const message = gst_message_new_eos(GST_OBJECT_CAST(element));
        gst_message_set_seqnum(message, sequence);
        gst_element_post_message(element, message);
    });
}

/* Once for each reason, until the recording goes on. */
void recording::warn(guard &locked, int error)
{
    if (std::exchange(trouble_, error) == error) return;
    with_element(locked, [&](GstElement *element) {
        GST_ELEMENT_WARNING(
            element, RESOURCE, OPEN_WRITE,
            ("Cannot record now: %s: %s", place_in(options_).c_str(), reason_of_start(options_, error).c_str()),
            ("it is tried again"));
    });
}

void recording::fail(guard &locked, int error)
{
    if (has_failed_) return;
    has_failed_ = true;
    held_.clear();
    held_bytes_ = 0;
    moved_.notify_all();
    const std::string place = place_in(options_), reason = reason_of_start(options_, error);
    with_element(locked, [&](GstElement *element) {
        GST_ELEMENT_ERROR(element, RESOURCE, OPEN_WRITE, ("Cannot record: %s: %s", place.c_str(), reason.c_str()),
                          (nullptr));
    });
}

void recording::drop_too_large(guard &locked, input &from, size_t size, int64_t time)
{
    drop(from, time);
    with_element(locked, [&](GstElement *element) {
        GST_ELEMENT_WARNING(element, RESOURCE, WRITE, ("A frame of %zu bytes is larger than queue-bytes allows.", size),
                            ("%s: raise queue-bytes", from.name.c_str()));
    });
}

} // namespace mediafiles::gstreamer
