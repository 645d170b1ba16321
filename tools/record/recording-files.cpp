#include "tools/record/recording-files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <mediafiles/caretaker.h>
#include <mediafiles/recovery.h>
#include <mediafiles/support/io.h>

#include "tools/failure.h"
#include "tools/journal-name.h"
#include "tools/open-file.h"

namespace tools {

namespace {

constexpr const char *cannot_record = "cannot record";
constexpr const char *journal_may_be_needed =
    "it exists and may be needed to repair an interrupted recording; --overwrite replaces it";

bool is_same(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

locked_file::locked_file(std::string path, bool overwrite, const char *why_not) : path_(std::move(path))
{
    descriptor_ = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor_ < 0 && errno == EEXIST) {
        if (!overwrite) throw failure(cannot_record, path_, why_not);
        made_ = false;
        descriptor_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    }
    if (descriptor_ < 0) throw failure(cannot_record, path_, errno);

    std::string problem;
    bool others = false;
    if (!S_ISREG(status().st_mode)) {
        problem = "it is not a regular file";
    } else if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        others = errno == EWOULDBLOCK;
        problem = others ? "another process is recording it" : std::strerror(errno);
    } else if (struct stat named; stat(path_.c_str(), &named) != 0 || !is_same(named, status())) {
        others = true; // a repair removes what holds no frame
        problem = "another process has removed it";
    }
    if (problem.empty()) return;
    if (made_ && !others) unlink(path_.c_str()); // a file that another process has locked meanwhile is its own
    close(descriptor_);
    throw failure(cannot_record, path_, problem);
}

locked_file::~locked_file()
{
    if (made_ && !kept_) unlink(path_.c_str());
    close(descriptor_);
}

struct stat locked_file::status() const
{
    struct stat status = {};
    fstat(descriptor_, &status);
    return status;
}

void locked_file::empty()
{
    if (made_) return;
    if (ftruncate(descriptor_, 0) != 0 || fsync(descriptor_) != 0) throw failure(cannot_record, path_, errno);
}

recording_files::recording_files(const std::string &media, const std::optional<std::string> &journal, bool overwrite,
                                 std::span<const struct stat> inputs)
    : media_(media, overwrite, "it exists; --overwrite replaces it")
{
    if (journal) journal_.emplace(*journal, overwrite, journal_may_be_needed);

    if (journal && is_same(media_.status(), journal_->status()))
        throw failure(cannot_record, *journal, "it is the output, too");
    const auto refuse_input = [&](const locked_file &file) {
        const auto is_it = [&](const struct stat &input) { return is_same(file.status(), input); };
        if (std::ranges::any_of(inputs, is_it)) throw failure(cannot_record, file.path(), "it is an input, too");
    };
    refuse_input(media_);
    if (journal) refuse_input(*journal_);

    /* The journal first: an old one must never stand beside new media. */
    const std::string beside = journal_of(media);
    struct stat old;
    if (stat(beside.c_str(), &old) == 0 && !(journal && is_same(journal_->status(), old))) {
        if (!overwrite) throw failure(cannot_record, beside, journal_may_be_needed);
        if (unlink(beside.c_str()) != 0) throw failure(cannot_record, beside, errno);
    }
    if (journal) journal_->empty();
    media_.empty();
    if (journal) sync_directory_of(*journal);
    sync_directory_of(media);
}

void recording_files::keep()
{
    media_.keep();
    if (journal_) journal_->keep();
}

void recording_files::sync_media()
{
    /* The kernel reports a lost write once; what was lost stays lost. */
    if (media_failed_) throw failure("cannot write", media_.path(), EIO);
    if (fdatasync(media_.descriptor()) == 0) return;
    media_failed_ = true;
    throw failure("cannot write", media_.path(), errno);
}

int recording_files::append_journal(std::span<const uint8_t> records)
{
    if (journal_sync_error_ != 0) return journal_sync_error_;
    if (!records.empty()) {
        uint8_t mark[MEDIAFILES_ROUND_MARK_SIZE];
        mediafiles_round_mark(mark, ++rounds_, media_size(), records.data(), records.size());
        unwritten_.insert(unwritten_.end(), records.begin(), records.end());
        unwritten_.insert(unwritten_.end(), mark, mark + sizeof mark);
    }
    if (unwritten_.empty()) return 0;
    const ssize_t written = writen(journal_->descriptor(), unwritten_.data(), unwritten_.size());
    const int error = errno;
    if (written > 0) unwritten_.erase(unwritten_.begin(), unwritten_.begin() + written);
    if (!unwritten_.empty()) return error;
    if (fdatasync(journal_->descriptor()) != 0) journal_sync_error_ = errno;
    return journal_sync_error_;
}

void recording_files::remove_journal()
{
    if (unlink(journal_->path().c_str()) != 0) throw failure("cannot remove", journal_->path(), errno);
}

std::span<const uint8_t> records_within(std::span<const uint8_t> records, uint64_t media_size)
{
    size_t end = 0;
    while (records.size() - end >= sizeof(memento)) {
        memento header;
        std::memcpy(&header, records.data() + end, sizeof header);
        const size_t size = sizeof header + ((header.length + size_t{3}) & ~size_t{3});
        if (records.size() - end < size) break;
        if (header.kind == MEMENTO_SAMPLE) {
            uint32_t place[2]; /* offset, length */
            std::memcpy(place, records.data() + end + sizeof header, sizeof place);
            if (uint64_t{place[0]} + place[1] > media_size) break;
        }
        end += size;
    }
    return records.first(end);
}

} // namespace tools
