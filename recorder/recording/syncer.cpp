#include "syncer.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mediafiles::recorder {

namespace {

constexpr auto between_looks = std::chrono::milliseconds(500);
constexpr uint64_t least_room = 128 << 10; // of a file that has just begun
constexpr uint64_t sample_room = 60;       // bytes
constexpr uint64_t room_to_go_on = 1 << 20;
constexpr uint64_t room_to_complete = 64 << 10; // more than there was when a file could not be completed
constexpr auto between_tries = std::chrono::seconds(1);
constexpr size_t most_remembered = 256; // files

} // namespace

syncer::syncer(std::shared_ptr<state> shared)
    : shared_(std::move(shared)), kept_(static_cast<uint64_t>(shared_->options.most_protected))
{
}

void syncer::add(job added)
{
    {
        const std::lock_guard guard(lock_);
        const uint64_t ending = added.ending;
        jobs_.push_back(std::move(added));
        ending_bytes_ += ending;
    }
    wake_.notify_one();
}

void syncer::sync(file_ptr file)
{
    file->is_busy = true;
    add({task::sync, std::move(file), 0});
}

void syncer::finish(file_ptr file)
{
    const uint64_t bytes = file->files.bytes();
    add({task::finish, std::move(file), 0, bytes});
}

void syncer::give_up(file_ptr file)
{
    add({task::give_up, std::move(file), 0});
}

void syncer::protect(int64_t from)
{
    add({task::protect, nullptr, from});
}

void syncer::recover(std::vector<std::string> names)
{
    {
        const std::lock_guard guard(lock_);
        to_recover_.insert(to_recover_.begin(), names.rbegin(), names.rend());
    }
    wake_.notify_one();
}

void syncer::remove_stale()
{
    {
        const std::lock_guard guard(lock_);
        has_stale_ = true;
    }
    wake_.notify_one();
}

void syncer::make_room()
{
    {
        const std::lock_guard guard(lock_);
        is_asked_ = true;
    }
    wake_.notify_one();
}

void syncer::end()
{
    {
        const std::lock_guard guard(lock_);
        is_last_ = true;
    }
    wake_.notify_one();
}

void syncer::know(std::vector<kept_file> finished)
{
    const std::lock_guard guard(lock_);
    found_ = std::move(finished);
}

std::unique_ptr<muxer> syncer::take_tracks()
{
    const std::lock_guard guard(lock_);
    return std::move(idle_);
}

void syncer::run()
{
    for (bool is_more = true; is_more;) {
        try {
            is_more = work();
        } catch (const std::bad_alloc &) { // of room that was to be made; the next turn tries again
        }
    }
    shared_->spare.end();
}

/* @return whether there can be more */
bool syncer::work()
{
    std::string name;
    bool removes_stale = false;
    {
        std::unique_lock guard(lock_);
        const auto is_there = [this] { return shared_->paused.why() != pause::no_medium; };
        const auto has_find = [&] { return !to_recover_.empty() && is_there(); };
        const auto has_stale = [&] { return has_stale_ && is_there(); };
        const auto is_due = [&] { return !jobs_.empty() || has_find() || has_stale() || is_last_ || is_asked_; };
        if (shared_->paused.why() != pause::none || !lacking_room_.empty())
            wake_.wait_for(guard, between_looks, is_due);
        else
            wake_.wait(guard, is_due);
        is_asked_ = false;
        taken_.swap(jobs_); // both keep their memory
        if (taken_.empty() && has_find()) {
            name = std::move(to_recover_.back());
            to_recover_.pop_back();
        } else if (taken_.empty() && has_stale()) {
            removes_stale = std::exchange(has_stale_, false);
        } else if (taken_.empty() && is_last_) {
            if (std::exchange(is_ending_, true) || !to_recover_.empty() || lacking_room_.empty()) return false;
            to_recover_.swap(lacking_room_); // once more: there may be room by now
        }
    }
    if (shared_->is_abandoned) return false;
    if (!name.empty()) recover_file(name);
    if (removes_stale) recovery::remove_stale_temporaries(shared_->directory);
    for (job &each : taken_) {
        if (shared_->is_abandoned) break;
        try {
            ending_bytes_ -= each.ending;
            carry_out(each);
            while (each.ending != 0 && shared_->paused.why() == pause::none && make_some_room()) {}
        } catch (const std::bad_alloc &) { // of what becomes of a file that has ended: the next recorder finds it
        }
    }
    taken_.clear();
    if (shared_->is_abandoned) return false;
    take_found();
    keep_room();
    return true;
}

