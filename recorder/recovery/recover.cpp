/**
 * Recovery of all that some paths lead to.
 *
 * Each file is opened, locked and looked at only then; the same plan decides a
 * dry run and a real one, and whatever could stop the real one before its
 * first write is asked in both. One file's trouble is its own report's.
 */
#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <set>

#include <fcntl.h>
#include <unistd.h>

#include <mediafiles/caretaker.h>

#include "apply.h"
#include "plan.h"
#include "safe-file.h"
#include "search.h"
#include "sha256.h"

namespace mediafiles::recovery {

namespace {

constexpr size_t read_at_once = 256 << 10;
constexpr size_t looked_at_for_a_journal = 64 << 10;

using plan_ptr = std::unique_ptr<mediafiles_plan, decltype(&mediafiles_plan_destroy)>;

int64_t read_source(void *file, uint64_t offset, void *to, uint32_t count)
{
    return read_at(*static_cast<const int *>(file), offset, to, count);
}

/* Calls the caller's function a few times a second. */
class progress_meter {
public:
    progress_meter(mediafiles_progress function, void *context) : function_(function), context_(context) {}

    /* Anything but 0: stop. */
    int operator()(uint64_t done, uint64_t total)
    {
        if (!function_ || stopped_) return stopped_;
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(200)) return 0;
        last_ = now;
        return stopped_ = function_(context_, done, total) != 0;
    }
    static int call(void *meter, uint64_t done, uint64_t total)
    {
        return (*static_cast<progress_meter *>(meter))(done, total);
    }

private:
    mediafiles_progress function_;
    void *context_;
    std::chrono::steady_clock::time_point last_ = {};
    bool stopped_ = false;
};

constexpr obstacle stopped = {MEDIAFILES_FAILED, MEDIAFILES_REASON_STOPPED, ECANCELED};

/* A file that is claimed, as it was then. */
struct claimed_file {
    descriptor file;
    struct stat status = {};
    int number = -1; // of the descriptor, for the source

    void open(int directory, const char *name, int flags, bool &lease_unknown)
    {
        descriptor opened = open_regular(directory, name, O_RDONLY | flags);
        if (claim(opened, directory, name) == lease::unknown) lease_unknown = true;
        status = status_of(opened);
        file = std::move(opened);
        number = file;
        posix_fadvise(file, 0, 0, POSIX_FADV_RANDOM);
    }
    uint64_t size() const { return static_cast<uint64_t>(status.st_size); }
    mediafiles_source source() { return {&number, size(), read_source}; }
    void check_unchanged() const
    {
        const struct stat now = status_of(file);
        if (now.st_size != status.st_size || now.st_mtim.tv_sec != status.st_mtim.tv_sec ||
            now.st_mtim.tv_nsec != status.st_mtim.tv_nsec)
            throw has_changed();
    }
};

std::string hash_of(int file, uint64_t size, progress_meter &progress)
{
    sha256 hash;
    const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(read_at_once);
    for (uint64_t at = 0; at < size;) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(read_at_once, size - at));
        const int64_t got = read_at(file, at, buffer.get(), count);
        if (got < 0) throw system_failure();
        if (got != static_cast<int64_t>(count)) throw has_changed();
        hash.add(buffer.get(), count);
        at += count;
        if (progress(at, size) != 0) throw stopped;
    }
    return hash.digits();
}

/* Where a copy's bytes go: a file, or in a dry run nowhere; and through the hash when it is asked for. */
struct copy_sink {
    std::optional<buffered_writer> writer;
    std::optional<sha256> hash;

    static int write(void *context, const void *bytes, size_t count)
    {
        auto &self = *static_cast<copy_sink *>(context);
        if (self.hash) self.hash->add(bytes, count);
        return self.writer ? self.writer->write(bytes, count) : 0;
    }
};

/* "clip.mp4" becomes "clip-recovered.mp4". */
std::string name_beside(const std::string &name)
{
    const size_t point = name.rfind('.');
    if (point == std::string::npos || point == 0) return name + "-recovered";
    return name.substr(0, point) + "-recovered" + name.substr(point);
}

