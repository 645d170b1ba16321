#include "writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "frame.h"
#include "picture-size.h"
#include "survey.h"

namespace mediafiles::recorder {

namespace {

constexpr int64_t closest = 2'000'000;           // a sample nearer to the end of a file is the next file's
constexpr int64_t longest_wait = 10'000'000'000; // for tracks that do not leave a file, where no gap is too long
constexpr auto between_tries = std::chrono::seconds(1);
constexpr uint64_t format_limit = MP4_MAX_RECORD_BYTES;
constexpr uint64_t near_limit = format_limit - format_limit / 16;
constexpr int names_to_try = 1000;

uint32_t leader_of(const settings &options)
{
    for (uint32_t track = 0; track < options.track_count(); ++track)
        if (options.is_video(track)) return track;
    return 0;
}

clock::time_point later(clock::time_point from, int64_t by)
{
    return by == never ? clock::time_point::max() : from + std::chrono::nanoseconds(by);
}

bool is_same(const mp4_track_desc &a, const mp4_track_desc &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

writer::writer(std::shared_ptr<state> shared, std::shared_ptr<syncer> syncs)
    : shared_(std::move(shared)), syncs_(std::move(syncs)), options_(shared_->options), leader_(leader_of(options_)),
      patience_(std::min<int64_t>(options_.sync, 1'000'000'000)), tracks_(options_.track_count()),
      times_(options_.tracks)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        tracks_[track].description = options_.tracks[track];
        if (options_.is_video(track)) tracks_[track].description.type |= MP4_TRACK_RAW;
    }
}

void writer::run()
{
    survey();
    queue &frames = shared_->frames;
    while (!frames.is_drained()) {
        const queue::taken next = frames.next(deadline());
        if (shared_->is_abandoned) return;
        if (next.frame) take(next);
        pass_on(false);
        const clock::time_point now = clock::now();
        release_late(now);
        if (shared_->is_full && current_) leave_all(*current_);
        give_up_failed();
        end_old_files(now, false);
        make_rounds(now);
        release();
        if (frames.goes_on()) shared_->report({.kind = MEDIAFILES_EVENT_GOES_ON});
    }
    pass_on(true);
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        drop(track, tracks_[track].incoming);
        shared_->report_gap(track, frames.open_gap(track));
    }
    if (current_) leave_all(*current_);
    give_up_failed();
    end_old_files(clock::now(), true);
    release();
}

/* Numbers go on from the highest that is there; what was interrupted is recovered, newest first. */
void writer::survey()
{
    if (!options_.names.is_numbered()) return;
    found_files found = find_files(shared_->directory, options_.names);
    next_number_ = found.highest + 1;
    syncs_->know(std::move(found.finished));
    syncs_->recover(std::move(found.interrupted));
}

/* ---- Order ------------------------------------------------------------- */

void writer::take(const queue::taken &taken)
{
    const uint32_t track = taken.frame->track;
    if (track == leader_)
        feed(track, taken);
    else
        tracks_[track].waiting.push_back(taken);
}

void writer::pass_on(bool all)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        auto &waiting = tracks_[track].waiting;
        size_t gone = 0;
        while (gone < waiting.size() && (all || may_go(track, waiting[gone]))) feed(track, waiting[gone++]);
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<ptrdiff_t>(gone));
    }
}

bool writer::may_go(uint32_t track, const queue::taken &taken) const
{
    const track_input &input = tracks_[track], &leader = tracks_[leader_];
    if (leader.has_time && input.steps != leader.steps) return true;
    if (leader.has_time && taken.frame->time + input.offset <= leader.time) return true;
    return clock::now() - taken.frame->pushed >= patience_;
}

/* ---- Access units ------------------------------------------------------ */

void writer::feed(uint32_t track, const queue::taken &part)
{
    track_input &input = tracks_[track];
    const queue::entry &frame = *part.frame;
    if (options_.is_video(track)) {
        if (frame.flags & frame_after_tear && !input.held.empty()) {
            input.held.clear();
            shared_->count.frames_dropped += 1;
        }
        if (frame.flags & frame_after_gap) input.needs_key = true;
        if (!input.held.empty() && frame.time == input.held.time()) {
            input.held.add(part);
            return;
        }
        if (input.held.empty() && frame.time == input.stored_time) { // the rest of it is on its way to the medium
            shared_->count.frames_dropped += 1;
            return;
        }
        input.incoming.add(part);
        if (!(frame.flags & frame_has_picture)) return;
    } else {
        input.incoming.add(part);
    }
    place(track, input.incoming);
    input.incoming.clear();
}

