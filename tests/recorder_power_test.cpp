/**
 * The proof that a recorder's files survive a power cut. Real recorders record while every sync takes a random time; all
 * that they do to the medium is written down, with what their stats call safe. After each of these steps the power may
 * go: a case is what it can leave. Of what no sync had made durable, units of 512 and 4,096 bytes of a file, or whole
 * files, are lost, zero or junk, the size kept or not; names that were made, changed or removed are as before, all or one
 * alone, until their directory was synced. Then a recovery, or the start of the next recorder, has to find
 * every sample that was safe, and nothing that was not recorded: each file is sound and holds the first samples of each
 * track of the file that the recorder had begun.
 */
#include <map>
#include <random>
#include <set>
#include <unordered_set>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/recovery.h>

#include "support/damage.h"
#include "support/descriptors.h"
#include "support/recorder-harness.h"

namespace fs = std::filesystem;

namespace {

#ifndef CUTS
#define CUTS 4'000
#endif
constexpr uint32_t most_tracks = 3;
constexpr int is_directory = -1;

using samples = std::array<uint64_t, most_tracks>;

/* ---- What a recorder does to the medium ---- */

struct step {
    medium::call what;
    int file = is_directory; // whose bytes change or are synced, or that gets the name
    bytes data = {};
    int64_t at = 0;                 // of data; the size, where the file is cut
    std::string directory = {};     // of the names, or which is synced
    std::string from = {}, to = {}; // paths; empty: none
    size_t since = 0;               // sync: earlier steps are durable
    samples safe = {};              // by the recorder's stats, after the step
};

struct story {
    std::map<std::string, std::pair<int, bytes>> begin; // what is there before the recorder: its number, its bytes
    std::vector<step> steps;
};

/** Writes down what happens below a directory, and has syncs take their time. */
class diary : public medium::watch {
public:
    diary(const card &on, uint32_t seed) : root_(on.path() + "/"), random_(seed)
    {
        for (const std::string &name : on.names()) {
            const int file = open((root_ + name).c_str(), O_RDONLY);
            told.begin[name] = {number_of(file), file_content(file)};
            close(file);
        }
    }

    int64_t carry_out(const medium::operation &what, medium::real_call call) override
    {
        const int error = errno;
        std::unique_lock guard(lock_);
        step made = describe(what);
        if (what.what == medium::syncing) {
            made.since = told.steps.size();
            const auto delay = std::chrono::microseconds(random_() % 4 ? random_() % 2'000 : random_() % 20'000);
            guard.unlock();
            std::this_thread::sleep_for(delay);
        }
        errno = error;
        const int64_t result = call();
        const int after = errno;
        if (!guard) guard.lock();
        if (result >= 0) note(what, std::move(made), result);
        errno = after;
        return result;
    }

    std::atomic<mediafiles_recorder *> recorder = nullptr;
    story told;

private:
    /** A path below the root; the directory itself is "". */
    std::string path_of_file(int file) const
    {
        char link[4096];
        const ssize_t length = readlink(path_of(file).c_str(), link, sizeof link);
        const std::string path = std::string(link, length < 0 ? 0 : size_t(length)) + "/";
        return path.starts_with(root_) && path != root_ ? path.substr(root_.size(), path.size() - root_.size() - 1)
                                                        : "";
    }

    int number_of(int file)
    {
        struct stat status = {};
        fstat(file, &status);
        if (S_ISDIR(status.st_mode)) return is_directory;
        return numbers_.try_emplace(status.st_ino, int(numbers_.size())).first->second;
    }

    step describe(const medium::operation &what)
    {
        step made = {.what = what.what};
        if (!what.name) {
            made.file = number_of(what.file);
            if (made.file == is_directory) made.directory = path_of_file(what.file);
            return made;
        }
        made.directory = path_of_file(what.file);
        const std::string prefix = made.directory.empty() ? "" : made.directory + "/";
        (what.what == medium::opening ? made.to : made.from) = prefix + what.name;
        if (what.to) made.to = prefix + what.to;
        return made;
    }

    void note(const medium::operation &what, step made, int64_t result)
    {
        if (what.what == medium::opening && !what.makes) return;
        if (what.what == medium::opening && !what.is_directory) made.file = number_of(int(result));
        if (what.what == medium::writing) {
            made.at = what.at >= 0 ? what.at : lseek(what.file, 0, SEEK_CUR) - result;
            for (const iovec &piece : what.pieces) {
                const auto *data = static_cast<const uint8_t *>(piece.iov_base);
                made.data.insert(made.data.end(), data, data + piece.iov_len);
            }
            made.data.resize(size_t(result));
        }
        if (what.what == medium::cutting) made.at = what.at;
        if (mediafiles_recorder *const by = recorder) std::copy_n(stats_of(by).safe, most_tracks, made.safe.begin());
        told.steps.push_back(std::move(made));
    }

