#include "tools/repair/repair.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <span>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tools/failure.h"
#include "tools/journal.h"
#include "tools/open-file.h"
#include "tools/reader/reader.h"

namespace tools {

namespace {

constexpr const char *cannot_repair = "cannot repair";
constexpr uint64_t head_size = 32; // ftyp and the header of mdat
constexpr size_t copied_at_once = 1 << 20;

/* A reason to leave the files alone. */
struct refusal : failure {
    refusal(const std::string &file, const std::string &why) : failure(cannot_repair, file, why) {}
};

/* A file in memory that the library can open. */
class memory_file : public open_file {
public:
    explicit memory_file(std::span<const uint8_t> data)
        : open_file(cannot_repair, memfd_create("journal", MFD_CLOEXEC), "memory")
    {
        write(data);
    }
    std::string name() const { return "/proc/self/fd/" + std::to_string(*this); }
};

uint32_t be32(const uint8_t *from)
{
    return uint32_t{from[0]} << 24 | uint32_t{from[1]} << 16 | uint32_t{from[2]} << 8 | from[3];
}

bool is_type(const uint8_t *box, const char *type)
{
    return std::equal(type, type + 4, box + 4);
}

/* Whether whole boxes reach from the beginning to the end, moov among them. */
bool has_moov(const open_file &file, uint64_t size)
{
    bool found = false;
    for (uint64_t at = 0; at < size;) {
        uint8_t header[16] = {};
        if (!file.read(at, std::span(header).first(std::min<uint64_t>(sizeof header, size - at)))) return false;
        uint64_t length = be32(header);
        if (length == 1) length = uint64_t{be32(header + 8)} << 32 | be32(header + 12);
        if (length < 8 || length > size - at) return false;
        found = found || is_type(header, "moov");
        at += length;
    }
    return found;
}

bool is_video(const mp4_track_desc &track)
{
    return (track.type & ~MP4_TRACK_RAW) != MP4_TRACK_AAC;
}

bool is_key_unit(uint8_t header, const mp4_track_desc &track)
{
    if ((track.type & ~MP4_TRACK_RAW) == MP4_TRACK_H264) return (header & 0x1F) == 5; // IDR
    const int type = header >> 1 & 0x3F;
    return type >= 16 && type <= 23; // IRAP
}

/**
 * Walks the NAL units of a sample by their length prefixes, as far as they lie
 * below the limit.
 *
 * @return false when the prefixes do not add up to the sample
 */
template <class Visit>
bool walk_units(const open_file &media, const journal_sample &sample, uint64_t limit, Visit visit)
{
    uint64_t at = sample.offset;
    while (at < sample.end()) {
        uint8_t start[5]; // prefix and the first byte of the unit
        if (at + sizeof start > limit) return true;
        if (sample.end() - at < sizeof start || !media.read(at, start)) return false;
        const uint32_t length = be32(start);
        if (length == 0 || length > sample.end() - at - 4) return false;
        visit(start[4]);
        at += 4 + uint64_t{length};
    }
    return true;
}

std::optional<bool> key_in(const open_file &media, uint64_t size, const journal_sample &sample,
                           const mp4_track_desc &track)
{
    if (!is_video(track) || sample.end() > size) return {};
    bool key = false;
    return walk_units(media, sample, size, [&](uint8_t header) { key = key || is_key_unit(header, track); })
               ? std::optional(key)
               : std::nullopt;
}

/* Whether every byte of media belongs to a sample. */
bool covers_media(const mp4::file &file)
{
    uint64_t media = 0, samples = 0;
    for (const mp4::range &payload : file.mdat) media += payload.end - payload.begin;
    for (const mp4::track &track : file.tracks)
        for (const mp4::sample &sample : track.samples) samples += sample.size;
    return samples == media;
}

/* Whether the journal is that of a finished file: the file holds all samples that it names. */
bool names_samples_of(const mp4::file &file, const journal &journal)
{
    if (journal.samples.empty() || file.tracks.size() < journal.tracks.size()) return false;
    std::vector<size_t> next(file.tracks.size());
    return std::ranges::all_of(journal.samples, [&](const journal_sample &sample) {
        const auto &samples = file.tracks[sample.track].samples;
        const size_t index = next[sample.track]++;
        return index < samples.size() && samples[index].offset == sample.offset && samples[index].size == sample.size;
    });
}

/* Whether the file holds the parameter sets of the journal. */
bool has_parameter_sets(const mp4::file &file, const journal &journal)
{
    return std::ranges::all_of(journal.parameter_sets, [&](const parameter_set &wanted) {
        const auto in = [&](const std::vector<mp4::bytes> &sets) { return std::ranges::count(sets, wanted.unit) != 0; };
        const mp4::track &track = file.tracks[wanted.track];
        if (track.avc) return in(track.avc->sps) || in(track.avc->pps);
        return track.hevc && std::ranges::any_of(track.hevc->arrays, [&](const auto &each) { return in(each.units); });
    });
}

/* What a repair will use. */
struct plan {
    std::vector<uint8_t> records; // the new journal, its mark left out
    repair_mark mark;
    uint64_t end; // of the last sample, in the media
    uint64_t cut; // bytes of media after it
};

class repair_job {
public:
    repair_job(const std::string &path, const repair_options &options, repair_report &report, console &console)
        : options_(options), report_(report), console_(console), media_(cannot_repair, path, O_RDONLY)
    {
        size_ = media_.size();
        media_.lock();
    }

