/** The recorder: nothing is lost between files, nothing that was safe is lost with the power, no caller waits for a card. */
#include <random>
#include <thread>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/recorder-harness.h"

namespace {

TEST(Recorder, LosesNothingBetweenFiles)
{
    const stream base = load("h264_base_640x360_25", ".h264"),
                 slices = load("h264_high_aud_4slices_640x360_30", ".h264"),
                 hevc = load("h265_aud_sei_640x360_25", ".h265"), cra = load("h265_cra_2slices_640x360_30", ".h265"),
                 sound = load("aac_lc_48000_2", ".aac"), other = load("aac_voaac_44100_2", ".aac");
    const int64_t late = 3'600 * second + 123'456'789; // a clock does not begin at 0
    std::mt19937 random(3);
    const auto paced = [&](stream all, double rate, int64_t jitter) { // nanoseconds, to both sides
        for (size_t n = 0; n < all.size(); ++n)
            all[n].time = -5 * second + 123'456 + int64_t(double(n) / rate * second) +
                          int64_t(random() % uint64_t(2 * jitter + 1)) - jitter;
        return all;
    };
    const struct {
        const char *what;
        std::vector<source> sources;
        int64_t segment;
        size_t files;
    } cases[] = {
        {"one file", {{h264(), base}}, 0, 1},
        {"a file each second", {{h264(), base}}, second, 4},
        {"29.97 a second, with jitter",
         {{h264(), paced(camera(120, 2'000), 30 / 1.001, 2 * millisecond)},
          {aac(48000), paced(repeated(sound, 8), 46.875, millisecond / 3), 0, millisecond}},
         600 * millisecond,
         60},
        {"a second",
         {{h264(), paced(camera(4, 2'000), 1, 0)}, {aac(48000), paced(repeated(sound, 8), 46.875, 0)}},
         7 * second,
         4},
        {"as they come", {{h264(), paced(camera(20, 2'000), 5, 90 * millisecond)}}, 3 * second, 10},
        {"60 a second", {{h264(), paced(camera(360, 2'000), 60, 3 * millisecond)}}, 0, 1},
        {"one in ten minutes, for eight days", {{h264(), paced(camera(120, 2'000), 1. / 600, second)}}, 0, 1},
        {"a rate that is no whole number", {{aac(44100), paced(repeated(other, 40), 44100 / 1024., 0)}}, 0, 1},
        {"in bursts", {{aac(48000), paced(repeated(sound, 20), 46.875, 10 * millisecond), 0, 11 * millisecond}}, 0, 1},
        {"an odd length, with sound",
         {{h264(), repeated(base, 3, late)}, {aac(48000), repeated(sound, 2, late)}},
         1'700 * millisecond,
         6},
        {"pictures of 8 MB", {{h264(), camera(2, 8'000'000)}}, 0, 1},
        {"four slices", {{h264(), repeated(slices, 2)}, {aac(48000), sound}}, second, 6},
        {"H.265", {{h265(0, 0), repeated(hevc, 2)}, {aac(48000), sound}}, second, 8},
        {"open groups", {{h265(0, 0), repeated(cra, 2)}}, 2 * second, 3},
        {"sound alone", {{aac(48000), repeated(sound, 4)}}, 1'500 * millisecond, 14},
        {"two cameras",
         {{h264(), repeated(base, 2)}, {aac(48000), sound}, {h265(640, 360), repeated(cra, 2, 300 * millisecond)}},
         second,
         8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        recorded made = record(c.sources, [&](auto &o) {
            o.segment_ns = c.segment;
            o.sync_ns = 60 * second;
            o.longest_gap_ns = -1;
        });
        EXPECT_EQ(made.all.files.size(), c.files);
        expect_all_samples(made.all, c.sources);
        expect_times(made.all, c.sources);
        EXPECT_EQ(made.stats.frames_dropped + made.stats.frames_refused, 0u);
        EXPECT_EQ(made.stats.files, c.files);
        for (size_t i = 0; i < c.sources.size(); ++i) EXPECT_EQ(made.stats.safe[i], c.sources[i].frames.size()) << i;
        EXPECT_EQ(made.events[MEDIAFILES_EVENT_FINISHED], c.files);
    }
}

TEST(Recorder, ANewFileBeginsWhereItMust)
{
    const stream base = load("h264_base_640x360_25", ".h264");
    const stream other = load("ext_MPS_MW_A_176x144_30", ".h264"); /* other parameter sets of the same numbers */
    const auto after = [](stream first, const stream &then, int64_t gap) {
        const int64_t from = first.back().time + gap - then[0].time;
        for (frame each : then) {
            each.time += from;
            first.push_back(std::move(each));
        }
        return first;
    };
    stream back = base, coarse = base, without_key = camera(4, 5'000), seven_hours_on = camera(1, 5'000),
           told = camera(4, 5'000), named = camera(5, 5'000);
    told[20].flags = MEDIAFILES_DISC;
    for (size_t n = 10; n < named.size(); n += 10) named[n].data = named[n + 1].data, named[n].flags = MEDIAFILES_KEY;
    named[20].time -= 5 * millisecond; // a file must not become longer by a group
    for (size_t n = 1; n < coarse.size(); n += 2) coarse[n].time = coarse[n - 1].time;
    std::erase_if(without_key, [](const frame &each) { return each.key && each.time != 0; });
    for (size_t n = 5; n < back.size(); n += 10) back[n].time -= 50 * millisecond;
    for (const frame &each : camera(2, 5'000, 7 * 3600 * second))
        if (!each.key || each.time > 7 * 3600 * second) seven_hours_on.push_back(each);
    const change_of_options usual = [](auto &) {};
    const std::tuple<const char *, stream, change_of_options, size_t, size_t, size_t, size_t, double> cases[] = {
        // files, events of the clock, key frames that were asked for, frames that are lost, seconds of all files
        {"a second back", after(base, base, -second), usual, 2, 1, 0, 0, 8},
        {"less than a frame back, again and again", back, usual, 4, 10, 4, 0, 4},
        {"54 years on", after(base, base, 54LL * 365 * 86400 * second), usual, 2, 1, 0, 0, 8},
        {"from zero again", after(repeated(base, 1, 90'000 * second), base, -90'000 * second), usual, 2, 1, 0, 0, 8},
        {"a clock that is too coarse", coarse, usual, 1, 0, 0, 0, 4},
        {"where its caller says so", told, usual, 2, 1, 0, 0, 1.6},
        {"by its length, at key frames that its caller has named", named,
         [](auto &o) { o.segment_ns = 800 * millisecond; }, 3, 0, 0, 0, 2},
        {"joined on", after(base, base, -second), [](auto &o) { o.flags = MEDIAFILES_JOIN_STEPS; }, 1, 1, 0, 0, 8},
        {"an hour on", after(base, base, 3600 * second), usual, 2, 1, 0, 0, 8},
        {"an hour in a file", after(base, base, 3600 * second), [](auto &o) { o.longest_gap_ns = -1; }, 1, 0, 0, 0,
         3608},
        {"a gap that is not too long", after(base, base, 5 * second), usual, 1, 0, 0, 0, 13},
        {"other parameter sets", after(base, other, 40 * millisecond), usual, 2, 0, 0, 0, 9},
        {"by its length", camera(4, 5'000), [](auto &o) { o.segment_ns = 800 * millisecond; }, 2, 0, 0, 0, 1.6},
        {"by its size", camera(4, 50'000), [](auto &o) { o.segment_bytes = 60'000; }, 4, 0, 4, 0, 1.6},
        {"no key frame comes", without_key, [](auto &o) { o.segment_ns = 400 * millisecond; }, 1, 0, 1, 0, 1.6},
        {"longer than a sample can last", seven_hours_on, [](auto &o) { o.longest_gap_ns = -1; }, 2, 0, 1, 9, 0.8},
    };
    for (const auto &[what, video, change, files, clocks, wanted, lost, seconds] : cases) {
        SCOPED_TRACE(what);
        recorded made = record({{h264(), video}}, change);
        EXPECT_EQ(made.all.files.size(), files);
        if (lost == 0) expect_all_samples(made.all, {{h264(), video}});
        EXPECT_EQ(made.all.samples.at(1).size(), video.size() - lost);
        EXPECT_EQ(made.stats.frames_dropped + made.stats.frames_refused, lost);
        EXPECT_EQ(made.events[MEDIAFILES_EVENT_CLOCK], clocks);
        EXPECT_EQ(made.events[MEDIAFILES_EVENT_KEY_WANTED], wanted);
        double length = 0;
        for (const mp4::file &file : made.all.files) length += double(file.duration);
        EXPECT_NEAR(length, seconds * 1000, 100);
    }
}

/** The file before stays open for it, at most as long as a gap may be. */
TEST(Recorder, ACameraWithoutKeyFramesLeavesTheFileBefore)
{
    for (const bool has_key : {true, false}) {
        SCOPED_TRACE(has_key);
        stream other = camera(10, 5'000);
        std::erase_if(other, [&](const frame &each) {
            return each.key && each.time != 0 && !(has_key && each.time == second + 200 * millisecond);
        });
        const recorded made = record({{h264(), camera(10, 5'000)}, {h264(), other}}, [](auto &given) {
            given.longest_gap_ns = 2 * second;
            given.segment_ns = 400 * millisecond;
        });
        ASSERT_EQ(made.all.files.size(), 10u);
        EXPECT_EQ(made.all.samples.at(1).size(), 100u);
        EXPECT_NEAR(double(made.all.files[0].tracks[1].samples.size()), has_key ? 28 : 55, 2);
        EXPECT_EQ(made.all.samples.at(2).size() + made.stats.frames_dropped, other.size());
    }
}

/** Whenever it arrives. The next file is there before the one before it is finished. */
TEST(Recorder, SoundGoesToTheFileOfItsTime)
{
    for (const int64_t lag : {-second, second, 3 * second}) {
        SCOPED_TRACE(lag);
        const std::vector<source> sources = {{h264(), repeated(load("h264_base_640x360_25", ".h264"), 2)},
                                             {aac(48000), repeated(load("aac_lc_48000_2", ".aac"), 2), lag}};
        const card on;
        const recorder_ptr recorder = start(on, {h264(), aac(48000)}, [](auto &o) { o.segment_ns = second; });
        push_all(recorder, sources);
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
        const played all = play(on);
        expect_all_samples(all, sources);
        for (size_t i = 0; i + 1 < all.files.size(); ++i)
            EXPECT_EQ(all.files[i].tracks[1].track_duration, all.files[i].duration) << i;
        mediafiles_recorder_event event = {};
        event.size = sizeof event;
        int begun = 0;
        while (mediafiles_recorder_next_event(recorder, &event, 0) == 1 && event.kind != MEDIAFILES_EVENT_FINISHED)
            begun += event.kind == MEDIAFILES_EVENT_BEGUN;
        EXPECT_GE(begun, 2);
    }
}

TEST(Recorder, SoundBeforeTheFirstPictureIsRefused)
{
    stream sound = load("aac_lc_48000_2", ".aac");
    sound.resize(20);
    const recorded made = record({{h264(), camera(1, 5'000, second)}, {aac(48000), sound}}, [](auto &) {});
    EXPECT_EQ(std::pair(made.stats.frames_refused, made.stats.frames_dropped), std::pair(uint64_t{20}, uint64_t{0}));
}

/** Frames that nobody follows are safe after the time between two rounds; what was assumed of their length is made up. */
TEST(Recorder, WhatIsHeldBackBecomesSafeWithoutASuccessor)
{
    const card on;
    const recorder_ptr recorder = start(on, {h264()}, [](auto &o) { o.sync_ns = 20 * millisecond; });
    const auto is_safe = [&](uint64_t count) {
        return comes_true([&] { return stats_of(recorder).safe[0] == count; });
    };
    stream video = camera(2, 5'000);
    for (size_t n = 10; n < video.size(); ++n) video[n].time += second;
    syncs.close();
    push_all(recorder, {{h264(), {video.begin(), video.begin() + 10}}});
    EXPECT_EQ(stats_of(recorder).unsafe_ns, video[9].time - video[0].time);
    syncs.open();
    EXPECT_TRUE(is_safe(10));
    EXPECT_EQ(stats_of(recorder).unsafe_ns, 0);
    push_all(recorder, {{h264(), {video.begin() + 10, video.end()}}});
    EXPECT_TRUE(is_safe(20));
    EXPECT_EQ(stats_of(recorder).made_up_ns, second);
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    const played all = play(on);
    ASSERT_EQ(all.files.size(), 1u);
    EXPECT_EQ(all.files[0].tracks[0].samples[9].time, 9u * 3600);
    EXPECT_EQ(all.files[0].tracks[0].samples[11].time, 11u * 3600 + 90'000);
    EXPECT_NEAR(double(all.files[0].duration), 1'800, 1);
}

/** The journal has no place for it: the first sample of the file has it, too. */
TEST(Recorder, ALargeParameterSetSurvivesAKill)
{
    for (const size_t size : {508u, 509u, 1'000u}) {
        SCOPED_TRACE(size);
        stream video = camera(1, 5'000);
        const bytes code = {0, 0, 0, 1};
        bytes &first = video[0].data;
        const auto end_of_sps = std::search(first.begin() + 4, first.end(), code.begin(), code.end());
        first.insert(end_of_sps, size - size_t(end_of_sps - first.begin() - 4), 0x55);
        const card on, after_cut;
        const recorder_ptr recorder = start(on, {h264()}, [](auto &o) { o.sync_ns = 5 * millisecond; });
        push_all(recorder, {{h264(), video}});
        ASSERT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] == 10; }));
        std::filesystem::copy(on.path(), after_cut.path());
        const recorder_ptr next = start(after_cut, {h264()});
        ASSERT_EQ(mediafiles_recorder_stop(next, -1), 0);
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
        for (const card *const each : {&on, &after_cut}) {
            const played all = play(*each);
            ASSERT_EQ(all.files.size(), 1u);
            expect_all_samples(all, {{h264(), video}});
            EXPECT_EQ(all.files[0].tracks[0].avc->sps.at(0).size(), size);
        }
    }
}

TEST(Recorder, RefusesWhatItCannotStore)
{
    const card on;
    const std::vector<mp4_track_desc> tracks = {h264(), aac(48000)};
    const auto error_of = [&](auto change) { return start(on, tracks, change) ? 0 : errno; };
    mp4_track_desc wrong_rate = aac(96000), unknown = {.type = 0x103, .video = {}};
    EXPECT_EQ(error_of([](auto &) {}), 0);
    EXPECT_EQ(error_of([](auto &o) { o.track_count = 9; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.pattern = "../{number}.mp4"; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.sync_ns = -2; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.pattern = "one.mp4", o.quota_bytes = 1; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.flags = 1u << 20; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.pre_event_bytes = 1; }), EINVAL);
    EXPECT_EQ(error_of([](auto &o) { o.directory = "/nowhere"; }), ENOENT);
    EXPECT_EQ(error_of([&](auto &o) { o.track_count = 1, o.tracks = &wrong_rate; }), ENOTSUP);
    EXPECT_EQ(error_of([&](auto &o) { o.track_count = 1, o.tracks = &unknown; }), ENOTSUP);

    const recorder_ptr recorder = start(on, tracks, [](auto &o) { o.queue_bytes = 64 << 10; });
    ASSERT_TRUE(recorder);
    EXPECT_EQ(error_of([](auto &) {}), EBUSY);
    const bytes large(100'000, 1), garbage(100, 7), sound(300, 0x21);
    const auto push = [&](uint32_t track, const bytes &data, size_t size, uint32_t flags = 0) {
        const int result = mediafiles_recorder_push(recorder, track, data.data(), size, 0, flags);
        return result < 0 ? errno : result == 1 ? -1 : 0;
    };
    EXPECT_EQ(push(2, sound, 300), EINVAL);
    EXPECT_EQ(push(0, sound, 0), EINVAL);
    EXPECT_EQ(push(1, sound, 300, 4), EINVAL);
    EXPECT_EQ(push(1, large, large.size()), EMSGSIZE);
    const iovec pieces[] = {{const_cast<uint8_t *>(sound.data()), 300}, {nullptr, SIZE_MAX - 100}};
    EXPECT_EQ(mediafiles_recorder_pushv(recorder, 1, pieces, 2, 0, 0), -1) << "together 199 bytes, or 2^32 more";
    EXPECT_EQ(push(0, garbage, garbage.size()), -1);
    EXPECT_EQ(push(0, garbage, garbage.size()), -1);
    EXPECT_EQ(push(0, hex("00000001 6588"), 6), 0); /* without parameter sets */
    EXPECT_EQ(push(1, sound, 300), 0);              /* before the first key frame */
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_EQ(mediafiles_recorder_stop(recorder, 0), 0);
    EXPECT_EQ(push(1, sound, 300), ESHUTDOWN);
    const mediafiles_recorder_stats seen = stats_of(recorder);
    EXPECT_EQ(std::tuple(seen.frames_refused, seen.tracks[0].refused, seen.tracks[1].refused), std::tuple(4u, 3u, 1u));
    EXPECT_EQ(events_of(recorder)[MEDIAFILES_EVENT_REFUSED], 3u);
    EXPECT_TRUE(on.names().empty());
}

/** With the usual queue the card may stall for seven seconds of 8 Mbit/s. */
TEST(Recorder, NoCallerWaitsForAStalledCard)
{
    const struct {
        const char *what;
        gate &closed;
        int64_t queue;
        size_t key_size;
        bool drops;
    } cases[] = {
        {"a sync, room enough", syncs, 0, 395'000, false},
        {"a write, room enough", writes, 0, 395'000, false},
        {"a sync, a small queue", syncs, 256 << 10, 20'000, false},
        {"a write, a small queue", writes, 256 << 10, 20'000, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const card on;
        const recorder_ptr recorder =
            start(on, {h264(), aac(48000)}, [&](auto &o) { o.queue_bytes = c.queue, o.sync_ns = 10 * millisecond; });
        const stream video = numbered(camera(21, c.key_size));
        stream sound = numbered(repeated(load("aac_lc_48000_2", ".aac"), 2));
        std::erase_if(sound, [&](const frame &each) { return each.time > video.back().time; });
        size_t next[2] = {}, taken = 0;
        const auto has_room = [&] { return stats_of(recorder).queue_used < 100'000; };
        const auto push_until = [&](size_t end) {
            for (; next[0] < end; ++next[0]) {
                if (&c.closed == &syncs) comes_true(has_room);
                for (; next[1] < sound.size() && sound[next[1]].time <= video[next[0]].time; ++next[1])
                    EXPECT_EQ(push(recorder, 1, sound[next[1]]), 0) << "sound goes when no video is left";
                taken += !push(recorder, 0, video[next[0]]);
            }
        };
        push_until(10);
        ASSERT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= 10; }));
        c.closed.close();
        push_until(190);
        c.closed.await_someone();
        EXPECT_EQ(taken == 190, !c.drops);
        EXPECT_LT(stats_of(recorder).worst_push, second / 2); /* a sync that is waited for would never end */
        c.closed.open();
        ASSERT_TRUE(comes_true(has_room));
        push_until(210);
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);

        const played all = play(on);
        const mediafiles_recorder_stats stats = stats_of(recorder);
        const std::set<size_t> kept = found_frames(all.samples.at(1), video, true);
        EXPECT_EQ(found_frames(all.samples.at(2), sound, false).size(), sound.size());
        EXPECT_EQ(stats.frames_dropped, video.size() - kept.size());
        EXPECT_EQ(stats.frames_out, kept.size() + sound.size());
        EXPECT_EQ(kept.size() == video.size(), !c.drops);
        EXPECT_EQ(events_of(recorder)[MEDIAFILES_EVENT_DROPPED] != 0, c.drops);
        if (!c.drops) expect_times(all, {{h264(), video}, {aac(48000), sound}});
        for (size_t n = 0; n + 1 < video.size(); ++n) /* groups go from somewhere to their end */
            EXPECT_TRUE(kept.contains(n) || !kept.contains(n + 1) || video[n + 1].key) << n;
    }
}

/*
 * A directory that has a file's name, and a link in its place, beside a journal: what they hold stays as it is. Numbers
 * do not follow one after which there is none.
 */
TEST(Recorder, RecoversAndFollowsOnlyFilesOfItsPattern)
{
    namespace fs = std::filesystem;
    const card on;
    const std::vector<mp4_track_desc> tracks = {h264()};
    const std::string theirs = on / "00000001.mp4";
    fs::create_directory(theirs);
    for (const char *name : {"00000001.mp4/a.mp4", "00000001.mp4/a.mp4.journal"}) on.put(name, {});
    fs::create_directory_symlink(theirs, on / "00000002.mp4");
    for (const char *name : {"00000001.mp4.journal", "00000002.mp4.journal", "9999999999.mp4"}) on.put(name, {});
    ASSERT_EQ(mkfifo((on / "00000009.mp4").c_str(), 0600), 0);
    const recorder_ptr recorder = start(on, tracks, [](auto &o) { o.sync_ns = o.longest_gap_ns = INT64_MAX - 1; });
    push_all(recorder, {{h264(), camera(2, 5'000)}});
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_TRUE(fs::is_regular_file(on / "00000003.mp4"));
    EXPECT_TRUE(fs::exists(theirs + "/a.mp4") && fs::exists(theirs + "/a.mp4.journal"));
    EXPECT_TRUE(fs::is_symlink(on / "00000002.mp4"));
}

TEST(Recorder, AFailedSyncCostsItsFileAlone)
{
    const card on;
    const recorder_ptr recorder = start(on, {h264()}, [](auto &o) { o.sync_ns = 5 * millisecond; });
    push_all(recorder, {{h264(), camera(2, 5'000)}});
    ASSERT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= 19; }));
    const uint64_t safe = stats_of(recorder).safe[0];
    failing_sync = EIO;
    push_all(recorder, {{h264(), camera(1, 5'000, second)}});
    ASSERT_TRUE(comes_true([&] { return failing_sync == 0; }));
    ASSERT_TRUE(comes_true([&] { return events_of(recorder)[MEDIAFILES_EVENT_RECOVERED] != 0; }));
    stream later = camera(2, 5'000, 2 * second);
    later.erase(later.begin()); /* its first group cannot be decoded */
    push_all(recorder, {{h264(), later}});
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    const played all = play(on);
    ASSERT_EQ(all.files.size(), 2u);
    EXPECT_GE(all.files[0].tracks[0].samples.size(), safe);
    EXPECT_EQ(all.files[1].tracks[0].samples.size(), 10u);
    mediafiles_recorder_event event = {};
    event.size = sizeof event;
    while (mediafiles_recorder_next_event(recorder, &event, 0) == 1 && event.kind != MEDIAFILES_EVENT_DROPPED) {}
    EXPECT_EQ(event.to, later[8].time);
    EXPECT_EQ(event.count, stats_of(recorder).frames_dropped) << "what nothing can be made of is reported, too";
}

TEST(Recorder, TheOldestFilesMakeRoom)
{
    const card on;
    const auto record = [&](int groups, int64_t from, int64_t quota) {
        const recorder_ptr recorder =
            start(on, {h264()}, [&](auto &o) { o.segment_ns = 400 * millisecond, o.quota_bytes = quota; });
        for (int group = 0; group < groups; ++group) {
            push_all(recorder, {{h264(), camera(1, 100'000, from + group * 400 * millisecond)}});
            const uint64_t safe = uint64_t(10 * group); /* as slowly as the card takes it */
            EXPECT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= safe; }));
        }
        EXPECT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
        return events_of(recorder);
    };
    EXPECT_EQ(record(4, 0, 0)[MEDIAFILES_EVENT_DELETED], 0u);
    chmod((on / "00000002.mp4").c_str(), 0444);
    on.put("somebody.mp4", {1});
    auto events = record(8, 0, 5 * 120'000); /* bytes of a file */
    EXPECT_EQ(events[MEDIAFILES_EVENT_FULL], 0u);
    const std::vector<std::string> names = on.names();
    EXPECT_EQ(events[MEDIAFILES_EVENT_DELETED], 12 + 1 - names.size());
    EXPECT_GE(names.size(), 5u) << "no file is counted twice";
    EXPECT_LE(names.size(), 6u);
    EXPECT_EQ(names.front(), "00000002.mp4") << "it is protected";
    EXPECT_EQ(names.back(), "somebody.mp4");
    for (size_t i = 1; i + 1 < names.size(); ++i)
        EXPECT_EQ(std::stoul(names[i]), 12 - (names.size() - 2 - i)) << "the latest ones are there";
}

/* Of a source that comes faster than the card finishes files. */
TEST(Recorder, TheOldestFilesMakeRoomForEachThatIsFinished)
{
    const card on;
    const recorder_ptr recorder =
        start(on, {h264()}, [](auto &o) { o.segment_ns = 400 * millisecond, o.quota_bytes = 3 * 120'000; });
    syncs.close();
    push_all(recorder, {{h264(), camera(12, 100'000)}});
    ASSERT_TRUE(comes_true([&] { return stats_of(recorder).files == 12; }));
    syncs.open();
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    mediafiles_recorder_event event = {};
    event.size = sizeof event;
    for (int files = 0; mediafiles_recorder_next_event(recorder, &event, 0) == 1;) {
        files += (event.kind == MEDIAFILES_EVENT_FINISHED) - (event.kind == MEDIAFILES_EVENT_DELETED);
        EXPECT_LE(files, 4);
    }
    EXPECT_EQ(on.names().size(), 3u);
}

/* The first file stays open for its sound; the second begins with a round of its own. */
TEST(Recorder, MakesFramesSafeInTheirOrder)
{
    const card on;
    const stream video = camera(2, 2'000);
    const recorder_ptr recorder = start(on, {h264(), aac(48000)}, [](auto &o) {
        o.sync_ns = o.longest_gap_ns = 3'600 * second;
        o.segment_ns = 400 * millisecond;
    });
    push(recorder, 1, load("aac_lc_48000_2", ".aac").front());
    for (const frame &each : video) {
        push(recorder, 0, each);
        usleep(1'000);
    }
    EXPECT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] > 10; }));
    EXPECT_LT(stats_of(recorder).unsafe_ns, 400 * millisecond);
}

TEST(Recorder, AFullCardEndsTheFileUntilThereIsRoom)
{
    const card on;
    const recorder_ptr recorder = start(on, {h264()}, [](auto &o) { o.sync_ns = 5 * millisecond; });
    push_all(recorder, {{h264(), camera(1, 5'000)}});
    ASSERT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= 9; }));
    free_room = 0;
    push_all(recorder, {{h264(), camera(1, 5'000, 400 * millisecond)}});
    std::map<uint32_t, uint64_t> seen;
    const auto sees = [&](uint32_t kind) {
        for (const auto &[each, count] : events_of(recorder)) seen[each] += count;
        return seen[kind] != 0;
    };
    EXPECT_TRUE(comes_true([&] { return sees(MEDIAFILES_EVENT_FULL) && sees(MEDIAFILES_EVENT_FINISHED); }));
    push_all(recorder, {{h264(), camera(1, 5'000, 800 * millisecond)}});
    free_room = -1;
    EXPECT_TRUE(comes_true([&] { return sees(MEDIAFILES_EVENT_GOES_ON); }));
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_FALSE(sees(MEDIAFILES_EVENT_DELETED));
    const played all = play(on);
    ASSERT_EQ(all.files.size(), 2u);
    EXPECT_EQ(all.files[1].tracks[0].samples.size(), 10u) << "what came meanwhile waited";
}

TEST(Recorder, AnyThreadCallsAnything)
{
    for (int run = 0; run < 8; ++run) {
        const card on;
        const std::vector<mp4_track_desc> tracks = {h264(), h264(), aac(48000), aac(48000)};
        const stream sound = load("aac_lc_48000_2", ".aac");
        mediafiles_recorder_options options = options_for(on, tracks);
        options.sync_ns = 2 * millisecond;
        options.quota_bytes = run == 1 || run == 4 ? 100'000 : 0;
        options.pre_event_ns = run % 2 ? second : 0;
        options.pre_event_bytes = run % 2 == 0 ? 0 : run == 3 ? 10'000 : 100'000;
        const bool is_small = run == 3 || run == 5; // its queue, now and then: what is pushed is counted
        options.queue_bytes = is_small ? 32 << 10 : 0;
        recorder_ptr recorder = {mediafiles_recorder_start(&options)};
        const bool is_stalled = run >= 6;
        if (is_stalled) syncs.close();
        std::atomic<bool> is_over = false;
        std::vector<std::thread> threads;
        for (uint32_t track = 0; track < 4; ++track)
            threads.emplace_back([&, track] {
                for (const frame &each : track < 2 ? camera(20, 3'000) : sound) {
                    push(recorder, track, each);
                    usleep(200);
                }
            });
        threads.emplace_back([&] {
            for (int i = 0; !is_over; ++i, usleep(1'000)) {
                if (i % 10 == 0) mediafiles_recorder_split(recorder);
                if (i % 15 == 5) mediafiles_recorder_protect(recorder, i * millisecond, 100 * millisecond);
                stats_of(recorder);
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; !is_over; ++i, usleep(7'000))
                mediafiles_recorder_trigger(recorder, i % 3 * 200 * millisecond);
        });
        threads.emplace_back([&] {
            mediafiles_recorder_event event = {};
            event.size = sizeof event;
            while (mediafiles_recorder_next_event(recorder, &event, -1) == 1) {}
        });
        usleep(useconds_t(15'000 * run));
        if (is_stalled) syncs.await_someone();
        for (size_t track = 0; is_small && track < 4; ++track) threads[track].join();
        const int stopped = mediafiles_recorder_stop(recorder, is_stalled ? 10 * millisecond : -1);
        EXPECT_TRUE(is_stalled ? stopped == -1 && errno == ETIMEDOUT : stopped == 0) << strerror(errno);
        is_over = true;
        for (std::thread &each : threads)
            if (each.joinable()) each.join();
        const mediafiles_recorder_stats s = stats_of(recorder);
        const uint64_t counted = s.frames_out + s.frames_dropped + s.frames_refused + s.frames_let_go;
        EXPECT_TRUE(!is_small || s.frames_in == counted) << s.frames_in << " " << counted;
        mediafiles_recorder_destroy(std::exchange(recorder.recorder, nullptr));
        syncs.open();
        ASSERT_TRUE(comes_true([&] { return (recorder.recorder = mediafiles_recorder_start(&options)) != nullptr; }));
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0); /* it has recovered what was left */
        play(on);
    }
}

} // namespace
