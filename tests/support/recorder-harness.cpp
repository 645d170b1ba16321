#include "recorder-harness.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include <gtest/gtest.h>

#include <mediafiles/recovery.h>

#include "descriptors.h"
#include "places.h"

namespace fs = std::filesystem;

card::card()
{
    const bool memory = access("/dev/shm", W_OK) == 0 && !getenv("TEST_TMPDIR"); // where a sync costs nothing
    path_ = (memory ? "/dev/shm/" : testing::TempDir()) + "card-XXXXXX";
    if (!mkdtemp(path_.data())) std::abort();
}

std::vector<std::string> card::names() const
{
    std::vector<std::string> all;
    for (const auto &each : fs::recursive_directory_iterator(path_))
        if (each.is_regular_file()) all.push_back(each.path().lexically_relative(path_).string());
    std::ranges::sort(all);
    return all;
}

void card::put(const std::string &name, const bytes &content) const
{
    fs::create_directories(fs::path(*this / name).parent_path());
    std::ofstream out(*this / name, std::ios::binary);
    out.write(reinterpret_cast<const char *>(content.data()), std::streamsize(content.size()));
}

bytes card::get(const std::string &name) const
{
    const descriptor file{open((*this / name).c_str(), O_RDONLY)};
    return file_content(file);
}

/* ---- Streams ---- */

stream load(const std::string &name, const std::string &extension)
{
    std::ifstream media(std::string(STREAMS "/") + name + extension, std::ios::binary);
    std::ifstream units(std::string(STREAMS "/") + name + ".units.tsv");
    std::string line;
    getline(units, line);
    stream all;
    while (getline(units, line)) {
        std::istringstream in(line);
        size_t index, offset, length;
        frame next = {};
        in >> index >> offset >> length >> next.time >> next.key;
        next.data.resize(length);
        media.seekg(static_cast<std::streamoff>(offset));
        media.read(reinterpret_cast<char *>(next.data.data()), static_cast<std::streamsize>(length));
        all.push_back(std::move(next));
    }
    EXPECT_FALSE(all.empty());
    return all;
}

stream repeated(const stream &once, int times, int64_t from)
{
    const int64_t length = 2 * once.back().time - once[once.size() - 2].time;
    stream all;
    for (int run = 0; run < times; ++run)
        for (frame each : once) {
            each.time += from + run * length;
            all.push_back(std::move(each));
        }
    return all;
}

stream camera(int groups, size_t key_size, int64_t from)
{
    static const stream real = load("h264_base_640x360_25", ".h264");
    stream all;
    for (int n = 0; n < 10 * groups; ++n) {
        frame each = real[size_t(n % 10)];
        each.time = from + n * 40 * millisecond;
        if (each.key) each.data.resize(key_size, 0x55);
        all.push_back(std::move(each));
    }
    return all;
}

stream numbered(stream all, size_t from)
{
    for (frame &each : all) {
        if (each.data[0] == 0xFF)
            each.data.erase(each.data.begin(), each.data.begin() + 7); // an ADTS header has the length
        for (const size_t byte : {from % 200, from / 200}) each.data.push_back(uint8_t(1 + byte));
        ++from;
    }
    return all;
}

bytes sample_of(const frame &given, bool video)
{
    return video ? sized_units(given.data)
                 : bytes(given.data.begin() + (given.data[0] == 0xFF ? 7 : 0), given.data.end());
}

/* ---- Recordings ---- */

mediafiles_recorder_options options_for(const card &on, const std::vector<mp4_track_desc> &tracks)
{
    mediafiles_recorder_options options = {};
    options.size = sizeof options;
    options.track_count = static_cast<uint32_t>(tracks.size());
    options.tracks = tracks.data();
    options.directory = on.path().c_str();
    options.keep_free_bytes = -1; /* whatever the machine has */
    return options;
}

recorder_ptr start(const card &on, const std::vector<mp4_track_desc> &tracks, const change_of_options &change)
{
    mediafiles_recorder_options options = options_for(on, tracks);
    change(options);
    return {mediafiles_recorder_start(&options)};
}

mediafiles_recorder_stats stats_of(mediafiles_recorder *recorder)
{
    mediafiles_recorder_stats stats = {};
    stats.size = sizeof stats;
    EXPECT_EQ(mediafiles_recorder_get_stats(recorder, &stats), 0);
    return stats;
}

std::map<uint32_t, uint64_t> events_of(mediafiles_recorder *recorder)
{
    std::map<uint32_t, uint64_t> seen;
    mediafiles_recorder_event event = {};
    event.size = sizeof event;
    while (mediafiles_recorder_next_event(recorder, &event, 0) == 1) ++seen[event.kind];
    return seen;
}