void writer::drop(uint32_t track, access_unit &unit)
{
    if (unit.empty()) return;
    tracks_[track].needs_key = options_.is_video(track);
    shared_->count.frames_dropped += unit.count();
    unit.clear();
}

/* Whether its time continues those before; where times are joined, it is made so. */
bool writer::continues_clock(uint32_t track, const access_unit &unit, int64_t &time)
{
    track_input &input = tracks_[track];
    time = unit.time() + input.offset;
    if (!input.has_time) return true;
    const int64_t passed = time - input.time;
    if (passed >= 0 && passed <= options_.longest_gap && !unit.has(frame_steps)) return true;
    shared_->report(
        {.kind = MEDIAFILES_EVENT_CLOCK, .track = track, .from = input.time - input.offset, .to = unit.time()});
    ++input.steps;
    if (!options_.has(MEDIAFILES_JOIN_STEPS)) return false;
    /* The first track that steps says by how much; the others follow it. */
    for (const track_input &other : tracks_) {
        if (&other == &input || other.steps != input.steps) continue;
        if (const int64_t joined = unit.time() + other.offset; joined >= input.time) {
            input.offset = other.offset;
            time = joined;
            return true;
        }
    }
    const int64_t usual =
        input.file && input.file->line.has_started(track) ? input.file->line.usual_next(track) : input.time + 1;
    input.offset = std::max(usual, input.time) - unit.time();
    time = unit.time() + input.offset;
    return true;
}

void writer::place(uint32_t track, access_unit &unit)
{
    track_input &input = tracks_[track];
    const bool is_video = options_.is_video(track);
    if (input.file && !input.held.empty() && !input.file->line.has_started(track))
        hand_over(track, input.file->line.start(track, input.held_time), input.held_time);

    int64_t time;
    if (!continues_clock(track, unit, time)) input.bridges = input.file != nullptr;
    input.time = time;
    input.has_time = true;

    const bool new_sets = is_video && unit.has(frame_has_sets) && input.sets.update(options_.tracks[track], unit);
    const bool is_key =
        !is_video || unit.has(frame_is_key) || (options_.has(MEDIAFILES_ANY_START) && unit.has(frame_is_recovery));
    if (is_key && !complete_description(track)) {
        shared_->refuse(track, MEDIAFILES_REFUSED_NO_SETS, unit.time());
        return;
    }
    if (input.needs_key && !is_key) {
        shared_->count.frames_dropped += unit.count();
        return;
    }

    open_file *const to = track == leader_ ? choose_for_leader(track, unit, time, is_key, new_sets)
                          : is_video       ? choose_for_video(track, time, is_key, new_sets)
                                           : choose_for_sound(track, time);
    if (!to) {
        if (is_failing_ || shared_->is_full)
            shared_->count.frames_dropped += unit.count();
        else
            shared_->refuse(track, MEDIAFILES_REFUSED_BEFORE_KEY, unit.time());
        return;
    }
    input.needs_key = false;
    if (to != input.file) {
        if (input.file)
            leave(track, !is_video && input.file->has_end ? input.file->end
                         : input.bridges                  ? input.file->line.usual_next(track)
                                                          : time);
        enter(track, *to);
    }
    timeline &line = to->line;
    const int64_t placed = input.bridges && line.has_started(track) ? line.usual_next(track) : time;
    if (line.has_started(track)) {
        const auto given = line.follow(track, placed);
        if (given && !input.held.empty()) hand_over(track, *given, placed);
    }
    std::swap(input.held, unit);
    input.held_time = placed;
}

void writer::hand_over(uint32_t track, mp4_time time, int64_t reached)
{
    track_input &input = tracks_[track];
    open_file &file = *input.file;
    const clock::time_point begin = clock::now();
    const auto bytes = input.held.bytes(scratch_);
    if (!file.has_failed && file.files().add(track, bytes, time, input.held.has(frame_is_key), reached) != 0) {
        file.has_failed = true;
        int none = 0;
        file.shared->error.compare_exchange_strong(none, errno);
    }
    shared_->count.write.note(begin);
    if (file.has_failed) {
        shared_->count.frames_dropped += input.held.count();
    } else {
        ++shared_->count.frames_out;
        shared_->count.bytes_out += bytes.size();
        ++file.samples;
    }
    input.stored_time = input.held.time();
    input.held.clear();
}