/* One by one, so that none is lost where memory is short. */
void syncer::take_found()
{
    const std::lock_guard guard(lock_);
    for (; !found_.empty(); found_.pop_back()) kept_.add(std::move(found_.back()));
}

void syncer::make_safe(shared_file &file, round &made)
{
    const clock::time_point begin = clock::now();
    try {
        if (file.error == 0) file.error = examine_medium();
        if (file.error == 0 && file.files.sync(made, shared_->spare) != 0) file.error = errno;
    } catch (const std::bad_alloc &) {
        file.error = ENOMEM;
    }
    shared_->count.sync.note(begin);
    if (file.error != 0) return;
    failures_ = 0;
    const bool is_late = recovery::may_flush_early(shared_->directory);
    count_safe(std::exchange(late_, is_late ? progress(made) : progress()));
    if (!is_late) count_safe(made);
    if (made.is_protected && !file.is_protection_told && (!is_late || fsync(shared_->directory) == 0)) {
        file.is_protection_told = true;
        report_protected(file.files.number(), file.files.name(), 0);
    }
}

void syncer::count_safe(const progress &made)
{
    for (uint32_t track = 0; track < MP4_MAX_TRACKS; ++track) {
        if (made.samples[track] == 0) continue;
        shared_->count.safe[track] += made.samples[track];
        shared_->count.safe_to[track] = made.reached[track];
    }
}

void syncer::report_protected(uint64_t number, const std::string &name, int error)
{
    shared_->report({.kind = MEDIAFILES_EVENT_PROTECTED, .error = error, .number = number}, name);
}

void syncer::remember(const shared_file &file, bool is_finished)
{
    if (past_.size() == most_remembered) past_.pop_front();
    past_.push_back({file.files.number(), file.files.name(), file.passed, is_finished, file.files.is_protected()});
}

/* Files that wait for recovery lose their write permission after it. */
void syncer::protect_past(int64_t from)
{
    for (past_file &each : past_) {
        if (each.passed <= from || std::exchange(each.is_protected, true)) continue;
        if (each.is_finished) make_read_only(each);
    }
    remove_surplus();
}

void syncer::make_read_only(const past_file &file)
{
    report_protected(file.number, file.name, kept_.protect(shared_->directory, file.name, file.number));
}

void syncer::remove_surplus()
{
    while (const auto removed = kept_.remove_surplus(shared_->directory)) report_deleted(*removed);
}

void syncer::report_deleted(const kept_file &file)
{
    shared_->report({.kind = MEDIAFILES_EVENT_DELETED, .number = file.number, .count = file.bytes}, file.name);
}

/* As much as a round counts for when room is kept free. On a small card, more would never be free. */
uint64_t syncer::most_a_round() const
{
    return total_bytes(shared_->directory) / 16;
}

/*
 * So that the running files can grow for two rounds and be finished: a sample
 * takes 28 bytes of the journal until then, and up to 32 of the movie header.
 */
uint64_t syncer::room_to_finish() const
{
    return least_room + 2 * round_bytes_ + sample_room * shared_->running_samples;
}

/* Bytes that are to be free in the file system, and are not. */
uint64_t syncer::lacking(uint64_t more)
{
    const uint64_t free = free_bytes(shared_->directory);
    if (free == UINT64_MAX) return 0; // what is written next says why
    shared_->count.free_bytes = static_cast<int64_t>(free);
    if (shared_->paused.why() == pause::full)
        more += std::max(std::min(room_to_go_on, most_a_round()), 4 * round_bytes_);
    const uint64_t due = static_cast<uint64_t>(shared_->options.keep_free) + room_to_finish() + more;
    return due > free ? due - free : 0;
}

bool syncer::is_within_quota(uint64_t ending) const
{
    return kept_.bytes() + ending + shared_->running_bytes <= static_cast<uint64_t>(shared_->options.quota);
}

bool syncer::has_room()
{
    return lacking(0) == 0 && is_within_quota(0);
}

/* Nothing goes in vain: where others fill the file system, all files together may not be enough. */
bool syncer::make_some_room(uint64_t more)
{
    const uint64_t missing = lacking(more);
    const bool helps = missing != 0 && missing <= kept_.removable();
    return (helps || !is_within_quota(ending_bytes_)) && remove_oldest();
}

bool syncer::remove_oldest()
{
    const auto removed = kept_.remove_oldest(shared_->directory);
    if (!removed) return false;
    shared_->report({.kind = MEDIAFILES_EVENT_DELETED, .number = removed->number, .count = removed->bytes},
                    removed->name);
    return true;
}