    const std::string root_;
    std::mutex lock_;
    std::mt19937 random_;
    std::map<ino_t, int> numbers_;
};

/* ---- The medium after each step ---- */

using names = std::map<std::string, int>; // path, file
using files = std::map<std::string, bytes>;
using promise = std::map<std::string, samples>; // of each media file

std::string media_of(const std::string &path)
{
    return path.ends_with(".journal") ? path.substr(0, path.size() - 8) : path;
}

/** Of the recorder's tracks, in their order; in a file they stand in the order in which they began. */
using entries = std::vector<std::string>;

std::vector<mp4::sample> samples_of(const mp4::file &file, const std::string &entry)
{
    const auto found = std::ranges::find(file.tracks, entry, &mp4::track::entry);
    return found == file.tracks.end() ? std::vector<mp4::sample>() : found->samples;
}

class replay {
public:
    explicit replay(const story &of) : steps_(of.steps)
    {
        for (const auto &[name, each] : of.begin) {
            now[name] = each.first;
            contents_[each.first] = {each.second, each.second, {}, name};
        }
        durable = now;
    }

    /** All that such a file will show is safe from the beginning. */
    void promise_all(const std::string &name, const mp4::file &read, const entries &tracks)
    {
        for (uint32_t n = 0; n < tracks.size(); ++n) safe[name][n] = samples_of(read, tracks[n]).size();
    }

    /** Whether a step was left. */
    bool go_on()
    {
        if (at_ == steps_.size()) return false;
        const step &next = steps_[at_];
        note_safe(next);
        if (next.what == medium::syncing && next.file == is_directory) {
            std::erase_if(pending_names, [&](size_t n) {
                const bool is_synced = n < next.since && steps_[n].directory == next.directory;
                if (is_synced) change(durable, steps_[n]);
                return is_synced;
            });
        } else if (next.what == medium::syncing) {
            file &synced = content(next.file);
            std::erase_if(synced.pending, [&](size_t n) {
                if (n < next.since) change(synced.durable, steps_[n]);
                return n < next.since;
            });
            last_synced_ = synced.name;
        } else if (next.what == medium::writing || next.what == medium::cutting) {
            change(content(next.file).now, next);
            content(next.file).pending.push_back(at_);
        } else if (next.what != medium::reserving) {
            if (next.file != is_directory) content(next.file).name = next.to;
            change(now, next);
            if (next.to.empty()) safe.erase(next.from);
            pending_names.push_back(at_);
        }
        ++at_;
        return true;
    }

    /** The names if some of the steps that no sync has made durable are left out; none below a directory that is. */
    names named(const std::set<size_t> &lost) const
    {
        names all = durable;
        for (const size_t n : pending_names)
            if (!lost.contains(n)) change(all, steps_[n]);
        std::erase_if(all, [&](const auto &each) {
            const size_t slash = each.first.rfind('/');
            return slash != each.first.npos && !all.contains(each.first.substr(0, slash));
        });
        return all;
    }

    /** The media files of which something is not settled: what is no part of them a cut does not touch. */
    std::set<std::string> unsettled() const
    {
        std::set<std::string> all;
        for (const names *each : {&now, &durable})
            for (const auto &[path, number] : *each)
                if (number != is_directory && (path.ends_with(".journal") || !content(number).pending.empty()))
                    all.insert(media_of(path));
        for (const size_t n : pending_names) all.insert({media_of(steps_[n].from), media_of(steps_[n].to)});
        return all;
    }

    struct file {
        bytes now, durable;
        std::vector<size_t> pending; // steps
        std::string name;
    };
    file &content(int number) { return contents_[number]; }
    const file &content(int number) const { return contents_.at(number); }
    const std::map<int, file> &contents() const { return contents_; }
    size_t at() const { return at_; }

    names now, durable;
    std::vector<size_t> pending_names;
    promise safe;

private:
    static void change(bytes &of, const step &by)
    {
        if (by.what == medium::cutting)
            of.resize(size_t(by.at));
        else
            overlay(of, size_t(by.at), by.data);
    }
    static void change(names &of, const step &by)
    {
        const auto old = of.find(by.from);
        const int file = old == of.end() ? by.file : old->second;
        if (old != of.end()) of.erase(old);
        if (!by.to.empty() && (by.from.empty() || old != of.end())) of[by.to] = file;
    }

