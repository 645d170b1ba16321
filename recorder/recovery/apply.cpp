/**
 * Carrying out a plan.
 *
 * In place, each step can be cut off and the whole be repeated, because a plan
 * depends on nothing that an earlier step could have lost:
 *
 * 1. The new journal is written beside the old one, synced, and renamed over
 *    it; the directory is synced. It names exactly the samples that are kept,
 *    and its mark says how long the media was. From here on the journal alone
 *    decides, whatever the media's end looks like.
 * 2. The media is cut to what is kept; a last sample that lacks bytes gets
 *    zeros. Then the tail is written, and the head last, so that a file which
 *    a kill leaves never announces a movie header that it does not have. A
 *    power cut may leave any of these writes out: the journal is still there,
 *    tail and head are compared with what it gives, and written again.
 * 3. The media gets its old modification time and is synced.
 * 4. A recording that its journal calls protected loses its write permission.
 * 5. Only then the journal goes, or gets a mark that the repair is complete,
 *    and the directory is synced.
 *
 * The modification time would be lost by a cut in step 2. So the new journal
 * carries it: a journal that ends with the mark of a repair was left by an
 * earlier attempt, and its own modification time is the media's. One that ends
 * with the mark of this very plan is in place already.
 *
 * Where renaming is not atomic, on FAT and exFAT, step 1 works on the old
 * journal itself: what follows the samples is cut off, and the mark takes its
 * place. Until that is there the journal names the same samples as before. It
 * gets the media's time just after the mark; where a kill comes between, the
 * media has its own time, which is the earlier one.
 */
#include "apply.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "plan.h"

namespace mediafiles::recovery {

namespace {

constexpr uint32_t copied_at_once = 256 << 10;

mediafiles_plan_info info_of(const mediafiles_plan &plan)
{
    mediafiles_plan_info info = {};
    info.size = sizeof info;
    mediafiles_plan_get(&plan, &info);
    return info;
}

bool keeps_media(const mediafiles_plan_info &info)
{
    return info.result == MEDIAFILES_REPAIRED || info.result == MEDIAFILES_SALVAGED;
}

void check(int result)
{
    if (result != 0) throw system_failure();
}

bool is_file_name(const char *name)
{
    return name && *name && !std::strchr(name, '/');
}

/* Hands out bytes of a source; the visitor gives 0, or anything else to stop. */
template <class Visit>
int for_each_part(const mediafiles_source &source, uint64_t begin, uint64_t end, Visit visit)
{
    const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(copied_at_once);
    for (uint64_t at = begin; at < end;) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(copied_at_once, end - at));
        const int64_t got = source.read(source.context, at, buffer.get(), count);
        if (got < 0) throw system_failure();
        if (got != int64_t{count}) throw has_changed();
        if (const int result = visit(buffer.get(), count)) return result;
        at += count;
    }
    return 0;
}

int write_to(void *writer, const void *bytes, size_t count)
{
    return static_cast<buffered_writer *>(writer)->write(bytes, count);
}

class repair_in_place {
public:
    repair_in_place(const mediafiles_plan &plan, const place &media, const identity *expected, const place *journal,
                    bool keep)
        : plan_(plan), info_(info_of(plan)), media_(media), expected_(expected), journal_(journal),
          remove_journal_(journal && info_.journal == MEDIAFILES_JOURNAL_REMOVED && !keep)
    {
    }

    void carry_out()
    {
        if (keeps_media(info_))
            repair();
        else if (info_.result == MEDIAFILES_EMPTY_REMOVED)
            remove_leftover();
        else if (info_.result == MEDIAFILES_FINISHED)
            finish_journal();
        else
            throw system_failure(EINVAL);
    }

private:
    static void remove(const place &file)
    {
        if (unlinkat(file.directory, file.name, 0) != 0) throw system_failure();
        sync_directory(file.directory);
    }

    /* A recorder that was killed after it closed the file may have left it in the kernel's cache alone. */
    void finish_journal() const
    {
        if (!remove_journal_) return;
        const descriptor file = open_media(O_RDONLY);
        sync_file(file);
        protect(file);
        remove(*journal_);
    }