/* The oldest files go; where none can, the writing thread ends the running files until there is room. */
void syncer::keep_room()
{
    const uint64_t bytes = shared_->count.bytes_out;
    if (bytes != bytes_before_)
        round_bytes_ = std::min(std::max(bytes - bytes_before_, round_bytes_ / 2), most_a_round());
    bytes_before_ = bytes;
    if (shared_->paused.why() == pause::full) return end_full();
    if (shared_->paused.why() == pause::no_medium) return await_medium();
    /* What statistics promise is not always to be had. */
    if (shared_->is_short.exchange(false) && has_room()) remove_oldest();
    while (make_some_room(shared_->next_bytes) || make_some_room()) {}
    const bool is_enough = has_room();
    if (!is_enough && shared_->paused.begin(pause::full)) {
        is_full_reported_ = true;
        shared_->report({.kind = MEDIAFILES_EVENT_FULL});
        shared_->frames.wake();
    }
    recover_again(is_enough);
}

/* Once the running files are finished, and what they kept is free again. */
void syncer::end_full()
{
    if (!shared_->paused.is_let_go()) return shared_->frames.wake();
    for (;;) {
        const bool is_promised = has_room();
        const int error = is_promised && shared_->is_short ? try_directory(shared_->directory, room_to_finish()) : 0;
        if (is_promised && error == 0) break;
        if (is_promised ? is_want_of_room(error) && remove_oldest() : make_some_room()) continue;
        if (!std::exchange(is_full_reported_, true)) shared_->report({.kind = MEDIAFILES_EVENT_FULL, .error = error});
        return recover_again(false);
    }
    go_on();
    recover_again(true);
}

/* Nothing of it is used while it is missing: it can be unmounted. */
void syncer::await_medium()
{
    if (!shared_->paused.is_let_go()) return shared_->frames.wake();
    if (clock::now() - tried_ < between_tries || has_jobs()) return;
    tried_ = clock::now();
    forget_medium();
    try {
        recovery::descriptor found = shared_->location.open();
        const int error = try_directory(found, least_room);
        if (error != 0 && !is_want_of_room(error)) return;
        shared_->directory = std::move(found);
    } catch (const recovery::obstacle &) {
        return;
    }
    shared_->is_new_medium = true;
    failures_ = 0;
    go_on();
}

bool syncer::has_jobs()
{
    const std::lock_guard guard(lock_);
    return !jobs_.empty();
}

void syncer::forget_medium()
{
    if (!shared_->directory.is_open()) return;
    shared_->spare.remove();
    late_ = {};
    shared_->directory = recovery::descriptor();
    kept_.clear();
    if (!shared_->options.names.is_numbered()) return;
    /* They are found again. */
    lacking_room_.clear();
    const std::lock_guard guard(lock_);
    to_recover_.clear();
}

/* @return 0, or why the medium counts as missing */
int syncer::examine_medium()
{
    if (shared_->paused.why() == pause::no_medium) return ENODEV;
    const int error = shared_->location.examine(shared_->directory);
    if (error != 0) shared_->miss_medium(error);
    return error;
}

/* A device that is gone may look as if it were there, while all that is written to it fails. */
void syncer::note_failure(int error)
{
    if (!is_want_of_room(error) && ++failures_ > 1) shared_->miss_medium(error);
}

void syncer::go_on()
{
    const bool is_reported = is_full_reported_ || shared_->paused.why() == pause::no_medium;
    is_full_reported_ = shared_->is_short = false;
    shared_->paused.end();
    if (is_reported) shared_->report({.kind = MEDIAFILES_EVENT_GOES_ON});
    shared_->frames.wake();
}

/* Files that could not be completed for want of room. */
void syncer::recover_again(bool has_room)
{
    if (lacking_room_.empty() || clock::now() - tried_ < between_tries) return;
    if (has_room || free_bytes(shared_->directory) >= room_lacked_ + room_to_complete)
        recover(std::exchange(lacking_room_, {}));
}

void syncer::add_kept(const std::string &name)
{
    struct stat status;
    const auto number = shared_->options.names.match(name);
    if (number && shared_->options.names.is_numbered() &&
        fstatat(shared_->directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode))
        kept_.add(
            {*number, name, static_cast<uint64_t>(status.st_size), !(status.st_mode & recovery::write_permissions)});
}

