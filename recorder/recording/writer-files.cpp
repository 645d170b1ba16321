/* The beginning of a file, and its end: tracks enter and leave it, then it goes to the syncing thread. */
#include "writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "picture-size.h"

namespace mediafiles::recorder {

namespace {

constexpr auto between_tries = std::chrono::seconds(1);
constexpr int names_to_try = 1000;

bool is_taken(int error)
{
    return error == EEXIST || error == EBUSY || error == ELOOP;
}

bool is_same(const mp4_track_desc &a, const mp4_track_desc &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

bool writer::complete_description(uint32_t track)
{
    mp4_track_desc &description = tracks_[track].description;
    if (!options_.is_video(track) || options_.tracks[track].video.width != 0) return true;
    const auto size = read_picture_size(description.type, tracks_[track].sets.first(MEMENTO_SPS));
    if (!size) return false;
    description.video = {size->width, size->height, 0};
    return true;
}

/*
 * The leading track and all sound, used ones if they still describe it. Other
 * video comes into the file with its first frame there: readers complain about
 * a video track that never had one.
 */
std::unique_ptr<muxer> writer::ready_tracks()
{
    std::unique_ptr<muxer> ready = syncs_->take_tracks();
    const auto begins = [&](uint32_t track) { return track == leader_ || !options_.is_video(track); };
    for (uint32_t track = 0; track < options_.track_count(); ++track)
        if (ready && ready->has(track) &&
            !(begins(track) && is_same(ready->description(track), tracks_[track].description)))
            ready.reset();
    if (!ready) ready = std::make_unique<muxer>();
    for (uint32_t track = 0; track < options_.track_count(); ++track)
        if (begins(track) && !ready->has(track) && ready->add(track, tracks_[track].description) != 0)
            throw recovery::system_failure();
    return ready;
}

/* The next file, open before the one before it ends. nullptr where none can be made: the old one goes on. */
open_file *writer::begin_file(uint32_t track, int64_t time)
{
    const bool is_single = !options_.names.is_numbered();
    const clock::time_point now = clock::now();
    if (current_ && is_failing_ && now - tried_ < between_tries) return nullptr;
    if (is_paused()) return nullptr;
    tried_ = now;
    if (const int error = shared_->location.examine(shared_->directory)) {
        shared_->miss_medium(error);
        return nullptr;
    }
    std::unique_ptr<open_file> made;
    int error = 0;
    try {
        files_.reserve(files_.size() + 1);
        if (first_second_ == 0 || !is_single) first_second_ = std::time(nullptr);
        for (int tries = 0; !made; ++tries) {
            const uint64_t number = next_number_++;
            try {
                made = std::make_unique<open_file>(
                    std::make_shared<shared_file>(shared_->directory, options_.names.make(number, first_second_),
                                                  number, options_.file_mode,
                                                  is_single && options_.has(MEDIAFILES_OVERWRITE)),
                    current_ ? current_->line : times_);
            } catch (const recovery::obstacle &cause) {
                /* A name that is taken is left out, but for the one that the user has chosen. */
                if (!is_taken(cause.error) || (is_single && number == 1) || tries == names_to_try) {
                    --next_number_;
                    throw;
                }
            }
        }
        if (made->files().begin(ready_tracks(), pace_) != 0) throw recovery::system_failure();
    } catch (const recovery::obstacle &cause) {
        error = cause.error;
    } catch (const std::bad_alloc &) {
        error = ENOMEM;
    }
    if (error != 0) {
        if (made) {
            next_number_ = made->files().number();
            made->files().remove();
        }
        fail_to_begin(error);
        return nullptr;
    }
    is_failing_ = false;
    if (current_) last_size_ = {current_->files().bytes(), current_->samples};
    shared_->next_bytes = made->files().keep_whole(last_size_, static_cast<uint64_t>(options_.keep_free));

    track_input &input = tracks_[track];
    if (current_) {
        current_->end = input.bridges && input.file == current_ ? current_->line.usual_next(track) : time;
        current_->has_end = true;
        current_->ended = now;
        current_->ended_passed = passed_;
    }
    made->line.begin(time);
    made->steps = input.steps;
    made->passed = passed_;
    made->last_round = now;
    shared_->wants_split = false;
    ++shared_->count.files;
    files_.push_back(std::move(made));
    current_ = files_.back().get();
    has_made_file_ = true;
    if (current_->passed <= protect_until_) protect(*current_);
    shared_->report({.kind = MEDIAFILES_EVENT_BEGUN, .number = current_->files().number(), .from = time},
                    current_->files().name());
    return current_;
}

/* The file before goes on, if there is one. */
void writer::fail_to_begin(int error)
{
    const bool is_news = !std::exchange(is_failing_, true);
    if (is_want_of_room(error))
        want_room(!current_);
    else if (!current_)
        shared_->miss_medium(error);
    else if (is_news)
        shared_->report({.kind = MEDIAFILES_EVENT_WRITE_ERROR, .error = error, .number = next_number_});
}

/*
 * The files are given up as if a write had failed. Frames that wait for a file
 * are still there; those of no file are lost.
 */
void writer::lack_memory()
{
    if (std::exchange(is_loose_, false)) ++shared_->count.frames_dropped;
    if (files_.empty()) shared_->report({.kind = MEDIAFILES_EVENT_WRITE_ERROR, .error = ENOMEM});
    for (const auto &each : files_) {
        int none = 0;
        each->shared->error.compare_exchange_strong(none, ENOMEM);
        each->has_failed = true;
    }
    for (uint32_t track = 0; track < options_.track_count(); ++track) drop(track, tracks_[track].incoming);
    is_unplaced_ = false;
}

/* The syncing thread makes some, or says that there is none. */
void writer::want_room(bool stops)
{
    shared_->is_short = true;
    if (stops) shared_->paused.begin(pause::full);
    syncs_->make_room();
}

void writer::enter(uint32_t track, open_file &file)
{
    track_input &input = tracks_[track];
    input.file = &file;
    input.file_sets = input.sets.version();
    input.bridges = input.is_left = false;
    if (input.steps < file.steps) input.steps = file.steps;
    muxer &tracks = file.files().tracks();
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
    file.ended_passed = passed_;
    file.ended = clock::now();
    if (&file == current_) {
        times_ = file.line;
        current_ = nullptr;
    }
}

/* Files that all tracks have left go to the syncing thread. */
void writer::end_old_files(clock::time_point now, bool all)
{
    bool is_awaited = false; // by sound that is still in a file before
    for (auto each = files_.begin(); each != files_.end();) {
        open_file &file = **each;
        if (!file.has_end) break;
        const track_input &leader = tracks_[leader_];
        const bool is_over =
            all || now >= later(file.ended, old_files_wait_) ||
            (leader.file && leader.file != &file && leader.steps == leader.file->steps &&
             leader.file->steps == file.steps && leader.time > file.end && leader.time - file.end > old_files_wait_);
        bool is_used = false;
        for (uint32_t track = 0; track < options_.track_count(); ++track) {
            track_input &input = tracks_[track];
            /* Sound that has not begun may still come for it. */
            is_used |= !is_over && !options_.is_video(track) && !input.has_time && passed_ < old_files_wait_;
            if (input.file != &file) continue;
            if (is_over) {
                /* Sound goes on in the next file, video with its next key frame, whenever that comes. */
                const bool goes_beyond = options_.is_video(track) && file.line.has_started(track);
                leave(track, goes_beyond ? std::max(file.end, file.line.usual_next(track)) : file.end);
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
        file.shared->passed = file.ended_passed + (file.shared->to - file.end);
        if (!file.has_failed && file.files().take_round(file.shared->last) != 0) {
            int none = 0;
            file.shared->error.compare_exchange_strong(none, errno);
        }
        count_running(&file); // the syncing thread counts it among those that are kept
        syncs_->finish(file.shared);
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
        file.shared->passed = file.has_end ? file.ended_passed : passed_;
        if (is_want_of_room(file.shared->error)) want_room(true);
        count_running(&file);
        syncs_->give_up(file.shared);
        each = files_.erase(each);
    }
}

} // namespace mediafiles::recorder
