/* The thread: the order in which frames are fed, and what time brings: late frames, rounds, memory that is free again. */
#include "writer.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "survey.h"

namespace mediafiles::recorder {

namespace {

constexpr uint64_t more_to_spare = 128 << 10;    // bytes
constexpr int64_t longest_wait = 10'000'000'000; // for tracks that do not leave a file, where no gap is too long

constexpr auto parts_patience = std::chrono::seconds(1); // for the picture that they belong to

} // namespace

writer::writer(std::shared_ptr<state> shared, std::shared_ptr<syncer> syncs)
    : shared_(std::move(shared)), syncs_(std::move(syncs)), options_(shared_->options), leader_(options_.leader()),
      patience_(std::min<int64_t>(options_.sync, 1'000'000'000)),
      old_files_wait_(options_.longest_gap == never ? longest_wait : options_.longest_gap),
      tracks_(options_.track_count()), is_idle_(options_.has_events()), times_(options_.tracks)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        tracks_[track].description = options_.tracks[track];
        if (options_.is_video(track)) tracks_[track].description.type |= MP4_TRACK_RAW;
    }
}

void writer::run()
{
    survey();
    for (bool is_more = true; is_more;) {
        try {
            is_more = turn();
        } catch (const std::bad_alloc &) {
            lack_memory();
        }
        if (shared_->is_abandoned) return;
    }
    try {
        end();
    } catch (const std::bad_alloc &) { // once more, and the recorder ends as if it were destroyed
        lack_memory();
        end();
    }
}

/* @return whether there can be more */
bool writer::turn()
{
    queue &frames = shared_->frames;
    answer_requests();
    if (is_unplaced_ && frames.is_drained()) return false;
    if (!is_paused() && shared_->is_new_medium.exchange(false)) survey();
    if (is_unplaced_ && (!rests() || frames.is_closed())) place_again();
    const bool goes_on = !is_unplaced_ && (!rests() || frames.is_closed());
    const bool is_there = goes_on ? frames.await(deadline(), tracks_[leader_].held.empty()) : frames.rest();
    const clock::time_point now = clock::now();
    if (is_there) {
        take_some();
    } else {
        answer_requests();
        if (frames.is_drained()) {
            end_for_pause();
            return false;
        }
        if (goes_on) {
            as_of_ = now;
            pass_on(false);
        }
        if (!shared_->is_abandoned) release_late();
    }
    if (shared_->is_abandoned) return false;
    do { // what fails in a round is given up before a frame begins the next file
        end_for_pause();
        give_up_failed();
        end_old_files(now, is_paused());
        if (files_.empty() && shared_->paused.let_go()) syncs_->make_room();
    } while (!make_rounds(now));
    release();
    shared_->count.write.note(now);
    return true;
}

void writer::end()
{
    pass_on(true);
    if (is_idle_) let_go(seen_until_, true);
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        drop(track, tracks_[track].incoming);
        shared_->report_gap(track, tracks_[track].lost);
        shared_->report_gap(track, shared_->frames.open_gap(track));
    }
    if (current_) leave_all(*current_);
    give_up_failed();
    end_old_files(clock::now(), true);
    release();
}

/* On a full medium the files are finished; without a medium they cannot be. */
void writer::end_for_pause()
{
    const pause::reason why = shared_->paused.why();
    if (why == pause::full) {
        shared_->spare.cut();
        if (current_) leave_all(*current_);
    }
    if (why != pause::no_medium) return;
    for (const auto &each : files_) {
        int none = 0;
        each->shared->error.compare_exchange_strong(none, ENODEV);
    }
}

/*
 * Numbers go on from the highest that is there; what was interrupted is
 * recovered, newest first. Where the directory cannot be read, nothing is
 * recorded: with low numbers the new files would be the first to be deleted.
 */
void writer::survey()
{
    int error = 0;
    try {
        if (!options_.names.is_numbered()) return syncs_->remove_stale();
        found_files found = find_files(shared_->directory, options_.names);
        next_number_ = std::max(next_number_, found.highest + 1);
        syncs_->know(std::move(found.finished));
        syncs_->recover(std::move(found.interrupted));
        syncs_->remove_stale();
    } catch (const recovery::obstacle &cause) {
        error = cause.error;
    } catch (const std::bad_alloc &) {
        error = ENOMEM;
    }
    if (error != 0) shared_->miss_medium(error); // surveyed again when it is back
}

/* ---- Order ------------------------------------------------------------- */

/*
 * Frames of the other tracks wait for the leading one: while one of that track
 * is held back, and its successor must come before long, they wake nobody. They
 * are taken with it, one after the other as if each had woken the thread; where
 * more than that can follow from a frame, the turn ends with it.
 */
void writer::take_some()
{
    for (queue::taken next = {nullptr, 0, true}; next.has_next;) {
        answer_requests(); // all those that were made before this frame was pushed
        next = shared_->frames.next();
        if (!next.frame) return;
        as_of_ = next.frame->pushed;
        take(next);
        pass_on(false);
        release_late();
        if (next.frame->track == leader_ || !is_steady()) return;
    }
}

/* One file is recorded, nothing stops it, and nobody waits for its next round. */
bool writer::is_steady() const
{
    return files_.size() == 1 && current_ && !current_->has_failed && !is_unplaced_ && !is_paused() &&
           seen_until_ < round_at_ && !shared_->is_abandoned;
}