/* ---- Which file -------------------------------------------------------- */

bool writer::is_since(const open_file &file, const track_input &input, int64_t time) const
{
    return input.steps > file.steps || (input.steps == file.steps && time >= file.line.beginning() - closest);
}

bool writer::has_room(const open_file &file, uint64_t size) const
{
    return file.shared->files.sample_bytes() + size <= format_limit;
}

bool writer::is_cut_due(const open_file &file, const track_input &input, uint32_t track, int64_t time,
                        uint64_t size) const
{
    if (shared_->wants_split || input.bridges) return true;
    /* Half a frame early is not too early: times that jitter must not double a file's length. */
    const int64_t usual = file.line.has_started(track) ? file.line.usual_next(track) - file.line.last(track) : 0;
    if (options_.segment != never && time - file.line.beginning() + usual / 2 >= options_.segment) return true;
    const uint64_t bytes = file.shared->files.bytes() + size;
    return bytes > static_cast<uint64_t>(options_.segment_bytes) || bytes > near_limit ||
           !file.line.has_room_for(track, time);
}

void writer::want_key(open_file *file, uint32_t track)
{
    if (!options_.is_video(track) || (file && std::exchange(file->wants_key, true))) return;
    shared_->report({.kind = MEDIAFILES_EVENT_KEY_WANTED, .track = track});
}

open_file *writer::choose_for_leader(uint32_t track, const access_unit &unit, int64_t time, bool is_key, bool new_sets)
{
    track_input &input = tracks_[track];
    if (!current_) return is_key ? begin_file(track, time) : nullptr;
    if (input.file != current_) return is_key && is_since(*current_, input, time) ? current_ : input.file;

    if (new_sets || is_cut_due(*current_, input, track, time, unit.size())) {
        if (is_key) {
            if (open_file *const next = begin_file(track, time)) return next;
        } else {
            want_key(current_, track);
        }
    }
    if (has_room(*current_, unit.size()) && current_->line.has_room_for(track, time)) return current_;
    leave_all(*current_);
    return is_key ? begin_file(track, time) : nullptr;
}

open_file *writer::choose_for_video(uint32_t track, int64_t time, bool is_key, bool new_sets)
{
    track_input &input = tracks_[track];
    if (!is_key || !current_) return input.file;
    if (input.file == current_ && new_sets) return begin_file(track, time);
    return is_since(*current_, input, time) ? current_ : input.file;
}

/* By its time. Sound whose clock has not stepped where the file's has belongs to the file before. */
open_file *writer::choose_for_sound(uint32_t track, int64_t time)
{
    const track_input &input = tracks_[track];
    open_file *chosen = nullptr;
    for (const auto &each : files_) {
        if (!chosen) {
            if (each.get() == input.file || (!input.file && is_since(*each, input, time))) chosen = each.get();
            continue;
        }
        const bool has_stepped = each->steps != chosen->steps;
        const bool is_after = input.steps != each->steps ? input.steps > each->steps
                              : has_stepped              ? is_since(*each, input, time)
                                                         : !chosen->line.is_before(track, time, chosen->end);
        if (!is_after) break;
        chosen = each.get();
    }
    return chosen;
}

/* ---- Files ------------------------------------------------------------- */

bool writer::complete_description(uint32_t track)
{
    mp4_track_desc &description = tracks_[track].description;
    if (!options_.is_video(track) || options_.tracks[track].video.width != 0) return true;
    const auto size = read_picture_size(description.type, tracks_[track].sets.first(MEMENTO_SPS));
    if (size) description.video = {size->width, size->height, 0};
    return description.video.width != 0;
}

/*
 * Used ones, if they still describe the tracks; with all tracks that can be
 * described, in an order that stays: those whose size comes late follow.
 */
std::unique_ptr<muxer> writer::ready_tracks()
{
    for (uint32_t track = 0; track < options_.track_count(); ++track)
        if (!options_.is_video(track) || tracks_[track].description.video.width != 0) note_order(track);
    std::unique_ptr<muxer> ready = syncs_->take_tracks();
    for (const uint32_t track : order_)
        if (ready && ready->has(track) && !is_same(ready->description(track), tracks_[track].description))
            ready.reset();
    if (!ready) ready = std::make_unique<muxer>();
    for (const uint32_t track : order_)
        if (!ready->has(track) && ready->add(track, tracks_[track].description) != 0) throw recovery::system_failure();
    return ready;
}

