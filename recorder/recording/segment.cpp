#include "segment.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/recovery.h>
#include <mediafiles/stream.h>
#include <mediafiles/support/io.h>

namespace mediafiles::recorder {

namespace {

using recovery::open_at;
using recovery::sync_directory;
using recovery::system_failure;

constexpr uint32_t write_cache = 64 << 10;
constexpr mode_t directory_mode = 0750;

/* The descriptor of a directory below another, which is made when it is missing. */
descriptor directory_below(int parent, const std::string &name)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
    descriptor found = open_at(parent, name.c_str(), flags);
    if (!found.is_open() && errno == ENOENT) {
        if (mkdirat(parent, name.c_str(), directory_mode) != 0 && errno != EEXIST) throw system_failure();
        sync_directory(parent);
        found = open_at(parent, name.c_str(), flags);
    }
    if (!found.is_open()) throw system_failure();
    return found;
}

descriptor new_file(int directory, const std::string &name, uint32_t mode)
{
    const int number = openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY,
                              static_cast<mode_t>(mode));
    if (number < 0) throw system_failure();
    return descriptor(number);
}

} // namespace

segment::segment(int directory, std::string name, uint64_t number, uint32_t mode)
    : name_(std::move(name)), number_(number)
{
    descriptor at = open_at(directory, ".", O_RDONLY | O_DIRECTORY);
    if (!at.is_open()) throw system_failure();
    size_t begin = 0;
    for (size_t end; (end = name_.find('/', begin)) != name_.npos; begin = end + 1)
        at = directory_below(at, name_.substr(begin, end - begin));
    directory_ = std::move(at);
    media_name_ = name_.substr(begin);
    journal_name_ = media_name_ + ".journal";

    media_ = new_file(directory_, media_name_, mode);
    try {
        /* A recovery that has seen the file in between lets go at once: it is empty. */
        if (flock(media_, LOCK_EX | LOCK_NB) != 0) throw system_failure();
        journal_ = new_file(directory_, journal_name_, mode);
    } catch (...) {
        unlinkat(directory_, media_name_.c_str(), 0);
        throw;
    }
}

int segment::begin(std::unique_ptr<muxer> tracks)
{
    muxer_ = std::move(tracks);
    return muxer_->builder()->open(muxer_->builder(), media_, write_cache, muxer_->journal());
}

int segment::give_set(uint32_t track, uint8_t kind, std::span<const uint8_t> set)
{
    mp4_movie *const movie = muxer_->builder()->movie;
    const auto slot = static_cast<uint32_t>(muxer_->slot(track));
    const auto give = kind == MEMENTO_VPS   ? mp4_movie_set_track_vps
                      : kind == MEMENTO_SPS ? mp4_movie_set_track_sps
                                            : mp4_movie_set_track_pps;
    if (give(movie, slot, set.data(), static_cast<uint32_t>(set.size())) != 0) return -1;

    /* One that is too large for a record is left out: recovery takes it from the track's first sample. */
    if (set.size() > MEMENTO_MAX_SIZE - sizeof(memento)) return 0;
    struct {
        memento header;
        uint8_t payload[MEMENTO_MAX_SIZE - sizeof(memento)];
    } record = {{kind, static_cast<uint8_t>(slot), static_cast<uint16_t>(set.size())}, {}};
    std::ranges::copy(set, record.payload);
    return mediafile_caretaker_add(muxer_->journal(), &record.header);
}

int segment::add(uint32_t track, std::span<const uint8_t> sample, mp4_time time, bool key, int64_t reached)
{
    const mp4_frame frame = {
        .track = muxer_->slot(track),
        .data = sample.data(),
        .len = static_cast<uint32_t>(sample.size()),
        .timestamp = time,
        .key = key,
    };
    if (muxer_->builder()->add_frame(muxer_->builder(), &frame) != 0) return -1;
    has_news_ = true;
    ++counted_.samples[track];
    counted_.reached[track] = reached;
    return 0;
}

int segment::take_round(round &to)
{
    mp4_builder *const builder = muxer_->builder();
    if (builder->flush(builder) != 0) return -1;
    uint32_t count = 0;
    const auto *records = static_cast<const uint8_t *>(mediafile_caretaker_read(muxer_->journal(), &count));
    to.records.clear();
    if (count != 0) {
        to.records.resize(count + size_t{MEDIAFILES_ROUND_MARK_SIZE});
        std::copy_n(records, count, to.records.data());
        mediafiles_round_mark(to.records.data() + count, ++rounds_, bytes(), to.records.data(), count);
    }
    to.samples = counted_.samples;
    to.reached = counted_.reached;
    counted_.samples = {};
    has_news_ = false;
    /* What the journal has not taken is not safe, and nothing after it. */
    if ((errno = mediafile_caretaker_errcode(muxer_->journal())) != 0) return -1;
    return 0;
}

uint64_t segment::bytes() const
{
    mp4_stream *const stream = muxer_->builder()->file_stream;
    return stream->tell(stream);
}

int segment::append_journal()
{
    if (unwritten_.empty()) return 0;
    const ssize_t written = writen(journal_, unwritten_.data(), unwritten_.size());
    const int error = errno;
    if (written > 0) unwritten_.erase(unwritten_.begin(), unwritten_.begin() + written);
    if (!unwritten_.empty()) {
        errno = error;
        return -1;
    }
    return 0;
}

int segment::sync(round &made)
{
    if (fdatasync(media_) != 0) return -1;
    unwritten_.insert(unwritten_.end(), made.records.begin(), made.records.end());
    if (append_journal() != 0 || fdatasync(journal_) != 0) return -1;
    if (is_named_) return 0;
    if (fsync(directory_) != 0 && errno != EINVAL) return -1;
    is_named_ = true;
    return 0;
}

int segment::finish(bool keep_journal)
{
    mp4_builder *const builder = muxer_->builder();
    if (builder->close(builder) != 0 || fdatasync(media_) != 0) return -1;
    struct stat status;
    if (fstat(media_, &status) != 0) return -1;
    size_ = static_cast<uint64_t>(status.st_size);
    if (!keep_journal && unlinkat(directory_, journal_name_.c_str(), 0) != 0) return -1;
    if (fsync(directory_) != 0 && errno != EINVAL) return -1;
    give_up();
    return 0;
}

void segment::give_up()
{
    /* A builder that still has the file would finish it when it is used again. */
    if (muxer_ && muxer_->builder()->file_stream) muxer_.reset();
    media_ = descriptor();
    journal_ = descriptor();
    directory_ = descriptor();
}

} // namespace mediafiles::recorder