/* Whether a journal ends inside its first record, which is a track's. */
bool is_cut_off_at_once(const std::vector<uint8_t> &journal)
{
    constexpr memento first = {MEMENTO_TRACK, 0, sizeof(mp4_track_desc)};
    return journal.size() < sizeof first + first.length &&
           std::memcmp(journal.data(), &first, std::min(journal.size(), sizeof first)) == 0;
}

/* What one run of mediafiles_recover goes by. */
struct run {
    run(const mediafiles_recover_options &given, mediafiles_report_callback callback, void *context)
        : options(given), report_callback(callback), report_context(context),
          progress(given.progress, given.progress_context),
          files(
              read_flags(), [this](const std::string &path, const obstacle &cause) { report_problem(path, cause); },
              [this] {
                  if (progress(++names_seen, 0) != 0) throw stopped;
              })
    {
    }

    bool has(uint32_t flag) const { return (options.flags & flag) != 0; }
    /* Where nothing is written, not even the time of the last access. */
    int read_flags() const { return options.output || has(MEDIAFILES_DRY_RUN) ? O_NOATIME : 0; }

    void report(const mediafiles_report &report)
    {
        if (report_callback(report_context, &report) != 0) throw stopped;
    }

    void report_problem(const std::string &path, const obstacle &cause)
    {
        mediafiles_report problem = {};
        problem.size = sizeof problem;
        problem.result = cause.result;
        problem.reason = cause.reason;
        problem.error = cause.error;
        problem.path = path.c_str();
        report(problem);
    }

    /* At the end, where it is written to anyway; of many directories the first ones before, so that few are open. */
    void will_clean(int directory)
    {
        constexpr size_t most_open = 64;
        const identity file = identity_of(status_of(directory));
        if (std::ranges::find(to_clean, file, &open_directory::file) != to_clean.end()) return;
        if (to_clean.size() == most_open) clean_first();
        descriptor opened = open_at(directory, ".", O_RDONLY | O_DIRECTORY);
        if (opened.is_open()) to_clean.push_back({file, std::move(opened)});
    }

    void clean_first()
    {
        remove_stale_temporaries(to_clean.front().opened);
        to_clean.pop_front();
    }

    const mediafiles_recover_options options;
    const mediafiles_report_callback report_callback;
    void *const report_context;
    progress_meter progress;
    uint64_t names_seen = 0;
    search files;
    descriptor output;          // when there is one
    std::set<std::string> made; // below output; in a dry run, what would have been
    struct open_directory {
        identity file;
        descriptor opened;
    };
    std::deque<open_directory> to_clean;
};

/* One find, from opening it to its report. */
class recording {
public:
    recording(run &run, const find &found)
        : run_(run), found_(found), name_(run.files.name(found.media)), journal_name_(run.files.name(found.journal)),
          path_(run.files.path_of(found.directory, found.media ? name_ : journal_name_))
    {
        report_.size = sizeof report_;
        report_.path = path_.c_str();
    }

    void recover()
    {
        try {
            directory_ = run_.files.open_directory(found_.directory);
            if (found_.media)
                recover_media();
            else if (!recover_orphan())
                return;
        } catch (const obstacle &cause) {
            fail(cause);
        }
        report_.journal_kept = report_.journal && !journal_goes_;
        report_.lease_unknown = lease_unknown_;
        run_.report(report_);
        if (report_.reason == MEDIAFILES_REASON_STOPPED) throw stopped;
    }

private:
    void fail(const obstacle &cause)
    {
        report_.result = cause.result;
        report_.reason = cause.reason;
        report_.error = cause.error;
        report_.output = nullptr;
        report_.hash_made = nullptr;
        journal_goes_ = false;
    }

    bool dry() const { return run_.has(MEDIAFILES_DRY_RUN); }

    void recover_media()
    {
        media_.open(directory_, name_.c_str(), run_.read_flags(), lease_unknown_);
        try {
            open_journal();
        } catch (const obstacle &cause) {
            journal_obstacle_ = cause;
        }
        make_plan();
        if (run_.has(MEDIAFILES_HASH) && is_ours()) {
            hash_read_ = hash_of(media_.file, media_.size(), run_.progress);
            report_.hash_read = hash_read_.c_str();
        }
        media_.check_unchanged();
        if (journal_.file.is_open()) journal_.check_unchanged();
        if (keeps_media() && run_.output.is_open())
            copy();
        else if (!run_.output.is_open())
            apply();
    }