void writer::note_order(uint32_t track)
{
    if (std::ranges::find(order_, track) == order_.end()) order_.push_back(track);
}

/* The next file, open before the one before it ends. nullptr where none can be made: the old one goes on. */
open_file *writer::begin_file(uint32_t track, int64_t time)
{
    const clock::time_point now = clock::now();
    if (is_failing_ && now - tried_ < between_tries) return nullptr;
    if (shared_->is_full) return nullptr;
    tried_ = now;
    std::unique_ptr<open_file> made;
    try {
        if (first_second_ == 0 || options_.names.is_numbered()) first_second_ = std::time(nullptr);
        for (int tries = 0; !made; ++tries) {
            const uint64_t number = next_number_++;
            try {
                made = std::make_unique<open_file>(
                    std::make_shared<shared_file>(shared_->directory, options_.names.make(number, first_second_),
                                                  number, options_.file_mode),
                    current_ ? current_->line : times_);
            } catch (const recovery::obstacle &cause) {
                if (cause.error != EEXIST || tries == names_to_try) {
                    --next_number_;
                    throw;
                }
            }
        }
        if (made->files().begin(ready_tracks()) != 0) throw recovery::system_failure();
    } catch (const recovery::obstacle &cause) {
        if (made) syncs_->give_up(made->shared);
        report_failure(cause.error);
        return nullptr;
    }
    if (std::exchange(is_failing_, false)) shared_->report({.kind = MEDIAFILES_EVENT_GOES_ON});

    track_input &input = tracks_[track];
    if (current_) {
        current_->end = input.bridges && input.file == current_ ? current_->line.usual_next(track) : time;
        current_->has_end = true;
        current_->ended = now;
    }
    made->line.begin(time);
    made->steps = input.steps;
    made->last_round = now;
    shared_->wants_split = false;
    ++shared_->count.files;
    files_.push_back(std::move(made));
    current_ = files_.back().get();
    shared_->report({.kind = MEDIAFILES_EVENT_BEGUN, .number = current_->files().number(), .from = time},
                    current_->files().name());
    return current_;
}

void writer::report_failure(int error)
{
    if (std::exchange(is_failing_, true)) return;
    const bool is_full = error == ENOSPC || error == EDQUOT;
    shared_->report(
        {.kind = is_full ? uint32_t{MEDIAFILES_EVENT_FULL} : uint32_t{MEDIAFILES_EVENT_NO_MEDIUM}, .error = error});
}

void writer::enter(uint32_t track, open_file &file)
{
    track_input &input = tracks_[track];
    input.file = &file;
    input.bridges = false;
    if (input.steps < file.steps) input.steps = file.steps;
    muxer &tracks = file.files().tracks();
    note_order(track);
    bool is_good = tracks.has(track) || tracks.add(track, input.description) == 0;
    for (uint8_t kind = MEMENTO_VPS; is_good && options_.is_video(track) && kind <= MEMENTO_PPS; ++kind)
        if (const auto set = input.sets.first(kind); !set.empty())
            is_good = file.files().give_set(track, kind, set) == 0;
    if (is_good) return;
    file.has_failed = true;
    file.shared->error = errno;
}

void writer::leave(uint32_t track, int64_t end)
{
    track_input &input = tracks_[track];
    if (!input.file) return;
    timeline &line = input.file->line;
    if (!input.held.empty() && !line.has_started(track)) {
        hand_over(track, line.start(track, input.held_time), input.held_time);
    } else if (!input.held.empty()) {
        const auto given = line.finish(track, end);
        if (given) hand_over(track, *given, end);
    }
    input.file->shared->to = std::max(input.file->shared->to, end);
    input.file = nullptr;
}

/* Without a next file. */
void writer::leave_all(open_file &file)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        track_input &input = tracks_[track];
        if (input.file != &file) continue;
        if (!input.held.empty() && !file.line.has_started(track))
            hand_over(track, file.line.start(track, input.held_time), input.held_time);
        leave(track, file.line.usual_next(track));
        input.needs_key = options_.is_video(track);
    }
    file.end = file.shared->to;
    file.has_end = true;
    file.ended = clock::now();
    if (&file == current_) {
        times_ = file.line;
        current_ = nullptr;
    }
}

