#include "segment.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/recovery.h>
#include <mediafiles/stream.h>
#include <mediafiles/support/io.h>

#include "codec.h"
#include "new-files.h"
#include "recovery/journal-marks.h"

namespace mediafiles::recorder {

namespace {

using recovery::open_at;
using recovery::sync_directory;
using recovery::system_failure;

constexpr uint32_t write_cache = 64 << 10;
constexpr mode_t directory_mode = 0750;

/* Bytes that a file takes beside its media. */
constexpr uint64_t header_base = 32 << 10;  // parameter sets of eight tracks among them
constexpr uint64_t journal_base = 16 << 10; // likewise
constexpr uint64_t sample_in_header = 32;   // with a chunk of its own
constexpr uint64_t sample_in_journal = 28;
constexpr pace least_pace = {{64 << 10, 64}};
constexpr uint64_t largest_part = 8; // of the file system, for one file at once

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

/* What was kept beyond the file's end belongs to nobody then. */
int cut_to_size(int file)
{
    struct stat status;
    return fstat(file, &status) == 0 && ftruncate(file, status.st_size) == 0 ? 0 : -1;
}

} // namespace

segment::segment(int directory, std::string name, uint64_t number, uint32_t mode, bool replaces)
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

    new_files made = make_files(directory_, media_name_, mode, replaces);
    media_ = std::move(made.media);
    journal_ = std::move(made.journal);
}

int segment::begin(std::unique_ptr<muxer> tracks, const pace &expected)
{
    muxer_ = std::move(tracks);
    pace_ = {{std::max(expected.bytes, least_pace.bytes), std::max(expected.samples, least_pace.samples)}};
    if (muxer_->builder()->open(muxer_->builder(), media_, write_cache, muxer_->journal()) != 0) return -1;
    return keep_room(bytes());
}

uint64_t segment::header_room(uint64_t samples) const
{
    return header_base + samples * sample_in_header;
}

/* For that much media, and for two rounds after it. */
int segment::keep_room(uint64_t media)
{
    const uint64_t new_samples = samples_ - samples_before_ + 2 * pace_.samples;
    if (journal_room_.keep(journal_, records_ + journal_base + new_samples * sample_in_journal) != 0) return -1;
    return media_room_.keep(media_, media + 2 * pace_.bytes + header_room(samples_ + 2 * pace_.samples));
}

uint64_t segment::keep_whole(const amount &expected, uint64_t left_free)
{
    if (media_room_.is_refused() || !recovery::has_no_log(media_)) return 0;
    const uint64_t media = expected.bytes + header_room(expected.samples);
    const uint64_t journal = journal_base + expected.samples * sample_in_journal;
    if (media > total_bytes(media_) / largest_part) return 0;
    if (free_bytes(media_) >= left_free + media + journal && media_room_.keep(media_, media) == 0)
        journal_room_.keep(journal_, journal);
    return media + journal;
}

segment::room segment::room_for(uint64_t size)
{
    const uint64_t end = bytes() + size, least = end + header_room(samples_ + 1);
    const uint64_t least_journal = records_ + journal_base / 2 + (samples_ - samples_before_ + 1) * sample_in_journal;
    const bool has_least = media_room_.kept() >= least && journal_room_.kept() >= least_journal;
    if (has_least && (is_refused_ || media_room_.kept() - least >= pace_.bytes)) return room::enough;
    is_refused_ = keep_room(end) != 0;
    if (!is_refused_) return room::enough;
    return has_least ? room::little : room::none;
}

uint64_t segment::unkept() const
{
    if (!media_room_.is_refused()) return 0;
    return 2 * pace_.bytes + header_room(samples_ + 2 * pace_.samples) + journal_base +
           (samples_ + 2 * pace_.samples) * sample_in_journal;
}

int segment::give_set(uint32_t track, uint8_t kind, std::span<const uint8_t> set)
{
    mp4_movie *const movie = muxer_->builder()->movie;
    const auto slot = static_cast<uint32_t>(muxer_->slot(track));
    if (recovery::give_parameter_set(movie, slot, kind, set.data(), static_cast<uint32_t>(set.size())) != 0) return -1;

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
    ++samples_;
    ++counted_.samples[track];
    counted_.reached[track] = reached;
    return 0;
}

int segment::protect()
{
    alignas(memento) uint8_t mark[recovery::protection_mark_size];
    recovery::write_protection_mark(mark);
    if (mediafile_caretaker_add(muxer_->journal(), reinterpret_cast<const memento *>(mark)) != 0) return -1;
    is_protected_ = has_news_ = true;
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
        to.records.assign(records, records + count);
        to.records.resize(count + size_t{MEDIAFILES_ROUND_MARK_SIZE});
        mediafiles_round_mark(to.records.data() + count, ++rounds_, bytes(), to.records.data(), count);
    }
    pace_.note(bytes() - bytes_before_, samples_ - samples_before_);
    pace_ = {{std::max(pace_.bytes, least_pace.bytes), std::max(pace_.samples, least_pace.samples)}};
    bytes_before_ = bytes();
    samples_before_ = samples_;
    records_ += to.records.size();
    is_refused_ = false;
    to.samples = counted_.samples;
    to.reached = counted_.reached;
    to.is_protected = is_protected_;
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

int segment::sync_names()
{
    if (fsync(directory_) != 0 && errno != EINVAL) return -1;
    is_named_ = true;
    return 0;
}

/* Before the files are: see recovery::has_no_log. */
int segment::sync_table()
{
    struct stat media, journal;
    if (!recovery::has_no_log(media_)) return 0;
    if (fstat(media_, &media) != 0 || fstat(journal_, &journal) != 0) return -1;
    const blkcnt_t blocks = media.st_blocks + journal.st_blocks;
    if (blocks == synced_blocks_) return 0;
    if (sync_names() != 0) return -1;
    synced_blocks_ = blocks;
    return 0;
}

int segment::sync(round &made, spare_file &spare)
{
    if (sync_table() != 0 || fdatasync(media_) != 0) return -1;
    /* Before the journal names a sample: one that a cut leaves without its media is empty, and recovery removes it. */
    if (!is_named_ && sync_names() != 0) return -1;
    unwritten_.insert(unwritten_.end(), made.records.begin(), made.records.end());
    if (append_journal() != 0 && !(is_want_of_room(errno) && spare.cut() && append_journal() == 0)) return -1;
    return sync_table() == 0 ? fdatasync(journal_) : -1;
}

int segment::finish(bool keep_journal)
{
    mp4_builder *const builder = muxer_->builder();
    if (builder->close(builder) != 0) return -1;
    struct stat status;
    if (fstat(media_, &status) != 0) return -1;
    size_ = static_cast<uint64_t>(status.st_size);
    if (sync_table() != 0 || cut_to_size(media_) != 0 || fdatasync(media_) != 0) return -1;
    if (is_protected_ && recovery::remove_write_permission(media_) != 0) protection_error_ = errno;
    if (keep_journal && cut_to_size(journal_) != 0) return -1;
    if (!keep_journal && unlinkat(directory_, journal_name_.c_str(), 0) != 0) return -1;
    if (sync_names() != 0) return -1;
    give_up();
    return 0;
}

void segment::give_back()
{
    if (media_.is_open()) cut_to_size(media_);
}

void segment::remove()
{
    unlinkat(directory_, journal_name_.c_str(), 0);
    unlinkat(directory_, media_name_.c_str(), 0);
    give_up();
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