    bool keeps_media() const { return info_.result == MEDIAFILES_REPAIRED || info_.result == MEDIAFILES_SALVAGED; }
    bool is_ours() const
    {
        return keeps_media() || info_.result == MEDIAFILES_FINISHED || info_.result == MEDIAFILES_EMPTY_REMOVED;
    }

    /* After the media's lock: who recorded may have made or removed it since the search. */
    void open_journal()
    {
        if (run_.options.journal) {
            const std::string path = run_.options.journal;
            const size_t begin = path.rfind('/') + 1;
            journal_name_ = path.substr(begin);
            set_journal_path(path);
            journal_directory_ = open_at(AT_FDCWD, begin == 0 ? "." : path.substr(0, begin).c_str(),
                                         O_RDONLY | O_DIRECTORY | run_.read_flags());
            if (!journal_directory_.is_open()) throw system_failure();
            journal_.open(journal_directory_, journal_name_.c_str(), run_.read_flags(), lease_unknown_);
            return;
        }
        if (journal_name_.empty()) journal_name_ = name_ + ".journal";
        set_journal_path(run_.files.path_of(found_.directory, journal_name_));
        try {
            journal_.open(directory_, journal_name_.c_str(), run_.read_flags(), lease_unknown_);
        } catch (const obstacle &cause) {
            /* A name that is too long has no journal either. */
            if (cause.error != ENOENT && cause.error != ENAMETOOLONG) throw;
            report_.journal = nullptr;
        }
    }

    void set_journal_path(const std::string &path)
    {
        journal_path_ = path;
        report_.journal = journal_path_.c_str();
    }

    void make_plan()
    {
        const mediafiles_source media = media_.source(), journal = journal_.source();
        plan_.reset(mediafiles_plan_create(&media, journal_.file.is_open() ? &journal : nullptr, run_.options.flags));
        if (!plan_) throw std::bad_alloc();
        info_.size = sizeof info_;
        mediafiles_plan_get(plan_.get(), &info_);
        /* Where its head cannot be read, nothing says whose it is. */
        uint8_t head[MEDIAFILES_HEAD_SIZE];
        if (info_.result == MEDIAFILES_NOT_OURS && read_at(media_.file, 0, head, sizeof head) < 0)
            throw system_failure();
        if (journal_obstacle_ && info_.result != MEDIAFILES_FINISHED && info_.result != MEDIAFILES_NOT_OURS) {
            report_.problem_path = report_.journal;
            if (journal_obstacle_->result == MEDIAFILES_NOT_OURS) journal_obstacle_->result = MEDIAFILES_REFUSED;
            throw *journal_obstacle_;
        }
        for (uint32_t i = 0; i < info_.ranges; ++i) mediafiles_plan_range(plan_.get(), i, &ranges_.emplace_back());
        report_.plan = &info_;
        report_.ranges = ranges_.data();
        report_.result = info_.result;
        report_.reason = info_.reason;
        report_.error = info_.error;
    }

    void apply()
    {
        const bool keep = run_.has(MEDIAFILES_KEEP_JOURNAL) && info_.result != MEDIAFILES_EMPTY_REMOVED;
        const bool removes = report_.journal && info_.journal == MEDIAFILES_JOURNAL_REMOVED && !keep;
        if (!keeps_media() && info_.result != MEDIAFILES_EMPTY_REMOVED && !(is_ours() && removes)) return;
        if (info_.result == MEDIAFILES_FINISHED && faccessat(journal_directory(), ".", W_OK, AT_EACCESS) != 0) return;
        check_writable();
        if (keeps_media()) report_.output = path_.c_str();
        if (!dry()) {
            run_.will_clean(directory_);
            const place journal = {journal_directory(), journal_name_.c_str()};
            apply_in_place(*plan_, {directory_, name_.c_str()}, identity_of(media_.status),
                           journal_.file.is_open() ? &journal : nullptr, keep);
        }
        journal_goes_ = removes;
        if (!keeps_media() || !run_.has(MEDIAFILES_HASH)) return;
        hash_made_ = dry() ? hash_of_result() : hash_of(media_.file, info_.file_size, run_.progress);
        report_.hash_made = hash_made_.c_str();
    }

