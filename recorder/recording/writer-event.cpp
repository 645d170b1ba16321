/*
 * What callers ask for: protection, and events.
 *
 * While there is no event, what is pushed stays in the queue: the memory. It
 * reaches from front_ to seen_until_. Whole groups of pictures of the leading
 * track are let go at its front, with what belongs to the same time. The
 * writer's state (clocks, parameter sets) is that of the front, so that an
 * event goes on from there: the queue is rewound and the frames are taken once
 * more. When an event is over, the other tracks finish its file while their
 * frames already wait for the next one; done_until keeps them from being
 * stored twice.
 */
#include "writer.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace mediafiles::recorder {

/* A protection at once, and an event when all that was pushed before it was taken. */
void writer::answer_requests()
{
    if (!shared_->is_asked) return;
    request protection, event;
    {
        const std::lock_guard guard(shared_->asking);
        std::swap(protection, shared_->protection);
        if (shared_->event.first <= seen_until_ || shared_->frames.is_drained()) std::swap(event, shared_->event);
        shared_->is_asked = shared_->event.is_made;
    }
    if (protection.is_made) {
        protect(protection.from, protection.until);
        round_at_ = protection.last;
    }
    if (!event.is_made) return;
    event_end_ = std::max(event_end_, event.until);
    if (is_idle_) begin_event();
}

/* ---- Protection -------------------------------------------------------- */

void writer::protect(int64_t from, int64_t until)
{
    protect_until_ = std::max(protect_until_, until);
    for (const auto &each : files_)
        if (!each->has_end || each->ended_passed > from || is_held(*each)) protect(*each);
    try {
        syncs_->protect(from);
    } catch (const std::bad_alloc &) {
        shared_->report({.kind = MEDIAFILES_EVENT_PROTECTED, .error = ENOMEM});
    }
}

/* Whether a track is still in the file. */
bool writer::is_held(const open_file &file) const
{
    return std::ranges::any_of(tracks_, [&](const track_input &each) { return each.file == &file; });
}

void writer::protect(open_file &file)
{
    if (file.has_failed || file.files().is_protected()) return;
    if (file.files().protect() != 0) {
        file.has_failed = true;
        file.shared->error = errno;
    }
    file.had_round = false; // the next one is made at once
}

/* ---- Events ------------------------------------------------------------ */

void writer::begin_event()
{
    is_idle_ = false;
    has_made_file_ = false;
    for (uint32_t track = 0; track < options_.track_count(); ++track)
        if (!tracks_[track].file) put_back(track);
    if (front_ < seen_until_) shared_->frames.rewind(front_);
    if (!first_group_.is_known()) want_key(nullptr, leader_);
    first_group_ = next_group_ = unit_ = {};
}

bool writer::ends_event(const access_unit &unit)
{
    if (!options_.has_events() || is_idle_ || passed_ < event_end_) return false;
    if (!current_) return has_made_file_ || is_failing_;
    if (!options_.is_video(leader_) || is_start(unit.flags())) return true;
    want_key(current_, leader_);
    return passed_ - event_end_ >= old_files_wait_;
}

/* The leading track's access unit is the first one that waits for the next event. */
void writer::end_event(const access_unit &unit)
{
    track_input &leader = tracks_[leader_];
    is_idle_ = true;
    front_ = unit.position();
    leader.done_until = unit.position();
    unit_ = {unit.position(), unit.time(), passed_};
    if (!options_.is_video(leader_) || is_start(unit.flags())) first_group_ = unit_;

    if (current_) {
        const int64_t time = unit.time() + leader.offset, passed = time - leader.time;
        const bool continues = passed >= 0 && passed <= options_.longest_gap && !unit.has(frame_steps);
        current_->end = continues || leader.file != current_ ? time : current_->line.usual_next(leader_);
        current_->has_end = true;
        current_->ended = clock::now();
        current_->ended_passed = passed_;
        leave(leader_, current_->end);
        times_ = current_->line;
        current_ = nullptr;
    }
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        if (track != leader_) front_ = std::min(front_, tracks_[track].incoming.position());
        for (const queue::taken &each : std::exchange(tracks_[track].waiting, {})) keep_other(each);
    }
    let_old_go(); // not before all that waits is in the memory: later frames of a track may go with it
}

