/* Access units: put together, placed in time, and handed over once it is known how long they last. */
#include "writer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "picture-size.h"

namespace mediafiles::recorder {

void writer::feed(uint32_t track, const queue::taken &part)
{
    track_input &input = tracks_[track];
    const queue::entry &frame = *part.frame;
    input.done_until = part.position + 1;
    none_late_until_ = std::min(none_late_until_, frame.pushed + patience_); // the least that any waits
    if (options_.is_video(track)) {
        if (frame.flags & frame_after_tear && !input.held.empty()) {
            lose(track, input.held);
            input.held.clear();
        }
        if (frame.flags & frame_after_gap) input.needs_key = true;
        const bool is_next = begins_next(input, frame);
        if (!input.held.empty() && frame.time == input.held.time() && !is_next) {
            input.comes_in_parts |= (frame.flags & frame_has_picture) != 0;
            input.held.add(part);
            is_loose_ = false;
            return;
        }
        if (input.held.empty() && frame.time == input.stored_time &&
            !is_next) { // the rest of it is on its way to the medium
            if (frame.flags & frame_has_picture) input.comes_in_parts = input.needs_key = true;
            lose(track, frame.time, 1);
            is_loose_ = false;
            return;
        }
        input.incoming.add(part);
        is_loose_ = false;
        if (!(frame.flags & frame_has_picture)) return;
    } else {
        input.incoming.add(part);
        is_loose_ = false;
    }
    place(track, input.incoming);
    if (!is_unplaced_ || track != leader_) input.incoming.clear();
}

/* It could begin a file, if one could be made. */
void writer::place_again()
{
    is_unplaced_ = false;
    access_unit &unit = tracks_[leader_].incoming;
    place(leader_, unit);
    if (!is_unplaced_) unit.clear();
}

void writer::drop(uint32_t track, access_unit &unit)
{
    if (unit.empty()) return;
    tracks_[track].needs_key = options_.is_video(track);
    lose(track, unit);
    unit.clear();
}

void writer::lose(uint32_t track, const access_unit &unit)
{
    lose(track, unit.time(), unit.count());
}

/* Counted, and reported when the track goes on. */
void writer::lose(uint32_t track, int64_t time, uint64_t frames)
{
    gap &lost = tracks_[track].lost;
    if (lost.count == 0) lost.from = time;
    lost.to = time;
    lost.count += frames;
    shared_->count.frames_dropped += frames;
}

/* Parts whose picture does not come: they would keep their place in the queue for ever. */
void writer::set_aside(uint32_t track)
{
    track_input &input = tracks_[track];
    update_sets(track, input.incoming);
    lose(track, input.incoming);
    input.incoming.clear();
}

/* The track's clock goes on to the time of a frame. Whether it continues; where times are joined, it is made so. */
bool writer::follow_clock(uint32_t track, int64_t pushed_time, bool steps)
{
    track_input &input = tracks_[track];
    const int64_t before = std::exchange(input.time, pushed_time + input.offset);
    if (!std::exchange(input.has_time, true)) return true;
    const int64_t passed = input.time - before;
    if (passed >= 0 && passed <= options_.longest_gap && !steps) return true;
    shared_->report({.kind = MEDIAFILES_EVENT_CLOCK, .track = track, .from = before - input.offset, .to = pushed_time});
    ++input.steps;
    if (!options_.has(MEDIAFILES_JOIN_STEPS)) return false;
    /* The first track that steps says by how much; the others follow it. */
    for (const track_input &other : tracks_) {
        if (&other == &input || other.steps != input.steps) continue;
        if (const int64_t joined = pushed_time + other.offset; joined >= before) {
            input.offset = other.offset;
            input.time = joined;
            return true;
        }
    }
    const int64_t usual =
        input.file && input.file->line.has_started(track) ? input.file->line.usual_next(track) : before + 1;
    input.time = std::max(usual, before);
    input.offset = input.time - pushed_time;
    return true;
}

/* Whether decoding can begin with a frame that has these flags. */
bool writer::is_start(uint16_t flags) const
{
    return flags & frame_is_key || (options_.has(MEDIAFILES_ANY_START) && flags & frame_is_recovery);
}

void writer::update_sets(uint32_t track, const access_unit &unit)
{
    if (!options_.is_video(track) || !unit.has(frame_has_sets)) return;
    track_input &input = tracks_[track];
    for (const queue::taken &part : unit.parts()) input.sets.update(options_.tracks[track], *part.frame);
    const auto size = read_picture_size(options_.tracks[track].type, input.sets.first(MEMENTO_SPS));
    input.may_have_fields = !size || size->has_fields;
}

/* Whether a frame is another access unit than the one before, though it has its time: a clock may be too coarse. */
bool writer::begins_next(const track_input &input, const queue::entry &frame) const
{
    return frame.flags & frame_begins && !input.may_have_fields && (input.held.empty() || input.held.has(frame_begins));
}

void writer::place(uint32_t track, access_unit &unit)
{
    track_input &input = tracks_[track];
    const bool is_video = options_.is_video(track);
    if (input.file && !input.held.empty() && !input.file->line.has_started(track))
        hand_over(track, input.file->line.start(track, input.held_time), input.held_time);

    if (track == leader_ && ends_event(unit)) return end_event(unit);

    const bool is_new = unit.position() >= std::exchange(input.clock_until, unit.last_position() + 1);
    if (!follow_clock(track, unit.time(), is_new && unit.has(frame_steps))) input.bridges = input.file != nullptr;
    const int64_t time = input.time;
    update_sets(track, unit);
    const bool is_key = !is_video || is_start(unit.flags());
    if (is_key && !complete_description(track)) {
        shared_->refuse(track, MEDIAFILES_REFUSED_NO_SETS, unit.time());
        input.needs_key = input.file != nullptr;
        return;
    }
    if (input.needs_key && !is_key) return lose(track, unit);

    open_file *const to = track == leader_ ? choose_for_leader(track, unit, time, is_key)
                          : is_video       ? choose_for_video(track, time, is_key)
                                           : choose_for_sound(track, time);
    if (!to) {
        if (track == leader_ && is_key && rests() && !shared_->frames.is_closed())
            is_unplaced_ = true;
        else if (is_idle_)
            wait_for_event(track);
        else if (is_failing_ || is_paused() || (input.stored_time != INT64_MIN && !options_.has_events()))
            lose(track, unit);
        else if (options_.has_events())
            shared_->count.frames_let_go += unit.count();
        else
            shared_->refuse(track, MEDIAFILES_REFUSED_BEFORE_KEY, unit.time());
        return;
    }
    input.needs_key = false;
    if (input.lost.count != 0) shared_->report_gap(track, std::exchange(input.lost, {}));
    if (to != input.file) {
        leave(track, departure(track));
        enter(track, *to);
        input.added_sets = input.sets.missing_in(options_.tracks[track], unit);
    }
    timeline &line = to->line;
    const int64_t placed = placed_in(line, track, time);
    if (line.has_started(track)) {
        const int64_t before = line.made_up();
        const auto given = line.follow(track, placed);
        shared_->count.made_up += line.made_up() - before;
        if (given && !input.held.empty()) hand_over(track, *given, placed);
    }
    input.held.swap(unit);
    input.held_time = placed;
}

/* Where there is none it ends, while it still can be finished. */
bool writer::has_room_for(open_file &file, uint64_t size)
{
    if (file.has_failed || file.is_out_of_room) return false;
    const segment::room found = file.files().room_for(size);
    if (found == segment::room::enough) return true;
    file.is_out_of_room = found == segment::room::none;
    want_room(file.is_out_of_room);
    return !file.is_out_of_room;
}

/* Where the track ends in its file, when its access unit is the first one after it. */
int64_t writer::departure(uint32_t track) const
{
    const track_input &input = tracks_[track];
    if (!input.file) return input.time;
    if (!options_.is_video(track) && input.file->has_end) return input.file->end;
    return input.bridges ? input.file->line.usual_next(track) : input.time;
}

void writer::hand_over(uint32_t track, mp4_time time, int64_t reached)
{
    track_input &input = tracks_[track];
    open_file &file = *input.file;
    const auto bytes = input.sample(scratch_);
    bool is_stored = has_room_for(file, bytes.size());
    if (is_stored && file.files().add(track, bytes, time, input.held.has(frame_is_key), reached) != 0) {
        is_stored = false;
        file.has_failed = true;
        int none = 0;
        file.shared->error.compare_exchange_strong(none, errno);
    }
    if (is_stored) {
        track_counters &count = shared_->count.tracks[track];
        ++count.frames;
        count.key_frames += input.held.has(frame_is_key) || !options_.is_video(track);
        count.bytes += bytes.size();
        ++shared_->count.frames_out;
        shared_->count.bytes_out += bytes.size();
        ++file.samples;
    } else {
        lose(track, input.held);
    }
    input.stored_time = input.held.time();
    input.added_sets.clear();
    input.held.clear();
}

} // namespace mediafiles::recorder