void syncer::carry_out(job &each)
{
    if (each.what == task::protect) return protect_past(each.from);
    shared_file &file = *each.file;
    if (each.what == task::sync) {
        make_safe(file, file.pending);
        file.is_busy = false;
        shared_->frames.wake();
        return;
    }
    const bool is_finished = each.what == task::finish && complete(file);
    shared_->report({.kind = is_finished ? uint32_t{MEDIAFILES_EVENT_FINISHED} : uint32_t{MEDIAFILES_EVENT_WRITE_ERROR},
                     .error = file.error,
                     .number = file.files.number(),
                     .count = file.files.size(),
                     .from = file.from,
                     .to = file.to},
                    file.files.name());
    remember(file, is_finished);
    if (!is_finished) {
        if (examine_medium() == 0) file.files.give_back();
        file.files.give_up();
        note_failure(file.error);
        recover({file.files.name()});
        return;
    }
    if (shared_->options.names.is_numbered())
        kept_.add({file.files.number(), file.files.name(), file.files.size(), file.files.is_protected()});
    if (file.files.is_protected()) remove_surplus();
    if (const int error = file.files.protection_error(); error != 0)
        report_protected(file.files.number(), file.files.name(), error);
    auto tracks = file.files.take_tracks();
    const std::lock_guard guard(lock_);
    idle_.swap(tracks);
}

bool syncer::complete(shared_file &file)
{
    make_safe(file, file.last);
    if (file.error == 0 && file.files.finish(shared_->options.has(MEDIAFILES_KEEP_JOURNAL)) != 0) file.error = errno;
    if (file.error != 0) return false;
    count_safe(std::exchange(late_, {}));
    return true;
}

/* Of files that another recorder or recovery uses nothing is said. */
void syncer::recover_file(const std::string &name)
try {
    if (examine_medium() != 0) return recover({name});
    /* In the directory that is open, even when its path leads elsewhere by now; below it no link is followed. */
    const recovery::descriptor parent = open_parent(shared_->directory, name);
    if (!parent.is_open())
        return shared_->report({.kind = MEDIAFILES_EVENT_NOT_RECOVERED, .result = MEDIAFILES_FAILED, .error = errno},
                               name);
    const std::string file = last_part(name);
    std::string path = "/proc/self/fd/" + std::to_string(int{parent});
    if (access(path.c_str(), F_OK) == 0)
        path += '/' + file;
    else
        path = shared_->options.directory + '/' + name; // without /proc
    /* A journal whose media never was: it stands for it. What a directory of that name holds is not the recorder's. */
    struct stat status;
    if (fstatat(parent, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || S_ISDIR(status.st_mode)) path += ".journal";
    struct context {
        state &shared;
        const std::string &name;
        bool lacks_room = false, is_whole = false;
    } about = {*shared_, name};
    const auto report = [](void *given, const mediafiles_report *found) {
        auto &[shared, of, lacks_room, is_whole] = *static_cast<context *>(given);
        if (found->reason == MEDIAFILES_REASON_IN_USE) return 0;
        const bool is_done = found->result == MEDIAFILES_REPAIRED || found->result == MEDIAFILES_SALVAGED ||
                             found->result == MEDIAFILES_FINISHED || found->result == MEDIAFILES_EMPTY_REMOVED;
        lacks_room = found->result == MEDIAFILES_FAILED && is_want_of_room(found->error);
        is_whole = is_done && found->result != MEDIAFILES_EMPTY_REMOVED;
        shared.report(
            {.kind = is_done ? uint32_t{MEDIAFILES_EVENT_RECOVERED} : uint32_t{MEDIAFILES_EVENT_NOT_RECOVERED},
             .result = found->result,
             .reason = found->reason,
             .error = found->error,
             .number = shared.options.names.match(of).value_or(0),
             .count = found->plan ? found->plan->samples : 0},
            of);
        return 0;
    };
    const char *const given = path.c_str();
    mediafiles_recover_options options = {};
    options.size = sizeof options;
    if (mediafiles_recover(&given, 1, &options, report, &about) != 0)
        shared_->report({.kind = MEDIAFILES_EVENT_NOT_RECOVERED, .result = MEDIAFILES_FAILED, .error = errno}, name);
    if (about.lacks_room) {
        lacking_room_.push_back(name);
        room_lacked_ = free_bytes(shared_->directory);
        tried_ = clock::now();
        return;
    }
    add_kept(name);
    const auto past = std::ranges::find(past_, name, &past_file::name);
    if (about.is_whole && past != past_.end() && !std::exchange(past->is_finished, true) && past->is_protected)
        make_read_only(*past);
    remove_surplus();
} catch (const std::bad_alloc &) {
    shared_->report({.kind = MEDIAFILES_EVENT_NOT_RECOVERED, .result = MEDIAFILES_FAILED, .error = ENOMEM}, name);
}

} // namespace mediafiles::recorder