    void repair()
    {
        const bool complete = has_moov(media_, size_);
        if (!open_journal()) {
            if (complete) return finished();
            throw refusal(media_.path(), "it was cut off, and there is no journal " + journal_path_ +
                                             " that lists its frames; --journal names another");
        }
        if (complete && journal_.mark && journal_.mark->completed) return finished();
        bool sound = false;
        if (complete && !journal_.mark) {
            const mp4::file file = mp4::read(media_.path());
            sound = file.sound();
            /*
             * A moov that has lost a piece to a power cut can look sound: then tables do not cover the media, or the
             * parameter sets are not those of the journal.
             */
            const bool whole = covers_media(file)
                                   ? !names_samples_of(file, journal_) || has_parameter_sets(file, journal_)
                                   : !names_video();
            if (sound && whole) return finished();
        }
        try {
            carry_out(planned());
        } catch (const refusal &) {
            if (!sound) throw;
            finished();
        }
    }

private:
    void finished() { report_.result = repair_result::finished; }

    bool names_video() const
    {
        return std::ranges::any_of(
            journal_.samples, [&](const journal_sample &sample) { return is_video(journal_.tracks[sample.track]); });
    }

    [[noreturn]] void refuse_journal(const std::string &why) const { throw refusal(journal_path_, why); }