    /* A dry run says what a real one would meet, and a real one meets it before it writes. */
    void check_writable() const
    {
        if (keeps_media() && faccessat(directory_, name_.c_str(), W_OK, AT_EACCESS) != 0) throw system_failure();
        if (journal_.file.is_open() && faccessat(journal_directory(), ".", W_OK, AT_EACCESS) != 0)
            throw system_failure();
    }

    int journal_directory() const { return journal_directory_.is_open() ? journal_directory_ : directory_; }

    std::string hash_of_result()
    {
        copy_sink sink = {std::nullopt, sha256()};
        write_result(sink);
        return sink.hash->digits();
    }

    void write_result(copy_sink &sink)
    {
        if (mediafiles_apply_to_sink(plan_.get(), copy_sink::write, &sink, progress_meter::call, &run_.progress) == 0)
            return;
        if (errno == ECANCELED) throw stopped;
        if (errno == ESTALE) throw has_changed();
        throw system_failure();
    }

    /* The copy gets its name when it is complete. */
    void copy()
    {
        const std::vector<const char *> way = run_.files.way_to(found_.directory);
        std::string below;
        for (const char *part : way) below.append(part) += '/';
        output_path_ = run_.options.output;
        if (output_path_.back() != '/') output_path_ += '/';
        output_path_ += below;

        try {
            const descriptor directory = open_output(way);
            const bool is_own =
                directory.is_open() && identity_of(status_of(directory)) == identity_of(status_of(directory_));
            const std::string name = is_own ? name_beside(name_) : name_;
            below += name;
            output_path_ += name;
            struct stat status;
            const bool is_there =
                directory.is_open() && fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
            if (is_there || run_.made.contains(below))
                throw obstacle{MEDIAFILES_REFUSED, MEDIAFILES_REASON_EXISTS, EEXIST};
            copy_sink sink;
            if (run_.has(MEDIAFILES_HASH)) sink.hash.emplace();
            if (!dry())
                write_copy(directory, name, sink);
            else if (sink.hash)
                write_result(sink);
            run_.made.insert(below);
            report_.output = output_path_.c_str();
            if (!sink.hash) return;
            hash_made_ = sink.hash->digits();
            report_.hash_made = hash_made_.c_str();
        } catch (const obstacle &) {
            report_.problem_path = output_path_.c_str();
            throw;
        }
    }

    void write_copy(int directory, const std::string &name, copy_sink &sink)
    {
        run_.will_clean(directory);
        temporary_file made(directory, media_.status.st_mode);
        posix_fadvise(media_.file, 0, 0, POSIX_FADV_SEQUENTIAL);
        sink.writer.emplace(made, 0);
        write_result(sink);
        if (sink.writer->flush() != 0) throw system_failure();
        media_.check_unchanged();
        set_modification_time(
            made, time_of_recording(*plan_, media_.status.st_mtim, journal_.status.st_mtim, journal_directory()));
        sync_file(made);
        if (info_.is_protected) remove_write_permission(made);
        made.name(name.c_str());
        if (has_no_log(directory)) sync_file(made); // the entry of that name
        sync_directory(directory);
    }