    /* The media first: a journal without samples is the smaller thing to find alone. */
    void remove_leftover()
    {
        open_media(O_RDONLY);
        remove(media_);
        if (journal_) remove(*journal_);
    }

    void repair()
    {
        const descriptor file = open_media(O_RDWR);
        struct timespec time = status_of(file).st_mtim;
        const bool by_journal = journal_ && !writes_head_alone(plan_);
        if (by_journal) time = put_journal_in_place(time);
        if (!writes_head_alone(plan_)) write_end(file, time);
        uint8_t head[MEDIAFILES_HEAD_SIZE];
        check(mediafiles_plan_head(&plan_, head));
        check(write_at(file, 0, head, sizeof head));
        set_modification_time(file, time);
        sync_file(file);
        protect(file);
        sync_directory(media_.directory);
        if (remove_journal_)
            remove(*journal_);
        else if (by_journal)
            write_journal(time, mark_record(true));
    }

    /* Where that fails, for want of permissions on this file system or to change them, it is repaired all the same. */
    void protect(int file) const
    {
        if (info_.is_protected) remove_write_permission(file);
    }

    descriptor open_media(int flags) const
    {
        descriptor file = open_regular(media_.directory, media_.name, flags);
        const struct stat status = status_of(file);
        if (static_cast<uint64_t>(status.st_size) != media_of(plan_).size) throw has_changed();
        if (expected_ && identity_of(status) != *expected_) throw has_changed();
        return file;
    }

    std::vector<uint8_t> mark_record(bool completed) const
    {
        std::vector<uint8_t> record(repair_mark_size);
        write_mark(mark_of(plan_, completed), record.data());
        return record;
    }

    /* @return the modification time that the media gets in the end */
    struct timespec put_journal_in_place(const struct timespec &media_time) const
    {
        const struct stat status = status_of(open_regular(journal_->directory, journal_->name, O_RDONLY));
        const mediafiles_source &old = *journal_of(plan_);
        if (static_cast<uint64_t>(status.st_size) != old.size) throw has_changed();

        const struct timespec time = time_of_recording(plan_, media_time, status.st_mtim, journal_->directory);
        const std::vector<uint8_t> mark = mark_record(false);
        std::vector<uint8_t> end(mark.size());
        if (old.size == info_.journal_end + mark.size() &&
            old.read(old.context, info_.journal_end, end.data(), static_cast<uint32_t>(end.size())) ==
                static_cast<int64_t>(end.size()) &&
            end == mark)
            sync_again(*journal_); // a kill may have come before
        else
            write_journal(time, mark);
        return time;
    }

    static void sync_again(const place &file)
    {
        sync_file(open_regular(file.directory, file.name, O_RDONLY));
        sync_directory(file.directory);
    }

    void write_journal(const struct timespec &time, const std::vector<uint8_t> &mark) const
    {
        if (has_no_log(journal_->directory))
            change_journal(time, mark);
        else
            replace_journal(time, mark);
    }

    void change_journal(const struct timespec &time, const std::vector<uint8_t> &mark) const
    {
        const descriptor file = open_regular(journal_->directory, journal_->name, O_RDWR);
        const uint64_t size = info_.journal_end + mark.size();
        shorten(file, std::min(size, static_cast<uint64_t>(status_of(file).st_size)), time);
        check(write_at(file, info_.journal_end, mark.data(), mark.size()));
        set_modification_time(file, time);
        sync_directory(journal_->directory); // the table first
        sync_file(file);
    }

    /*
     * The size is set even where it is right: room that was kept for a file after its end goes, which FAT takes for
     * damage when a file grows that was not closed, and then it is read-only.
     */
    static void shorten(int file, uint64_t size, const struct timespec &time)
    {
        set_size(file, size);
        if (!has_no_log(file)) return;
        set_modification_time(file, time); // the entry counts as changed, and is written before the table
        sync_file(file);
    }