void push_all(mediafiles_recorder *recorder, const std::vector<source> &sources, unsigned pause)
{
    std::vector<size_t> next(sources.size());
    for (;;) {
        size_t first = sources.size();
        const auto comes = [&](size_t i) { return sources[i].frames[next[i]].time + sources[i].lag; };
        for (size_t i = 0; i < sources.size(); ++i)
            if (next[i] < sources[i].frames.size() && (first == sources.size() || comes(i) < comes(first))) first = i;
        if (first == sources.size()) return;
        const frame &each = sources[first].frames[next[first]++];
        ASSERT_EQ(0, push(recorder, uint32_t(first), each));
        if (pause != 0) usleep(pause);
        if (stats_of(recorder).queue_used > 4 << 20) /* faster than any camera */
            comes_true([&] { return stats_of(recorder).queue_used < 1 << 20; });
    }
}

/* ---- What was stored ---- */

void recover(const card &on)
{
    const char *const path = on.path().c_str();
    const auto ignore = [](void *, const mediafiles_report *) { return 0; };
    EXPECT_EQ(mediafiles_recover(&path, 1, nullptr, ignore, nullptr), 0) << strerror(errno);
}

played play(const card &on)
{
    played all;
    for (const std::string &name : on.names()) {
        SCOPED_TRACE(name);
        const bytes content = on.get(name);
        mp4::file file = mp4::read(content);
        for (const auto &problem : file.problems) EXPECT_FALSE(problem.fault) << problem.text;
        for (const mp4::track &track : file.tracks) {
            for (const mp4::sample &sample : track.samples) {
                const auto begin = content.begin() + ptrdiff_t(sample.offset);
                if (file.sound()) all.samples[track.id].emplace_back(begin, begin + sample.size);
            }
            EXPECT_TRUE(track.samples.empty() || track.samples[0].sync);
        }
        all.files.push_back(std::move(file));
    }
    return all;
}

void expect_all_samples(const played &all, const std::vector<source> &sources)
{
    for (size_t i = 0; i < sources.size(); ++i) {
        SCOPED_TRACE("track " + std::to_string(i));
        const auto found = all.samples.find(uint32_t(i) + 1);
        ASSERT_NE(found, all.samples.end());
        EXPECT_EQ(found->second.size(), sources[i].frames.size());
        for (size_t n = 0; n < std::min(found->second.size(), sources[i].frames.size()); ++n)
            ASSERT_EQ(found->second[n], sample_of(sources[i].frames[n], sources[i].video())) << "sample " << n;
    }
}

std::set<size_t> found_frames(const std::vector<bytes> &samples, const stream &frames, bool video)
{
    const auto text = [](const bytes &of) { return std::string(of.begin(), of.end()); };
    std::map<std::string, size_t> numbers;
    for (size_t n = 0; n < frames.size(); ++n) numbers[text(sample_of(frames[n], video))] = n;
    std::set<size_t> found;
    for (const bytes &each : samples) {
        const auto number = numbers.find(text(each));
        EXPECT_NE(number, numbers.end()) << "a sample that was not recorded";
        if (number == numbers.end()) continue;
        EXPECT_TRUE(found.empty() || *found.rbegin() < number->second) << "out of order";
        found.insert(number->second);
    }
    return found;
}

void expect_times(const played &all, const std::vector<source> &sources)
{
    const stream &lead = sources[0].frames;
    const auto whole = [](int64_t time) { return std::llround(double(time) / millisecond); };
    std::vector<size_t> next(sources.size());
    int64_t end = whole(lead[0].time);
    for (const mp4::file &file : all.files) {
        const int64_t begin = whole(lead.at(next[0]).time);
        EXPECT_EQ(begin, end);
        end = begin + int64_t(file.tracks.at(0).track_duration);
        for (const mp4::track &track : file.tracks) {
            const source &from = sources[track.id - 1];
            const int64_t tick = from.video() ? 5'557 : second / from.track.audio.sample_rate + 1; // half a tick
            for (size_t n = 0; n < track.samples.size(); ++n) {
                const int64_t captured = from.frames.at(next[track.id - 1]++).time,
                              late = begin * millisecond + begin_of(track, track.samples[n]) - captured;
                EXPECT_TRUE(n == 1 || std::abs(late) <= (n == 0 ? 2 * millisecond : tick) + from.slack)
                    << track.id << ": " << n << " is late by " << late;
            }
        }
    }
    const int64_t last = lead.back().time, due = whole(last + (last - lead[lead.size() - 2].time));
    EXPECT_LE(std::abs(end - due), 1 + sources[0].slack / millisecond * 2);
}

recorded record(const std::vector<source> &sources, const change_of_options &change)
{
    const card on;
    std::vector<mp4_track_desc> tracks;
    for (const source &each : sources) tracks.push_back(each.track);
    const recorder_ptr recorder = start(on, tracks, change);
    EXPECT_TRUE(recorder) << strerror(errno);
    push_all(recorder, sources);
    EXPECT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    return {play(on), stats_of(recorder), events_of(recorder)};
}
