#include "syncer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace mediafiles::recorder {

namespace {

constexpr auto between_looks = std::chrono::milliseconds(500);
constexpr uint64_t least_room = 128 << 10; // of a file that has just begun
constexpr uint64_t sample_room = 48;       // bytes
constexpr uint64_t room_to_go_on = 1 << 20;

} // namespace

void syncer::add(job added)
{
    {
        const std::lock_guard guard(lock_);
        jobs_.push_back(std::move(added));
    }
    wake_.notify_one();
}

void syncer::sync(file_ptr file)
{
    file->is_busy = true;
    add({task::sync, std::move(file)});
}

void syncer::finish(file_ptr file)
{
    add({task::finish, std::move(file)});
}

void syncer::give_up(file_ptr file)
{
    add({task::give_up, std::move(file)});
}

void syncer::recover(std::vector<std::string> names)
{
    {
        const std::lock_guard guard(lock_);
        to_recover_.insert(to_recover_.begin(), names.rbegin(), names.rend());
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
    std::vector<job> taken;
    for (;;) {
        std::string name;
        {
            std::unique_lock guard(lock_);
            const auto is_due = [this] { return !jobs_.empty() || !to_recover_.empty() || is_last_; };
            if (shared_->is_full)
                wake_.wait_for(guard, between_looks, is_due);
            else
                wake_.wait(guard, is_due);
            for (kept_file &each : found_) kept_.add(std::move(each));
            found_.clear();
            taken.swap(jobs_);
            if (taken.empty() && is_due()) {
                if (to_recover_.empty() || shared_->is_abandoned) return;
                name = std::move(to_recover_.back());
                to_recover_.pop_back();
            }
        }
        if (!name.empty()) recover_file(name);
        for (job &each : taken)
            if (!shared_->is_abandoned) carry_out(each);
        taken.clear();
        if (shared_->is_abandoned) return;
        make_room();
    }
}

void syncer::make_safe(shared_file &file, round &made)
{
    const clock::time_point begin = clock::now();
    if (file.error == 0 && file.files.sync(made) != 0) file.error = errno;
    shared_->count.sync.note(begin);
    if (file.error != 0) return;
    for (uint32_t track = 0; track < MP4_MAX_TRACKS; ++track) {
        if (made.samples[track] == 0) continue;
        shared_->count.safe[track] += made.samples[track];
        shared_->count.safe_to[track] = made.reached[track];
    }
}

/*
 * Whether the running files can grow for two rounds and be finished: a sample
 * takes 28 bytes of the journal until then, and up to 20 of the movie header.
 */
bool syncer::has_room()
{
    struct statvfs room;
    if (fstatvfs(shared_->directory, &room) != 0) return true; // what is written next says why
    const uint64_t free = uint64_t{room.f_bavail} * room.f_frsize;
    shared_->count.free_bytes = static_cast<int64_t>(free);
    const uint64_t to_finish = least_room + 2 * round_bytes_ + sample_room * shared_->running_samples;
    const uint64_t more = shared_->is_full ? room_to_go_on : 0;
    return free >= static_cast<uint64_t>(shared_->options.keep_free) + to_finish + more &&
           kept_.bytes() + shared_->running_bytes <= static_cast<uint64_t>(shared_->options.quota);
}

/* The oldest files go; where none can, the writing thread ends the running files until there is room. */
void syncer::make_room()
{
    const uint64_t bytes = shared_->count.bytes_out;
    if (bytes != bytes_before_) round_bytes_ = std::max(bytes - bytes_before_, round_bytes_ / 2);
    bytes_before_ = bytes;
    while (!has_room()) {
        const auto removed = kept_.remove_oldest(shared_->directory);
        if (!removed) {
            if (!shared_->is_full.exchange(true)) shared_->report({.kind = MEDIAFILES_EVENT_FULL});
            shared_->frames.wake();
            return;
        }
        shared_->report({.kind = MEDIAFILES_EVENT_DELETED, .number = removed->number, .count = removed->bytes},
                        removed->name);
    }
    if (!shared_->is_full.exchange(false)) return;
    shared_->report({.kind = MEDIAFILES_EVENT_GOES_ON});
    recover(std::exchange(lacking_room_, {}));
    shared_->frames.wake();
}

void syncer::add_kept(const std::string &name)
{
    struct stat status;
    const auto number = shared_->options.names.match(name);
    if (number && shared_->options.names.is_numbered() &&
        fstatat(shared_->directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        kept_.add({*number, name, static_cast<uint64_t>(status.st_size)});
}

void syncer::carry_out(job &each)
{
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
    if (!is_finished) {
        file.files.give_up();
        recover({file.files.name()});
        return;
    }
    if (shared_->options.names.is_numbered()) kept_.add({file.files.number(), file.files.name(), file.files.size()});
    auto tracks = file.files.take_tracks();
    const std::lock_guard guard(lock_);
    idle_.swap(tracks);
}

bool syncer::complete(shared_file &file)
{
    make_safe(file, file.last);
    if (file.error == 0 && file.files.finish(shared_->options.has(MEDIAFILES_KEEP_JOURNAL)) != 0) file.error = errno;
    return file.error == 0;
}

/* Of files that another recorder or recovery uses nothing is said. */
void syncer::recover_file(const std::string &name)
{
    const std::string path = shared_->options.directory + '/' + name;
    struct context {
        state &shared;
        const std::string &name;
        bool lacks_room = false;
    } about = {*shared_, name};
    const auto report = [](void *given, const mediafiles_report *found) {
        auto &[shared, of, lacks_room] = *static_cast<context *>(given);
        if (found->reason == MEDIAFILES_REASON_IN_USE) return 0;
        const bool is_done = found->result == MEDIAFILES_REPAIRED || found->result == MEDIAFILES_SALVAGED ||
                             found->result == MEDIAFILES_FINISHED || found->result == MEDIAFILES_EMPTY_REMOVED;
        lacks_room = found->result == MEDIAFILES_FAILED && found->error == ENOSPC;
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
    if (about.lacks_room)
        lacking_room_.push_back(name);
    else
        add_kept(name);
}

} // namespace mediafiles::recorder