/* Files that all tracks have left go to the syncing thread. */
void writer::end_old_files(clock::time_point now, bool all)
{
    const int64_t wait = options_.longest_gap == never ? longest_wait : options_.longest_gap;
    bool is_awaited = false; // by sound that is still in a file before
    for (auto each = files_.begin(); each != files_.end();) {
        open_file &file = **each;
        if (!file.has_end) break;
        const track_input &leader = tracks_[leader_];
        const bool is_over =
            all || now >= later(file.ended, wait) ||
            (leader.file && leader.file != &file && leader.steps == leader.file->steps &&
             leader.file->steps == file.steps && leader.time > file.end && leader.time - file.end > wait);
        bool is_used = false;
        for (uint32_t track = 0; track < options_.track_count(); ++track) {
            track_input &input = tracks_[track];
            if (input.file != &file) continue;
            if (is_over) {
                leave(track, std::max(file.end, file.line.has_started(track) ? file.line.last(track) : file.end));
                input.needs_key = options_.is_video(track);
                if (current_ && input.steps < current_->steps) input.steps = current_->steps;
                continue;
            }
            is_used = true;
            if (!options_.is_video(track)) is_awaited = true;
        }
        if (is_used || is_awaited) {
            ++each;
            continue;
        }
        file.shared->from = file.line.beginning();
        file.shared->to = std::max(file.shared->to, file.end);
        if (!file.has_failed && file.files().take_round(file.shared->last) != 0) {
            int none = 0;
            file.shared->error.compare_exchange_strong(none, errno);
        }
        syncs_->finish(std::move(file.shared));
        each = files_.erase(each);
    }
}

void writer::give_up_failed()
{
    for (auto each = files_.begin(); each != files_.end();) {
        open_file &file = **each;
        if (!file.has_failed && file.shared->error == 0) {
            ++each;
            continue;
        }
        for (uint32_t track = 0; track < options_.track_count(); ++track) {
            track_input &input = tracks_[track];
            if (input.file != &file) continue;
            drop(track, input.held);
            input.file = nullptr;
            input.needs_key = options_.is_video(track);
        }
        if (&file == current_) {
            times_ = file.line;
            current_ = nullptr;
            want_key(nullptr, leader_);
        }
        syncs_->give_up(std::move(file.shared));
        each = files_.erase(each);
    }
}

/* ---- Time that passes -------------------------------------------------- */

void writer::release_late(clock::time_point now)
{
    for (uint32_t track = 0; track < options_.track_count(); ++track) {
        track_input &input = tracks_[track];
        if (!input.file || input.held.empty() || now - input.held.pushed() < patience_) continue;
        timeline &line = input.file->line;
        if (!line.has_started(track))
            hand_over(track, line.start(track, input.held_time), input.held_time);
        else if (const auto given = line.release(track))
            hand_over(track, *given, line.usual_next(track));
    }
}

void writer::make_rounds(clock::time_point now)
{
    uint64_t bytes = 0, samples = 0;
    for (const auto &each : files_) {
        bytes += each->shared->files.bytes();
        samples += each->samples;
    }
    shared_->running_bytes = bytes;
    shared_->running_samples = samples;
    for (const auto &each : files_) {
        open_file &file = *each;
        if (file.has_failed || file.shared->is_busy || !file.files().has_news()) continue;
        if (file.had_round && now < later(file.last_round, options_.sync)) continue;
        const clock::time_point begin = clock::now();
        if (file.files().take_round(file.shared->pending) != 0) {
            file.shared->error = errno;
            continue;
        }
        shared_->count.write.note(begin);
        file.had_round = true;
        file.last_round = now;
        syncs_->sync(file.shared);
    }
}

void writer::release()
{
    uint64_t oldest = queue::everything;
    for (const track_input &input : tracks_) {
        oldest = std::min({oldest, input.incoming.position(), input.held.position()});
        if (!input.waiting.empty()) oldest = std::min(oldest, input.waiting.front().position);
    }
    shared_->frames.release(oldest);
}

clock::time_point writer::deadline() const
{
    clock::time_point first = clock::time_point::max();
    for (const track_input &input : tracks_) {
        if (!input.held.empty()) first = std::min(first, input.held.pushed() + patience_);
        if (!input.waiting.empty()) first = std::min(first, input.waiting.front().frame->pushed + patience_);
    }
    for (const auto &each : files_) {
        if (each->has_end)
            first = std::min(first,
                             later(each->ended, options_.longest_gap == never ? longest_wait : options_.longest_gap));
        if (!each->shared->is_busy && each->shared->files.has_news())
            first = std::min(first, each->had_round ? later(each->last_round, options_.sync) : each->last_round);
    }
    return first;
}

} // namespace mediafiles::recorder