    /* false: there is none. */
    bool open_journal()
    {
        journal_path_ = options_.journal.value_or(journal_of(media_.path()));
        const int descriptor = open(journal_path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (descriptor < 0 && errno == ENOENT && !options_.journal) return false;
        file_.emplace(cannot_repair, descriptor, journal_path_);
        report_.journal = journal_path_;
        report_.journal_kept = true;
        const uint64_t size = file_->size();
        file_->lock();
        if (size > largest_journal) refuse_journal("it is too large for a journal");
        data_.resize(size);
        if (!file_->read(0, data_)) refuse_journal("it became shorter while it was read");
        journal_ = parse_journal(data_, [&](const journal_sample &sample, const mp4_track_desc &track) {
            return key_in(media_, size_, sample, track);
        });
        report_.journal_lost = journal_.lost;
        report_.journal_damage = journal_.damage;
        return true;
    }

    void check_journal() const
    {
        if (data_.empty()) refuse_journal("it is empty: it lists no frames");
        if (!journal_.damage.empty() && (!options_.salvage || journal_.samples.empty()))
            refuse_journal("it is damaged at byte " + std::to_string(journal_.end) + " of " +
                           std::to_string(data_.size()) + " (" + journal_.damage + ")" +
                           (journal_.samples.empty() ? ", and names no frame before that"
                                                     : "; --salvage uses what stands before that"));
    }

    void check_head() const
    {
        uint8_t head[head_size];
        if (size_ > UINT32_MAX) throw refusal(media_.path(), "it is too large for a recording");
        if (size_ < sizeof head || !media_.read(0, head) || be32(head) != 24 || !is_type(head, "ftyp") ||
            !is_type(head + 24, "mdat"))
            throw refusal(media_.path(), "it does not begin as a recording does");
    }

    void check_samples(std::span<const journal_sample> samples, uint64_t limit)
    {
        for (const journal_sample &sample : samples) {
            if (!is_video(journal_.tracks[sample.track])) continue;
            if (!walk_units(media_, sample, limit, [](uint8_t) {}))
                throw refusal(media_.path(), "at byte " + std::to_string(sample.offset) +
                                                 " there is not the frame that the journal names: the media is "
                                                 "damaged or the journal is of another recording; --journal names "
                                                 "another");
            if (console_.wants_progress())
                console_.progress("checking " + media_.path() + ": " +
                                  std::to_string(uint64_t{sample.offset} * 100 / samples.back().end()) + " %");
        }
    }

    /* How many samples stand before the one that ends mp4_fix2's replay. */
    size_t without_last_frame(std::span<const journal_sample> samples) const
    {
        const auto is_frame = [](const journal_sample &sample) { return sample.track == 0; };
        const auto last = std::find_if(samples.rbegin(), samples.rend(), is_frame);
        if (std::ranges::count_if(samples, is_frame) < 2)
            throw refusal(media_.path(),
                          "fewer than two frames of video reached it; without --drop-last-frame they are kept");
        const auto stop = std::ranges::find(samples, last->time, &journal_sample::time);
        if (stop == samples.begin())
            throw refusal(media_.path(), "nothing would be left; without --drop-last-frame all is kept");
        return static_cast<size_t>(stop - samples.begin());
    }

    plan planned()
    {
        check_journal();
        check_head();
        std::span<const journal_sample> samples = journal_.samples;
        if (samples.empty()) refuse_journal("it names no frame");

        /* A repair that was begun may have cut the media, and lengthened it with zeros and with a moov. */
        const auto &mark = journal_.mark;
        const bool begun = mark && size_ >= std::min<uint64_t>(mark->media_size, samples.back().end());
        const uint64_t limit = begun ? mark->media_size : size_;
        const auto outside = std::ranges::partition_point(samples, [&](auto &sample) { return sample.offset < limit; });
        samples = samples.first(static_cast<size_t>(outside - samples.begin()));
        if (samples.empty()) refuse_journal("none of its frames lies in " + media_.path());
        check_samples(samples, limit);

        const bool drop = options_.drop_last_frame && !(begun && mark->dropped_frame);
        if (drop) samples = samples.first(without_last_frame(samples));

        plan plan = {};
        plan.end = samples.back().end();
        plan.cut = limit > plan.end ? limit - plan.end : 0;
        const bool ask = !options_.force && (drop || !begun);
        const uint64_t present = limit - head_size, missing = plan.end > limit ? plan.end - limit : 0;
        if (ask && plan.cut > present / 2)
            throw refusal(media_.path(), std::to_string(plan.cut) + " of its " + std::to_string(present) +
                                             " bytes of media would be cut off; --force does it");
        if (ask && missing > present)
            throw refusal(media_.path(), "it would grow from " + std::to_string(present) + " bytes of media by " +
                                             std::to_string(missing) + " that its last frame lacks; --force does it");
        plan.records.assign(data_.begin(), data_.begin() + static_cast<ptrdiff_t>(samples.back().record_end));
        plan.mark = {static_cast<uint32_t>(limit), drop || (begun && mark->dropped_frame), false};
        replay(plan);
        report_.cut = plan.cut;
        return plan;
    }

    /* Lets the library replay the new journal, without a file. */
    void replay(const plan &plan)
    {
        const memory_file journal(plan.records);
        if (mp4_fix(nullptr, journal.name().c_str(), nullptr, &report_.info) != 0)
            refuse_journal(std::string("it cannot be replayed: ") + std::strerror(errno));
        if (report_.info.fileSize < plan.end)
            throw refusal(media_.path(), "the repaired file would be larger than 4 GiB");
    }

    void write_journal(const std::string &path, const plan &plan, bool completed) const
    {
        const std::string temporary = path + ".new";
        repair_mark mark = plan.mark;
        mark.completed = completed;
        const open_file file(cannot_repair, temporary, O_WRONLY | O_CREAT | O_TRUNC, 0666);
        file.write(plan.records);
        file.write(mark_record(mark));
        if (fsync(file) != 0) throw failure("cannot write", temporary, errno);
        if (std::rename(temporary.c_str(), path.c_str()) != 0) throw failure("cannot write", path, errno);
        sync_directory_of(path);
    }

    void fix(const std::string &media, const std::string &journal)
    {
        if (mp4_fix(media.c_str(), journal.c_str(), nullptr, &report_.info) != 0)
            throw failure(cannot_repair, media, std::string(std::strerror(errno)) + "; it can be repeated");
    }

    void carry_out(const plan &plan)
    {
        if (options_.output)
            repair_copy(plan);
        else
            repair_in_place(plan);
        report_.result = repair_result::repaired;
    }

    void repair_in_place(const plan &plan)
    {
        report_.output = media_.path();
        if (options_.dry_run) return;
        if (access(media_.path().c_str(), W_OK) != 0) throw failure("cannot write", media_.path(), errno);
        report_.result = repair_result::failed;
        write_journal(journal_path_, plan, false);
        fix(media_.path(), journal_path_);
        sync_directory_of(media_.path());
        if (options_.keep_journal) return write_journal(journal_path_, plan, true);
        if (unlink(journal_path_.c_str()) != 0) throw failure("cannot remove", journal_path_, errno);
        report_.journal_kept = false;
    }

    /* The copy gets its name when it is complete; an incomplete one is overwritten the next time. */
    void repair_copy(const plan &plan)
    {
        const std::string name = *options_.output / std::filesystem::path(media_.path()).filename();
        const std::string temporary = name + ".new";
        if (access(name.c_str(), F_OK) == 0) throw refusal(media_.path(), name + " exists");
        report_.output = name;
        if (options_.dry_run) return;
        report_.result = repair_result::failed;
        try {
            copy_media(temporary, std::min(size_, plan.end));
            fix(temporary, memory_file(plan.records).name());
            if (std::rename(temporary.c_str(), name.c_str()) != 0) throw failure("cannot write", name, errno);
        } catch (...) {
            unlink(temporary.c_str());
            throw;
        }
        sync_directory_of(name);
    }

    void copy_media(const std::string &to, uint64_t size)
    {
        const open_file copy(cannot_repair, to, O_WRONLY | O_CREAT | O_TRUNC, 0666);
        std::vector<uint8_t> buffer(std::min<uint64_t>(size, copied_at_once));
        for (uint64_t at = 0; at < size; at += buffer.size()) {
            const auto part = std::span(buffer).first(std::min<uint64_t>(buffer.size(), size - at));
            if (!media_.read(at, part)) throw failure("cannot read", media_.path(), "it became shorter");
            copy.write(part);
            if (console_.wants_progress())
                console_.progress("copying " + media_.path() + ": " + std::to_string(at * 100 / size) + " %");
        }
    }

    const repair_options &options_;
    repair_report &report_;
    console &console_;
    open_file media_;
    uint64_t size_;
    std::string journal_path_;
    std::optional<open_file> file_; // of the journal, held for its lock
    std::vector<uint8_t> data_;     // its bytes
    journal journal_;
};

} // namespace

repair_report repair(const std::string &media, const repair_options &options, console &console)
{
    repair_report report = {.path = media};
    try {
        repair_job(media, options, report, console).repair();
    } catch (const failure &cause) {
        report.problem = cause.what();
        report.output.reset();
    }
    return report;
}

} // namespace tools