void writer::take(const queue::taken &taken)
{
    const uint32_t track = taken.frame->track;
    if (front_ == seen_until_) front_ = taken.position; // where the memory was empty it may begin anywhere
    seen_until_ = std::max(seen_until_, taken.position + taken.frame->size);
    if (is_idle_) return keep(taken);
    if (taken.position < tracks_[track].done_until) return; // the event before has it
    is_loose_ = true;
    if (track == leader_) {
        passed_ = taken.frame->passed;
        feed(track, taken);
    } else {
        tracks_[track].waiting.push_back(taken);
        is_loose_ = false;
    }
}

void writer::pass_on(bool all)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        auto &waiting = tracks_[track].waiting;
        while (!waiting.empty() && (all || may_go(track, waiting.front()))) {
            const queue::taken next = waiting.front();
            waiting.erase(waiting.begin());
            is_loose_ = true;
            feed(track, next);
        }
    }
}

bool writer::may_go(uint32_t track, const queue::taken &taken) const
{
    const track_input &input = tracks_[track], &leader = tracks_[leader_];
    if (leader.has_time && input.steps != leader.steps) return true;
    if (leader.has_time && taken.frame->time + input.offset <= leader.time) return true;
    return as_of_ - taken.frame->pushed >= patience_with_leader();
}

/* Before it has begun there is no file to go to, whatever the time between two rounds. */
std::chrono::nanoseconds writer::patience_with_leader() const
{
    return tracks_[leader_].has_time ? patience_ : std::max<std::chrono::nanoseconds>(patience_, parts_patience);
}

/* ---- Time that passes -------------------------------------------------- */

/* What is incomplete would be damaged: slices that come one by one have the time that they need. */
std::chrono::nanoseconds writer::patience_for(const track_input &input) const
{
    return input.comes_in_parts ? parts_patience : patience_;
}

/* A frame is late when its successor was not pushed in time; that it waits in the queue, while the medium stalls, is not. */
void writer::release_late()
{
    if (as_of_ < none_late_until_) return;
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        track_input &input = tracks_[track];
        if (!input.incoming.empty() && as_of_ - input.incoming.pushed() >= parts_patience) set_aside(track);
        if (!input.file || input.held.empty() || as_of_ - input.held.pushed() < patience_for(input)) continue;
        timeline &line = input.file->line;
        if (!line.has_started(track))
            hand_over(track, line.start(track, input.held_time), input.held_time);
        else if (const auto given = line.release(track))
            hand_over(track, *given, line.usual_next(track));
    }
    none_late_until_ = clock::time_point::max();
    for (const track_input &input : tracks_) none_late_until_ = std::min(none_late_until_, late_at(input));
}

/* When time does something to what the track has. */
clock::time_point writer::late_at(const track_input &input) const
{
    clock::time_point first = clock::time_point::max();
    if (!input.incoming.empty()) first = std::min(first, input.incoming.pushed() + parts_patience);
    if (!input.held.empty()) first = std::min(first, input.held.pushed() + patience_for(input));
    return first;
}

void writer::count_running(const open_file *but)
{
    uint64_t bytes = 0, samples = 0;
    for (const auto &each : files_) {
        if (each.get() == but) continue;
        bytes += each->shared->files.bytes();
        samples += each->samples;
    }
    shared_->running_bytes = bytes;
    shared_->running_samples = samples;
}

/*
 * Frames become safe in their order: before a file's round, those before it have theirs.
 *
 * @return whether all that was to be written is written
 */
bool writer::make_rounds(clock::time_point now)
{
    bool is_good = true;
    uint64_t unkept = 0;
    for (const auto &each : files_) unkept += each->shared->files.unkept();
    if (unkept != 0) shared_->spare.hold(shared_->directory, unkept + more_to_spare);
    count_running();
    const bool is_awaited = seen_until_ >= round_at_;
    if (is_awaited) round_at_ = queue::everything;
    size_t due = 0; // files up to the last one whose round is due
    for (size_t n = 0; n < files_.size(); ++n) {
        open_file &file = *files_[n];
        if (is_awaited) file.had_round = false;
        if (file.wants_round() && (!file.had_round || now >= later(file.last_round, options_.sync))) due = n + 1;
    }
    for (size_t n = 0; n < due; ++n) {
        open_file &file = *files_[n];
        if (!file.wants_round()) continue;
        if (file.shared->is_busy) break;
        if (file.files().take_round(file.shared->pending) != 0) {
            file.shared->error = errno;
            is_good = false;
            continue;
        }
        if (&file == current_) pace_ = file.files().rate();
        file.had_round = true;
        file.last_round = now;
        syncs_->sync(file.shared);
    }
    return is_good;
}

void writer::release()
{
    uint64_t oldest = is_idle_ && front_ < seen_until_ ? front_ : queue::everything;
    for (const track_input &input : tracks_) {
        oldest = std::min({oldest, input.incoming.position(), input.held.position()});
        if (!input.waiting.empty()) oldest = std::min(oldest, input.waiting.front().position);
    }
    if (shared_->frames.release(oldest)) shared_->report({.kind = MEDIAFILES_EVENT_GOES_ON});
}

clock::time_point writer::deadline() const
{
    clock::time_point first = clock::time_point::max();
    for (const track_input &input : tracks_) {
        first = std::min(first, late_at(input));
        if (!input.waiting.empty())
            first = std::min(first, input.waiting.front().frame->pushed + patience_with_leader());
    }
    for (const auto &each : files_) {
        if (each->has_end) first = std::min(first, later(each->ended, old_files_wait_));
    }
    for (const auto &each : files_) {
        if (!each->wants_round()) continue;
        if (each->shared->is_busy) break; // its end wakes
        first = std::min(first, each->had_round ? later(each->last_round, options_.sync) : each->last_round);
    }
    return first;
}

} // namespace mediafiles::recorder