    /* What has become safe is in the file that was synced last. */
    void note_safe(const step &next)
    {
        for (uint32_t track = 0; track < most_tracks; ++track) {
            if (next.safe[track] <= safe_[track]) continue;
            safe[media_of(last_synced_)][track] += next.safe[track] - safe_[track];
            safe_[track] = next.safe[track];
        }
    }

    const std::vector<step> &steps_;
    size_t at_ = 0;
    std::map<int, file> contents_;
    std::string last_synced_;
    samples safe_ = {};
};

/* ---- The judge ---- */

/** A file as the recorder has finished it. */
struct finished {
    bytes content;
    mp4::file read = mp4::read(content);
};
using catalogue = std::map<std::string, finished>;

/** What is wrong with a file after a recovery; "" when nothing is. */
std::string compare(const finished &due, const bytes &content, const samples &safe, const entries &tracks)
{
    const mp4::file got = mp4::read(content);
    for (const mp4::problem &problem : got.problems)
        if (problem.fault) return problem.text;
    for (uint32_t track = 0; track < tracks.size(); ++track) {
        const auto all = samples_of(due.read, tracks[track]), kept = samples_of(got, tracks[track]);
        const std::string what = "track " + std::to_string(track) + ": " + std::to_string(kept.size()) + " samples";
        if (kept.size() < safe[track]) return what + " of " + std::to_string(safe[track]) + " that were safe";
        if (kept.size() > all.size()) return what + " of " + std::to_string(all.size());
        for (size_t n = 0; n < kept.size(); ++n)
            if (kept[n].size != all[n].size || kept[n].time != all[n].time || kept[n].sync != all[n].sync ||
                memcmp(&content[size_t(kept[n].offset)], &due.content[size_t(all[n].offset)], all[n].size) != 0)
                return what + ", another sample " + std::to_string(n);
    }
    return "";
}

struct proof {
    const catalogue &due;
    const mediafiles_recorder_options &options; // of the next recorder, with another directory
    const size_t every;                         // of the cases one in so many
    const entries &tracks;
    size_t cases = 0, offered = 0, recovered = 0;
    std::vector<std::string> failures = {};
    std::set<std::string> said_whole = {}; // by the last recovery
    std::unordered_set<size_t> seen = {};
    std::mt19937 random{1};

    void offer(const std::string &id, const files &left, const promise &safe, bool is_damaged)
    {
        std::string all;
        for (const auto &[name, content] : left) all.append(name).append(content.begin(), content.end()).push_back(0);
        for (const auto &[name, counts] : safe)
            for (const uint64_t count : counts) all += name + std::to_string(count);
        if (!seen.insert(std::hash<std::string>()(all)).second || offered++ % every != 0) return;
        ++cases;
        const bool by_recorder = cases % 40 == 0;
        const std::string wrong = judge(left, safe, is_damaged, by_recorder);
        if (!wrong.empty()) failures.push_back(id + (by_recorder ? ", next recorder: " : ": ") + wrong);
    }

    std::string judge(const files &left, const promise &safe, bool is_damaged, bool by_recorder)
    {
        const card on;
        for (const auto &[name, content] : left) on.put(name, content);
        if (by_recorder) {
            mediafiles_recorder_options next = options;
            next.directory = on.path().c_str();
            const recorder_ptr recorder = {mediafiles_recorder_start(&next)};
            if (!recorder || mediafiles_recorder_stop(recorder, -1) != 0) return strerror(errno);
        } else {
            const char *const path = on.path().c_str();
            said_whole.clear();
            if (mediafiles_recover(&path, 1, nullptr, note, this) != 0) return strerror(errno);
        }
        std::set<std::string> missing;
        for (const auto &[name, counts] : safe)
            if (left.contains(name) || counts != samples{}) missing.insert(name);
        for (const std::string &name : on.names()) {
            const auto counts = safe.find(media_of(name));
            const bool is_promised = counts != safe.end() && counts->second != samples{};
            const bool is_refused = is_damaged && !is_promised && !said_whole.contains(on / name); // and stays as it is
            std::string wrong = "is left";
            if (due.contains(name))
                wrong = compare(due.at(name), on.get(name), is_promised ? counts->second : samples{}, tracks);
            if (!wrong.empty() && !is_refused) return name + ": " + wrong;
            missing.erase(name);
        }
        for (const std::string &name : missing)
            if (safe.at(name) != samples{}) return name + " is missing";
        return "";
    }