/* The access unit of another track is the first one of it that does. */
void writer::wait_for_event(uint32_t track)
{
    leave(track, departure(track));
    tracks_[track].is_left = true;
    put_back(track);
}

/* What is not in a file yet is taken once more. */
void writer::put_back(uint32_t track)
{
    track_input &input = tracks_[track];
    if (input.incoming.empty()) return;
    input.done_until = input.incoming.position();
    front_ = std::min(front_, input.done_until);
    input.incoming.clear();
}

/* A frame of another track than the leading one goes to the file that it is still in, or stays in the memory. */
void writer::keep_other(const queue::taken &taken)
{
    const uint32_t track = taken.frame->track;
    const track_input &input = tracks_[track];
    if (!input.file) put_back(track);
    if (taken.position < input.done_until) return;
    if (input.file)
        feed(track, taken);
    else
        front_ = std::min(front_, taken.position);
}

/* A frame that was taken while there is no event. */
void writer::keep(const queue::taken &taken)
{
    const queue::entry &frame = *taken.frame;
    const uint32_t track = frame.track;
    if (track != leader_) {
        keep_other(taken);
    } else {
        newest_ = frame.passed;
        if (!unit_.is_known() || frame.time != unit_.time) unit_ = {taken.position, frame.time, frame.passed};
        if (!options_.is_video(track) || is_start(frame.flags)) {
            if (!first_group_.is_known())
                first_group_ = unit_;
            else if (!next_group_.is_known() && unit_.position != first_group_.position)
                next_group_ = unit_;
        }
    }
    let_old_go();
}

void writer::let_old_go()
{
    const auto most = static_cast<uint64_t>(options_.pre_event_bytes);
    if (!first_group_.is_known()) return let_go(unit_.is_known() ? unit_.position : seen_until_, true);
    for (bool is_full; first_group_.is_known(); find_next_group()) {
        is_full = seen_until_ - front_ > most;
        const bool is_old = next_group_.is_known() && newest_ - next_group_.passed >= options_.pre_event;
        if (!is_full && !is_old) return;
        let_go(next_group_.is_known() ? next_group_.position : seen_until_, is_full);
        first_group_ = std::exchange(next_group_, {});
    }
    unit_ = {}; // its group was larger than the memory
}

/* What lies before a position goes; unless all tracks do, the others' frames stay from the time of the group there on. */
void writer::let_go(uint64_t until, bool all_tracks)
{
    uint64_t kept = until;
    shared_->frames.look_back(front_, until, [&](const queue::taken &each) {
        const queue::entry &frame = *each.frame;
        track_input &input = tracks_[frame.track];
        if (each.position < input.done_until) return;
        if (!all_tracks && frame.track != leader_ && frame.time >= next_group_.time - closest) {
            kept = std::min(kept, each.position);
            return;
        }
        if (options_.is_video(frame.track)) input.sets.update(options_.tracks[frame.track], frame);
        const bool is_part = input.has_time && frame.time + input.offset == input.time;
        follow_clock(frame.track, frame.time, frame.flags & frame_steps && !is_part);
        input.done_until = each.position + 1;
        input.is_left = false;
        shared_->count.safe_to[frame.track] = frame.time;
        ++shared_->count.frames_let_go;
    });
    front_ = kept;
}

/* The one after the first. */
void writer::find_next_group()
{
    if (!first_group_.is_known()) return;
    group unit;
    shared_->frames.look_back(first_group_.position, seen_until_, [&](const queue::taken &each) {
        const queue::entry &frame = *each.frame;
        if (frame.track != leader_ || next_group_.is_known()) return;
        if (!unit.is_known() || frame.time != unit.time) unit = {each.position, frame.time, frame.passed};
        if ((!options_.is_video(leader_) || is_start(frame.flags)) && unit.position != first_group_.position)
            next_group_ = unit;
    });
}

} // namespace mediafiles::recorder