    /* The directories on the way are made; in a dry run nothing is open where one is missing. */
    descriptor open_output(const std::vector<const char *> &way) const
    {
        descriptor at = open_at(run_.output, ".", O_RDONLY | O_DIRECTORY);
        for (const char *part : way) {
            if (!at.is_open()) break;
            descriptor next = open_at(at, part, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
            if (!next.is_open() && errno == ENOENT) {
                if (dry()) return {};
                if (mkdirat(at, part, S_IRWXU | S_IRWXG | S_IRWXO) != 0 && errno != EEXIST) break;
                sync_directory(at);
                next = open_at(at, part, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
            }
            at = std::move(next);
        }
        if (!at.is_open()) throw system_failure();
        return at;
    }

    /*
     * A journal without its media. One that names no sample is what is left
     * when the removal of an empty recording is cut off: it goes, if certainly
     * nobody writes it.
     *
     * @return false: nothing to report, unless it was asked for
     */
    bool recover_orphan()
    {
        report_.journal = report_.path;
        journal_.open(directory_, journal_name_.c_str(), run_.read_flags(), lease_unknown_);
        std::vector<uint8_t> begin(static_cast<size_t>(std::min<uint64_t>(journal_.size(), looked_at_for_a_journal)));
        const int64_t got = read_at(journal_.file, 0, begin.data(), begin.size());
        if (got < 0) throw system_failure();
        begin.resize(static_cast<size_t>(got));
        const bool is_zeros = begin.size() == journal_.size() && std::ranges::count(begin, 0) == got;
        if (!mediafiles_is_journal(begin.data(), begin.size()) &&
            !((is_zeros || is_cut_off_at_once(begin)) && belongs_to_mp4(journal_name_))) {
            fail({MEDIAFILES_NOT_OURS, MEDIAFILES_REASON_NOT_REGULAR, 0});
            report_.journal = nullptr;
            return found_.given;
        }
        if (!names_samples() && !lease_unknown_ && !run_.output.is_open()) {
            report_.result = MEDIAFILES_EMPTY_REMOVED;
            journal_goes_ = true;
            if (!dry() && unlinkat(directory_, journal_name_.c_str(), 0) != 0) throw system_failure();
            if (!dry()) sync_directory(directory_);
        } else if (is_zeros) {
            return found_.given;
        } else {
            fail({MEDIAFILES_REFUSED, MEDIAFILES_REASON_NO_MEDIA, ENOENT});
        }
        return true;
    }

    /* Also where that is not certain. */
    bool names_samples()
    {
        const mediafiles_source source = journal_.source();
        const mediafiles_source nothing = {nullptr, 0, [](void *, uint64_t, void *, uint32_t) { return int64_t{0}; }};
        plan_.reset(mediafiles_plan_create(&nothing, &source, 0));
        if (!plan_) throw std::bad_alloc();
        info_.size = sizeof info_;
        mediafiles_plan_get(plan_.get(), &info_);
        return info_.result != MEDIAFILES_EMPTY_REMOVED;
    }

    run &run_;
    const find &found_;
    const std::string name_;
    std::string journal_name_;
    const std::string path_;
    std::string journal_path_, output_path_, hash_read_, hash_made_;
    descriptor directory_;
    descriptor journal_directory_; // when it is another one
    claimed_file media_, journal_;
    std::optional<obstacle> journal_obstacle_;
    bool lease_unknown_ = false, journal_goes_ = false;
    plan_ptr plan_ = {nullptr, mediafiles_plan_destroy};
    mediafiles_plan_info info_ = {};
    std::vector<mediafiles_range> ranges_;
    mediafiles_report report_ = {};
};

/* @return the errno of the first path or directory that could not be searched, or 0 */
int recover_all(const char *const *paths, size_t count, const mediafiles_recover_options &options,
                mediafiles_report_callback report, void *context)
{
    run run(options, report, context);
    if (options.output) {
        run.output = open_at(AT_FDCWD, options.output, O_RDONLY | O_DIRECTORY);
        if (!run.output.is_open()) throw system_failure();
    }
    for (size_t i = 0; i < count; ++i) run.files.add(paths[i]);
    const std::vector<find> &finds = run.files.sorted();
    if (options.journal && (finds.size() != 1 || !finds[0].given || !finds[0].media)) throw system_failure(EINVAL);
    for (const find &found : finds) recording(run, found).recover();
    while (!run.to_clean.empty()) run.clean_first();
    return run.files.error();
}

} // namespace

} // namespace mediafiles::recovery

using namespace mediafiles::recovery;

int mediafiles_recover(const char *const *paths, size_t count, const mediafiles_recover_options *options,
                       mediafiles_report_callback report, void *context)
{
    return guarded([=] {
        mediafiles_recover_options given = {};
        if (options) std::memcpy(&given, options, std::min<size_t>(options->size, sizeof given));
        if (!report || (count != 0 && !paths)) throw system_failure(EINVAL);
        const int error = recover_all(paths, count, given, report, context);
        if (error != 0) throw system_failure(error);
    });
}