    static int note(void *self, const mediafiles_report *found)
    {
        proof &p = *static_cast<proof *>(self);
        p.recovered += found->result == MEDIAFILES_REPAIRED;
        if (found->result <= MEDIAFILES_FINISHED) p.said_whole.insert(found->path);
        return 0;
    }

    /** What a cut after a step can leave. */
    void cut(const std::string &id, const replay &at)
    {
        const std::set<std::string> concerned = at.unsettled();
        const auto is_concerned = [&](const std::string &path) { return concerned.contains(media_of(path)); };
        promise safe;
        for (const auto &each : at.safe)
            if (is_concerned(each.first)) safe.insert(each);
        const auto offer_with = [&](const std::string &how, const names &named, auto content_of,
                                    bool is_damaged = true) {
            files left;
            for (const auto &[path, number] : named)
                if (number != is_directory && is_concerned(path)) left[path] = content_of(number);
            offer(id + how, left, safe, is_damaged);
        };
        const auto now = [&](int number) { return at.content(number).now; };
        const auto old = [&](int number) { return at.content(number).durable; };

        for (size_t n = 0; n <= at.pending_names.size(); ++n) { // all names from one on, or one of them
            const std::set<size_t> later(at.pending_names.begin() + ptrdiff_t(n), at.pending_names.end());
            offer_with(", names from " + std::to_string(n) + " on lost", at.named(later), now, false);
            offer_with(", names from " + std::to_string(n) + " on and what is not durable lost", at.named(later), old,
                       false);
            if (later.empty()) continue;
            offer_with(", name " + std::to_string(n) + " lost", at.named({*later.begin()}), now);
            offer_with(", name " + std::to_string(n) + " and what is not durable lost", at.named({*later.begin()}),
                       old);
        }
        for (const auto &[path, number] : at.now) {
            if (number == is_directory || at.content(number).pending.empty()) continue;
            const bytes &is = at.content(number).now, &was = at.content(number).durable;
            for (const size_t unit : {size_t{512}, size_t{4096}}) {
                const size_t units = (is.size() + unit - 1) / unit, stride = 1 + units / 16;
                for (size_t from = random() % stride; from < units; from += stride)
                    for (const size_t to : {from + 1, units})
                        for (const char *const way : {"lost", "zero", "junk"}) {
                            const bytes bad = damaged(is, was, from * unit, to * unit, way);
                            offer_with(", " + path + " " + way + " " + std::to_string(unit) + " " +
                                           std::to_string(from) + " " + std::to_string(to),
                                       at.now,
                                       [&, number = number](int each) { return each == number ? bad : now(each); });
                        }
            }
        }
        for (int draw = 0; draw < 8; ++draw) draw_one(id, at, offer_with);
    }

    void cut_everywhere(const story &told)
    {
        replay at(told);
        for (const auto &[name, file] : due)
            if (told.begin.contains(name)) at.promise_all(name, file.read, tracks);
        do cut("step " + std::to_string(at.at()), at);
        while (at.go_on());
    }