    void replace_journal(const struct timespec &time, const std::vector<uint8_t> &mark) const
    {
        const struct stat status = status_of(open_regular(journal_->directory, journal_->name, O_RDONLY));
        temporary_file made(journal_->directory, status.st_mode);
        buffered_writer to(made, 0);
        check(for_each_part(*journal_of(plan_), 0, info_.journal_end,
                            [&](const void *bytes, size_t count) { return to.write(bytes, count); }));
        check(to.write(mark.data(), mark.size()));
        check(to.flush());
        set_modification_time(made, time);
        sync_file(made);
        made.replace(journal_->name);
        sync_directory(journal_->directory);
    }

    /* What follows the samples. */
    void write_end(int file, const struct timespec &time) const
    {
        shorten(file, info_.media_end - info_.added, time);
        if (info_.added != 0) set_size(file, info_.media_end);
        buffered_writer tail(file, info_.media_end);
        check(mediafiles_plan_tail(&plan_, write_to, &tail));
        check(tail.flush());
        if (has_no_log(file)) sync_directory(media_.directory); // the table first
    }

    const mediafiles_plan &plan_;
    const mediafiles_plan_info info_;
    const place media_;
    const identity *expected_; // of the media; nullptr: any
    const place *journal_;     // nullptr: none
    const bool remove_journal_;
};

/* A sink between, which counts and follows what passes. */
struct counted_sink {
    mediafiles_sink sink;
    void *context;
    mediafiles_progress progress; // or nullptr
    void *progress_context;
    uint64_t done, total;

    int operator()(const void *bytes, size_t count)
    {
        if (const int result = sink(context, bytes, count)) return result;
        done += count;
        if (!progress || progress(progress_context, done, total) == 0) return 0;
        errno = ECANCELED;
        return -1;
    }
};

/* At the end of a repair. */
struct cleaning {
    int directory;

    ~cleaning() { remove_stale_temporaries(directory); }
};

int pass(void *sink, const void *bytes, size_t count)
{
    return (*static_cast<counted_sink *>(sink))(bytes, count);
}

} // namespace

struct timespec time_of_recording(const mediafiles_plan &plan, const struct timespec &media,
                                  const struct timespec &journal, int directory)
{
    if (!continues_repair(plan)) return media;
    const bool is_earlier =
        std::pair(media.tv_sec, media.tv_nsec) < std::pair(journal.tv_sec, journal.tv_nsec) && has_no_log(directory);
    return is_earlier ? media : journal;
}

void apply_in_place(const mediafiles_plan &plan, const place &media, const identity &expected, const place *journal,
                    bool keep)
{
    repair_in_place(plan, media, &expected, journal, keep).carry_out();
}

} // namespace mediafiles::recovery

using namespace mediafiles::recovery;

int mediafiles_apply_in_place(const mediafiles_plan *plan, int directory, const char *media, const char *journal,
                              int keep)
{
    return guarded([=] {
        if (!plan || !is_file_name(media) || (journal && !is_file_name(journal))) throw system_failure(EINVAL);
        if (!journal != !journal_of(*plan)) throw system_failure(EINVAL);
        const place beside = {directory, journal};
        const cleaning last = {directory};
        repair_in_place(*plan, {directory, media}, nullptr, journal ? &beside : nullptr, keep != 0).carry_out();
    });
}

int mediafiles_apply_to_sink(const mediafiles_plan *plan, mediafiles_sink sink, void *context,
                             mediafiles_progress progress, void *progress_context)
{
    return guarded([=] {
        if (!plan || !sink) throw system_failure(EINVAL);
        const mediafiles_plan_info info = info_of(*plan);
        if (!keeps_media(info)) throw system_failure(EINVAL);
        counted_sink to = {sink, context, progress, progress_context, 0, info.file_size};

        uint8_t head[MEDIAFILES_HEAD_SIZE];
        check(mediafiles_plan_head(plan, head));
        check(to(head, sizeof head));
        check(for_each_part(media_of(*plan), sizeof head, info.media_end - info.added,
                            [&to](const void *bytes, size_t count) { return to(bytes, count); }));
        const uint8_t zeros[4096] = {};
        for (uint64_t left = info.added; left != 0;) {
            const auto count = static_cast<size_t>(std::min<uint64_t>(left, sizeof zeros));
            check(to(zeros, count));
            left -= count;
        }
        check(mediafiles_plan_tail(plan, pass, &to));
    });
}
