/* Which file an access unit goes to, and when the next file is due. */
#include "writer.h"

#include <algorithm>
#include <utility>

namespace mediafiles::recorder {

namespace {

constexpr uint64_t format_limit = MP4_MAX_RECORD_BYTES;
constexpr uint64_t near_limit = format_limit - format_limit / 16;

} // namespace

bool writer::is_since(const open_file &file, const track_input &input, int64_t time) const
{
    return input.steps > file.steps || (input.steps == file.steps && time >= file.line.beginning() - closest);
}

/* After a step its times mean nothing in the file before: each frame lasts as long as usual there. */
int64_t writer::placed_in(const timeline &line, uint32_t track, int64_t time) const
{
    return tracks_[track].bridges && line.has_started(track) ? line.usual_next(track) : time;
}

bool writer::has_room(const open_file &file, uint64_t size) const
{
    return file.shared->files.sample_bytes() + size <= format_limit;
}

bool writer::is_cut_due(const open_file &file, uint32_t track, int64_t time, uint64_t size) const
{
    const auto has_stepped = [&](const track_input &each) { return each.bridges && each.file == &file; };
    if (shared_->wants_split || std::ranges::any_of(tracks_, has_stepped)) return true;
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

/* Event mode: what comes now waits for the next event. */
bool writer::is_over_for(uint32_t track, const open_file *file) const
{
    const track_input &input = tracks_[track];
    if (!is_idle_ || !file || !file->has_end) return false;
    if (input.steps > file->steps) return true;
    return options_.is_video(track) ? input.time >= file->end - closest
                                    : !file->line.is_before(track, input.time, file->end);
}

open_file *writer::choose_for_leader(uint32_t track, const access_unit &unit, int64_t time, bool is_key)
{
    track_input &input = tracks_[track];
    if (!current_) return is_key ? begin_file(track, time) : nullptr;
    if (input.file != current_) return is_key && is_since(*current_, input, time) ? current_ : input.file;

    if (input.has_new_sets() || is_cut_due(*current_, track, time, unit.size())) {
        if (is_key) {
            if (open_file *const next = begin_file(track, time)) return next;
        } else {
            want_key(current_, track);
        }
    }
    if (has_room(*current_, unit.size()) && current_->line.has_room_for(track, placed_in(current_->line, track, time)))
        return current_;
    leave_all(*current_);
    return is_key ? begin_file(track, time) : nullptr;
}

open_file *writer::choose_for_video(uint32_t track, int64_t time, bool is_key)
{
    track_input &input = tracks_[track];
    if (is_key && is_over_for(track, input.file)) return nullptr;
    if (!is_key || !current_) return input.file;
    if (input.file == current_ && input.has_new_sets())
        if (open_file *const next = begin_file(track, time)) return next;
    return is_since(*current_, input, time) ? current_ : input.file;
}

/* By its time. Sound whose clock has not stepped where the file's has belongs to the file before. */
open_file *writer::choose_for_sound(uint32_t track, int64_t time)
{
    const track_input &input = tracks_[track];
    open_file *chosen = nullptr;
    for (const auto &each : files_) {
        if (!chosen) {
            if (each.get() == input.file || (!input.file && (input.is_left || is_since(*each, input, time))))
                chosen = each.get();
            continue;
        }
        const bool has_stepped = each->steps != chosen->steps;
        const bool is_after = input.steps != each->steps ? input.steps > each->steps
                              : has_stepped              ? is_since(*each, input, time)
                                                         : !chosen->line.is_before(track, time, chosen->end);
        if (!is_after) break;
        chosen = each.get();
    }
    return is_over_for(track, chosen) ? nullptr : chosen;
}

} // namespace mediafiles::recorder