    /** Any names and any bytes. */
    void draw_one(const std::string &id, const replay &at, auto offer_with)
    {
        std::set<size_t> lost;
        for (const size_t n : at.pending_names)
            if (random() % 2) lost.insert(n);
        offer_with(id + ", drawn", at.named(lost), [&](int number) {
            const bytes &is = at.content(number).now, &was = at.content(number).durable;
            const size_t unit = random() % 2 ? 512 : 4096, units = is.size() / unit + 1;
            const char *const ways[] = {"lost", "zero", "junk"};
            const size_t from = random() % units * unit, to = random() % 2 ? from + unit : is.size();
            return random() % 4 == 0 ? is : damaged(is, was, from, to, ways[random() % 3]);
        });
    }
};

/* ---- Recordings ---- */

stream small(const stream &from, size_t frames, size_t limit, int64_t begin = 0)
{
    stream all = repeated(from, int(1 + frames / from.size()), begin);
    all.resize(frames);
    for (frame &each : all)
        if ((!each.key || each.data[0]) && each.data.size() > limit) each.data.resize(limit);
    return numbered(all);
}

struct recipe {
    const char *what;
    std::vector<source> sources;
    int64_t segment;
    const char *pattern;
    int64_t quota;
    bool goes_on; // beside it a recording is recovered that was interrupted
    size_t least_files;
};

/** In about real time, so that rounds come between frames. */
void record(const recipe &given, mediafiles_recorder_options options, diary *into)
{
    const recorder_ptr recorder = {mediafiles_recorder_start(&options)};
    const auto check = [](bool good, const char *what) {
        if (!good) throw std::runtime_error(what);
    };
    check(recorder, "start");
    if (into) into->recorder = recorder.recorder;
    push_all(recorder, given.sources, 1'000);
    if (!into) return;
    check(mediafiles_recorder_stop(recorder, -1) == 0, "stop");
    into->recorder = nullptr;
    const mediafiles_recorder_stats stats = stats_of(recorder);
    size_t due = 0;
    for (const source &each : given.sources) due += each.frames.size();
    check(stats.frames_in == due && stats.frames_out == due, "frames are missing");
}

/** All that such a recording does. */
story record(const recipe &given, const mediafiles_recorder_options &usual, uint32_t seed)
{
    const card on;
    mediafiles_recorder_options options = usual;
    options.directory = on.path().c_str();
    options.quota_bytes = 0;
    if (given.goes_on) record(given, options, nullptr);
    options.quota_bytes = given.quota;
    diary written(on, seed);
    record(given, options, &written);
    return std::move(written.told);
}

catalogue finished_files(const story &of)
{
    replay all(of);
    while (all.go_on()) {}
    catalogue found;
    for (const auto &[number, file] : all.contents())
        if (file.name.ends_with(".mp4")) found.try_emplace(file.name, finished{file.now});
    for (const auto &[name, file] : found)
        for (const mp4::problem &problem : file.read.problems)
            if (problem.fault) throw std::runtime_error(name + ": " + problem.text);
    return found;
}

std::vector<recipe> recipes()
{
    const stream base = load("h264_base_640x360_25", ".h264"), cra = load("h265_cra_2slices_640x360_30", ".h265"),
                 sound = load("aac_lc_48000_2", ".aac");
    const source camera = {h264(), small(base, 160, 200)},
                 other_camera = {h265(640, 360), small(cra, 190, 100, 30 * millisecond)},
                 microphone = {aac(48000), small(sound, 300, 60)}, alone = {aac(48000), small(sound, 170, 80)};
    return {
        {"a camera", {camera}, 400 * millisecond, nullptr, 0, false, 5},
        {"with sound", {camera, microphone}, 600 * millisecond, nullptr, 0, false, 5},
        {"two cameras", {camera, microphone, other_camera}, 500 * millisecond, "%Y/{number}.mp4", 0, false, 5},
        {"sound alone, beside recoveries", {alone}, 400 * millisecond, nullptr, 0, true, 8},
        {"the oldest go", {camera}, 800 * millisecond, nullptr, 60'000, true, 8},
    };
}

/** @return the cases */
size_t prove(const recipe &given, size_t every, uint32_t seed)
{
    SCOPED_TRACE(given.what);
    std::vector<mp4_track_desc> tracks;
    entries entries_of;
    for (const source &from : given.sources) {
        tracks.push_back(from.track);
        entries_of.push_back(from.track.type == MP4_TRACK_H264   ? "avc1"
                             : from.track.type == MP4_TRACK_H265 ? "hev1"
                                                                 : "mp4a");
    }
    mediafiles_recorder_options options = options_for({}, tracks);
    options.pattern = given.pattern;
    options.sync_ns = 4 * millisecond;
    options.segment_ns = given.segment;
    std::unique_ptr<silence> hush(new silence);
    const story told = record(given, options, seed);
    const catalogue due = finished_files(told);
    proof p = {due, options, every, entries_of};
    p.cut_everywhere(told);
    hush.reset();
    printf("%s: %zu files, %zu steps, %zu cases, %zu repaired\n", given.what, due.size(), told.steps.size(), p.cases,
           p.recovered);
    EXPECT_GE(due.size(), given.least_files);
    EXPECT_EQ(p.failures.size(), 0u);
    for (size_t n = 0; n < std::min<size_t>(5, p.failures.size()); ++n) printf("%s\n", p.failures[n].c_str());
    return p.cases;
}

/* RECORDER_CUTS says how many cases there are at least. */
TEST(RecorderPower, WhatWasSafeSurvivesACut)
{
    const char *const asked = getenv("RECORDER_CUTS");
    const size_t wanted = asked ? std::stoul(asked) : CUTS, every = std::max<size_t>(1, 20'000 / wanted);
    uint32_t seed = uint32_t(testing::UnitTest::GetInstance()->random_seed());
    size_t cases = 0;
    while (cases < wanted && !HasFailure())
        for (const recipe &each : recipes()) cases += prove(each, every, seed++);
    printf("power cuts of a recorder: %zu cases\n", cases);
}

} // namespace
