/** The element mediafilessink: what comes is recorded, whatever happens to its pads, and nobody waits for a card. */
#include <atomic>
#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/gstreamer-harness.h"

namespace {

struct pad_case {
    const char *name, *caps;
    source from;
};

/* All frames of all pads, and the files that they make. */
void expect_recording(const char *properties, const std::vector<pad_case> &pads, bool is_live, size_t files)
{
    sink_under_test sink(properties);
    std::vector<std::pair<GstHarness *, const stream *>> fed;
    std::vector<source> sources;
    for (const pad_case &pad : pads) {
        fed.emplace_back(sink.add_pad(pad.name, pad.caps, is_live), &pad.from.frames);
        sources.push_back(pad.from);
    }
    sink.record(fed);
    const played all = play(sink.on);
    EXPECT_EQ(all.files.size(), files);
    expect_all_samples(all, sources);
    expect_times(all, sources);
    EXPECT_EQ(sink.heard().count("mediafiles-finished"), files);
}

stream without_adts(stream all)
{
    for (frame &each : all) each.data.erase(each.data.begin(), each.data.begin() + 7);
    return all;
}

TEST(GStreamer, RecordsWhatComes)
{
    const stream base = load("h264_base_640x360_25", ".h264"), hevc = load("h265_aud_sei_640x360_25", ".h265"),
                 slices = load("h264_high_aud_4slices_640x360_30", ".h264"), sound = load("aac_lc_48000_2", ".aac");
    const struct {
        const char *what, *properties;
        std::vector<pad_case> pads;
        size_t files;
    } cases[] = {
        {"H.264", "", {{"video", h264_caps, {h264(), base}}}, 1},
        {"four slices, with ADTS",
         "",
         {{"video_0", h264_caps, {h264(), slices}}, {"audio_0", adts_caps, {aac(48000), sound}}},
         1},
        {"files of a second, with raw AAC",
         "max-size-time=1000000000",
         {{"video", h264_caps, {h264(), base}}, {"audio_0", raw_caps, {aac(48000), without_adts(sound)}}},
         4},
        {"two cameras", "", {{"video", h264_caps, {h264(), base}}, {"video_3", h265_caps, {h265(0, 0), hevc}}}, 1},
        {"sound alone", "max-size-time=2000000000", {{"audio_0", adts_caps, {aac(48000), sound}}}, 3},
        {"sound whose configuration is none",
         "",
         {{"audio_0",
           "audio/mpeg, mpegversion=4, stream-format=raw, rate=48000, channels=2, codec_data=(string)none",
           {aac(48000), without_adts(sound)}}},
         1},
    };
    for (const auto &c : cases)
        for (const bool is_live : {true, false}) {
            SCOPED_TRACE(std::string(c.what) + (is_live ? ", live" : ", from a file"));
            expect_recording(c.properties, c.pads, is_live, c.files);
        }
}

/* What a pipeline brings to the element, by its pads. */
struct watched_pads {
    std::map<std::string, stream> frames;

    static GstPadProbeReturn note(GstPad *pad, GstPadProbeInfo *info, gpointer self)
    {
        GstBuffer *const buffer = gst_pad_probe_info_get_buffer(info);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_READ);
        static_cast<watched_pads *>(self)->frames[GST_PAD_NAME(pad)].push_back(
            {bytes(map.data, map.data + map.size), int64_t(GST_BUFFER_PTS(buffer)), false});
        gst_buffer_unmap(buffer, &map);
        return GST_PAD_PROBE_OK;
    }

    /* How many of them are in the files from their beginning, sound from the first picture on, to their end. */
    size_t recorded(const played &all) const
    {
        size_t whole = 0;
        for (const auto &[name, brought] : frames)
            for (const auto &[id, samples] : all.samples) {
                const bool is_video = name[0] == 'v';
                if (samples.back() != sample_of(brought.back(), is_video)) continue;
                const std::set<size_t> found = found_frames(samples, brought, is_video);
                whole += found.size() == brought.size() - *found.begin() && (*found.begin() == 0 || !is_video);
            }
        return whole;
    }
};

TEST(GStreamer, RecordsPipelines)
{
    const stream base = load("h264_base_640x360_25", ".h264"), sound = load("aac_lc_48000_2", ".aac"),
                 hevc = load("h265_cra_2slices_640x360_30", ".h265");
    sink_under_test older, newer;
    older.record({{older.add_pad("video", h264_caps), &base}, {older.add_pad("audio_0", adts_caps), &sound}});
    newer.record({{newer.add_pad("video", h265_caps), &hevc}, {newer.add_pad("audio_0", adts_caps), &sound}});
    const std::string demux = " ! qtdemux name=d d.video_0 ! queue ! ", then = " ! s.video d.audio_0 ! queue ! ",
                      camera =
                          "videotestsrc is-live=true num-buffers=25 ! video/x-raw,width=64,height=48,framerate=50/1 ! "
                          "x264enc tune=zerolatency bframes=0 key-int-max=10 ! ";
    const std::tuple<const char *, std::string, size_t> cases[] = {
        {"H.264 and AAC of a file",
         "filesrc location=" + older.on / "00000001.mp4" + demux + "h264parse" + then + "aacparse ! s.", 2},
        {"H.265 of a file", "filesrc location=" + newer.on / "00000001.mp4" + demux + "h265parse" + then + "s.audio_0",
         2},
        {"a camera", camera + "s.", 1},
        {"a camera and a microphone, by parsers",
         camera + "h264parse ! s. audiotestsrc is-live=true num-buffers=30 ! voaacenc ! aacparse ! s.", 2},
    };
    for (const auto &[what, pipeline, pads] : cases) {
        SCOPED_TRACE(what);
        const card on;
        watched_pads watched;
        const said heard = run_pipeline(pipeline + " mediafilessink name=s keep-free=0 location=" + on / "%04d.mp4",
                                        {watched_pads::note, &watched});
        EXPECT_EQ(heard.count("eos"), 1u) << heard.text("error");
        EXPECT_EQ(heard.count("stream-start"), 1u);
        EXPECT_EQ(watched.recorded(play(on)), pads);
    }
}

size_t samples_in(const mp4::file &file, const char *handler)
{
    size_t count = 0;
    for (const mp4::track &track : file.tracks)
        if (track.handler == handler) count += track.samples.size();
    return count;
}

size_t samples_in(const played &all, const char *handler)
{
    size_t count = 0;
    for (const mp4::file &file : all.files) count += samples_in(file, handler);
    return count;
}

/* An encoder that looks ahead: sound comes long before the first picture, of the same time. */
TEST(GStreamer, SoundWaitsForTheFirstPicture)
{
    const stream frames = camera(3, 2'000), sound = load("aac_lc_48000_2", ".aac");
    sink_under_test sink;
    GstHarness *const pictures = sink.add_pad("video", h264_caps), *const other = sink.add_pad("audio_0", adts_caps);
    for (size_t n = 0; n < 50; ++n) EXPECT_EQ(sink.push(other, sound[n]), GST_FLOW_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    for (const frame &each : frames) EXPECT_EQ(sink.push(pictures, each), GST_FLOW_OK);
    sink.end_all();
    const played all = play(sink.on);
    EXPECT_EQ(all.files.size(), 1u);
    EXPECT_EQ(samples_in(all, "soun"), 50u);
}

/* An encoder may have memory for four pictures. */
TEST(GStreamer, WhatIsHeldKeepsNoMemoryOfItsSource)
{
    frame first = camera(1, 1'000)[0];
    bool is_back = false;
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    sink.add_pad("audio_0", adts_caps); // is waited for
    GstBuffer *const buffer =
        gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, first.data.data(), first.data.size(), 0,
                                    first.data.size(), &is_back, [](gpointer to) { *static_cast<bool *>(to) = true; });
    GST_BUFFER_PTS(buffer) = 0;
    EXPECT_EQ(gst_harness_push(pad, buffer), GST_FLOW_OK);
    EXPECT_TRUE(is_back);
}

void expect_error(sink_under_test &sink, const char *text)
{
    ASSERT_TRUE(sink.hears("error"));
    EXPECT_NE(sink.heard().text("error").find(text), std::string::npos) << sink.heard().text("error");
}

TEST(GStreamer, WhatCannotBeRecordedIsAnErrorWithItsReason)
{
    const card taken;
    taken.put("file", {0});
    sink_under_test other;
    other.push(other.add_pad("video", h264_caps), camera(1, 1'000)[0]);
    ASSERT_TRUE(other.hears("mediafiles-begun"));
    const std::string in = "location=" + taken.path() + "/",
                      busy = "patience=0 location=" + other.on.path() + "/%d.mp4";
    const std::tuple<std::string, const char *, bool> cases[] = {
        // a part of the text; whether nothing has to come for it
        {in + "file.mp4", "exactly one field", true},
        {in + "%d-%s.mp4", "exactly one field", true},
        {in + "%5d.mp4", "%0Nd with N from 1 to 10", true},
        {in + "%011d.mp4", "%0Nd with N from 1 to 10", true},
        {in + "%05d.mkv", "ends in .mp4", true},
        {in + "{number}%d.mp4", "for the property pattern", true},
        {in + "%d.mp4 pattern=x{number}.mp4", "only one", true},
        {"pattern=" + taken.path() + "/%H%T.mp4", "not a pattern", true},
        {"pattern=\"\" location=\"\"", "has to be set", true},
        {in + "none/%d.mp4", "No such file or directory", false},
        {in + "file/%d.mp4", "Not a directory", false},
        {busy, "another recorder", false},
    };
    for (const auto &[properties, text, at_once] : cases) {
        SCOPED_TRACE(properties);
        sink_under_test sink(properties);
        EXPECT_EQ(gst_element_set_state(sink.element, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE, at_once);
        if (!at_once) sink.push(sink.add_pad("video", h264_caps), camera(1, 1'000)[0]);
        expect_error(sink, text);
    }
}

/* A card on which no file can be made. */
class card_without_files : public medium::watch {
public:
    explicit card_without_files(int error) : error_(error) {}
    int64_t carry_out(const medium::operation &of, medium::real_call call) override
    {
        if (of.what != medium::opening || !of.makes) return call();
        errno = error_;
        return -1;
    }

private:
    const int error_;
};

TEST(GStreamer, ACardThatIsReadOnlyAtTheBeginningIsAnError)
{
    for (const bool is_live : {true, false}) {
        const card_without_files read_only(EROFS);
        sink_under_test sink;
        GstHarness *const pad = sink.add_pad("video", h264_caps, is_live);
        for (const frame &each : camera(1, 1'000)) sink.push(pad, each);
        gst_harness_push_event(pad, gst_event_new_eos());
        expect_error(sink, "Read-only file system");
        gst_element_set_state(sink.element, GST_STATE_NULL);
        EXPECT_EQ(sink.heard().count("eos"), 0u);
    }
}

TEST(GStreamer, ACardThatIsFullAllTheTimeIsAnErrorAtTheEnd)
{
    const card_without_files full(ENOSPC);
    sink_under_test sink("keep-free=1000000");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : camera(1, 1'000)) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    EXPECT_TRUE(sink.hears("warning"));
    EXPECT_EQ(sink.heard().count("error"), 0u);
    gst_harness_push_event(pad, gst_event_new_eos());
    expect_error(sink, "1000000 bytes of keep-free");
    gst_element_set_state(sink.element, GST_STATE_NULL);
}

void expect_that_it_goes_on_after_an_absence(bool with_another_pad)
{
    const stream frames = camera(9, 1'000), sound = load("aac_lc_48000_2", ".aac");
    sink_under_test sink("max-size-time=400000000");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    const auto feed = [&](size_t from, size_t to) {
        for (size_t n = from; n < to; ++n) EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
    };
    feed(0, 5);
    ASSERT_TRUE(sink.hears("mediafiles-begun"));
    std::filesystem::rename(sink.on.path(), sink.on.path() + "-out");
    feed(5, 50);
    EXPECT_TRUE(sink.hears("mediafiles-no-medium"));
    if (with_another_pad) {
        sink.push(sink.add_pad("audio_0", adts_caps), sound[0]);
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // another recorder is tried, in vain
    }
    std::filesystem::rename(sink.on.path() + "-out", sink.on.path());
    EXPECT_TRUE(with_another_pad || sink.hears("mediafiles-goes-on"));
    feed(50, frames.size());
    sink.end_all();
    EXPECT_EQ(sink.heard().count("error"), 0u);
    EXPECT_GE(samples_in(play(sink.on), "vide"), frames.size() - 50);
}

TEST(GStreamer, ACardThatIsGoneForAWhileIsNoError)
{
    expect_that_it_goes_on_after_an_absence(false);
    expect_that_it_goes_on_after_an_absence(true);
}

TEST(GStreamer, WhatDoesNotFitIsRefused)
{
    stream late = camera(1, 1'000), timeless = late;
    std::swap(late[3].time, late[4].time);
    timeless[0].time = int64_t(GST_CLOCK_TIME_NONE);
    const stream sound = load("aac_lc_48000_2", ".aac");
    const struct {
        const char *what, *pad, *caps;
        const stream &frames;
        size_t taken; // frames
        const char *text;
    } cases[] = {
        {"B-frames", "video", h264_caps, late, 4, "bframes=0"},
        {"no times", "video", h264_caps, timeless, 0, "do-timestamp"},
        {"HE-AAC", "audio_0",
         "audio/mpeg, mpegversion=4, stream-format=raw, rate=48000, channels=2, codec_data=(buffer)2b118800", sound, 0,
         "audio object type 5"},
        {"a rate that no header can state", "audio_0",
         "audio/mpeg, mpegversion=4, stream-format=adts, rate=47999, channels=2", sound, 0, "47999 Hz"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sink_under_test sink;
        GstHarness *const pad = sink.add_pad(c.pad, c.caps);
        for (size_t n = 0; n <= c.taken; ++n) EXPECT_EQ(sink.push(pad, c.frames[n]) == GST_FLOW_OK, n < c.taken) << n;
        expect_error(sink, c.text);
    }
}

TEST(GStreamer, AnotherFormatBeginsAFile)
{
    const stream base = load("h264_base_640x360_25", ".h264"), small = load("ext_MPS_MW_A_176x144_30", ".h264"),
                 hevc = load("h265_aud_sei_640x360_25", ".h265"), sound = load("aac_lc_48000_2", ".aac"),
                 other = load("aac_voaac_44100_2", ".aac");
    const struct {
        const char *what, *pad, *before, *after;
        const stream &first, &second;
        bool is_video;
        size_t files;
    } cases[] = {
        {"pictures of another size", "video", h264_caps,
         "video/x-h264, stream-format=byte-stream, alignment=au, width=176, height=144", base, small, true, 2},
        {"another codec", "video", h264_caps, h265_caps, base, hevc, true, 2},
        {"sound of another rate", "audio_0", adts_caps,
         "audio/mpeg, mpegversion=4, stream-format=adts, rate=44100, channels=2", sound, other, false, 2},
        {"another frame rate is the same", "video", h264_caps,
         "video/x-h264, stream-format=byte-stream, alignment=au, width=640, height=360, framerate=30/1", base, base,
         true, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sink_under_test sink;
        GstHarness *const pad = sink.add_pad(c.pad, c.before);
        for (const frame &each : c.first) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
        gst_harness_set_src_caps_str(pad, c.after);
        const stream second = repeated(c.second, 1, repeated(c.first, 2)[c.first.size()].time);
        sink.record({{pad, &second}});
        const played all = play(sink.on);
        EXPECT_EQ(all.files.size(), c.files);
        stream both = c.first;
        both.insert(both.end(), second.begin(), second.end());
        expect_all_samples(all, {{c.is_video ? h264() : aac(48000), both}});
    }
}

TEST(GStreamer, OneRecordingGoesOnUnderItsName)
{
    const card on;
    const stream base = load("h264_base_640x360_25", ".h264"), hevc = load("h265_aud_sei_640x360_25", ".h265");
    sink_under_test sink("max-size-time=2000000000 pattern=" + on / "clip.mp4");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : base) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    gst_harness_set_src_caps_str(pad, h265_caps);
    const stream second = repeated(hevc, 1, base.back().time + 40 * millisecond);
    sink.record({{pad, &second}});
    EXPECT_EQ(sink.heard().count("error"), 0u) << sink.heard().text("error");
    EXPECT_EQ(on.names(), (std::vector<std::string>{"clip-2.mp4", "clip-3-2.mp4", "clip-3.mp4", "clip.mp4"}));
}

TEST(GStreamer, SoundFollowsPicturesOfAnotherSize)
{
    const stream base = load("h264_base_640x360_25", ".h264"), sound = load("aac_lc_48000_2", ".aac"),
                 small = repeated(load("ext_MPS_MW_A_176x144_30", ".h264"), 1, base.back().time + 40 * millisecond);
    sink_under_test sink;
    GstHarness *const pictures = sink.add_pad("video", h264_caps), *const other = sink.add_pad("audio_0", adts_caps);
    auto next = sound.begin();
    const auto feed = [&](const stream &frames) {
        for (const frame &each : frames) {
            while (next != sound.end() && next->time <= each.time) EXPECT_EQ(sink.push(other, *next++), GST_FLOW_OK);
            EXPECT_EQ(sink.push(pictures, each), GST_FLOW_OK);
        }
    };
    feed(base);
    gst_harness_set_src_caps_str(pictures,
                                 "video/x-h264, stream-format=byte-stream, alignment=au, width=176, height=144");
    feed(small);
    sink.end_all();
    const played all = play(sink.on);
    ASSERT_EQ(all.files.size(), 2u);
    EXPECT_GT(samples_in(all.files[1], "soun"), 40u);
    EXPECT_EQ(samples_in(all, "soun"), sound.size());
}

TEST(GStreamer, PadsComeAndGo)
{
    const stream frames = numbered(camera(12, 2'000)), sound = load("aac_lc_48000_2", ".aac");
    sink_under_test sink("max-size-time=400000000");
    GstHarness *const stays = sink.add_pad("audio_0", adts_caps), *const goes = sink.add_pad("video", h264_caps);
    size_t heard = 0;
    const auto feed_sound = [&](int64_t until) {
        while (heard < sound.size() && sound[heard].time < until)
            EXPECT_EQ(sink.push(stays, sound[heard++]), GST_FLOW_OK);
    };
    const auto feed = [&](GstHarness *pad, size_t from, size_t to) {
        for (size_t n = from; n < to; ++n) {
            feed_sound(frames[n].time);
            EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
        }
    };
    const auto stores = [&](uint64_t frames_out) {
        return comes_true([&] { return sink.statistic("frames-out") >= frames_out; });
    };
    feed(goes, 0, 40);
    EXPECT_TRUE(stores(60));
    sink.remove_pad(goes);
    feed_sound(frames[80].time);
    EXPECT_TRUE(stores(187));
    feed(sink.add_pad("video", h264_caps), 80, frames.size());
    feed_sound(5 * second);
    sink.end_all();
    const played all = play(sink.on);
    EXPECT_GE(all.files.size(), 8u);
    EXPECT_EQ(samples_in(all, "vide"), 80u);
    EXPECT_GE(samples_in(all, "soun") + 3, sound.size()); // what came before a file's first picture is in none
}

/* How many of its events ask for a key frame. */
size_t key_requests(GstHarness *pad)
{
    size_t asked = 0;
    while (GstEvent *const event = gst_harness_try_pull_upstream_event(pad)) {
        asked += gst_event_has_name(event, "GstForceKeyUnit") ? 1 : 0;
        gst_event_unref(event);
    }
    return asked;
}

/* Sound comes and goes in the middle of a group; the next key frame comes because it is asked for. */
TEST(GStreamer, NoPictureIsLostWhenSoundComesAndGoes)
{
    const stream frames = numbered(camera(9, 2'000)), sound = load("aac_lc_48000_2", ".aac");
    sink_under_test sink;
    GstHarness *const pictures = sink.add_pad("video", h264_caps), *other = nullptr;
    for (size_t n = 0; n < frames.size(); ++n) {
        EXPECT_TRUE(n != 25 || comes_true([&] { return sink.statistic("frames-out") > 20; }));
        if (n == 25) other = sink.add_pad("audio_0", adts_caps);
        if (n == 55) sink.remove_pad(std::exchange(other, nullptr));
        EXPECT_EQ(sink.push(pictures, frames[n]), GST_FLOW_OK);
        for (const frame &each : sound)
            if (other && each.time >= frames[n].time && each.time < frames[n].time + 40 * millisecond)
                sink.push(other, each);
        EXPECT_TRUE((n != 26 && n != 56) || comes_true([&] { return key_requests(pictures) == 1; }));
    }
    sink.end_all();
    const played all = play(sink.on);
    ASSERT_EQ(all.files.size(), 3u);
    for (const mp4::file &each : all.files) EXPECT_EQ(samples_in(each, "vide"), 30u);
    EXPECT_GT(samples_in(all.files[1], "soun"), 40u);
}

/* Its key frame may have come before the one with which the file begins. */
TEST(GStreamer, AnotherCameraIsAskedForAKeyFrame)
{
    const stream frames = camera(1, 2'000);
    sink_under_test sink;
    GstHarness *const first = sink.add_pad("video_0", h264_caps), *const second = sink.add_pad("video_1", h264_caps);
    for (GstHarness *const pad : {second, first}) EXPECT_EQ(sink.push(pad, frames[0]), GST_FLOW_OK);
    EXPECT_TRUE(comes_true([&] { return key_requests(second) == 1; }));
    EXPECT_EQ(key_requests(first), 0u);
}

TEST(GStreamer, AStreamThatBeginsInAGroupIsAskedForAKeyFrame)
{
    const stream frames = camera(1, 2'000);
    for (const bool asks : {true, false}) {
        sink_under_test sink(asks ? "send-keyframe-requests=true" : "");
        GstHarness *const pad = sink.add_pad("video", h264_caps);
        for (size_t n = 1; n < 9; ++n) EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
        EXPECT_TRUE(sink.hears("mediafiles-frames-refused"));
        EXPECT_TRUE(comes_true([&] { return key_requests(pad) == size_t{asks}; }));
    }
}

TEST(GStreamer, FilesGoOnToBeginWhenPicturesHaveEnded)
{
    const stream frames = camera(2, 2'000), sound = load("aac_lc_48000_2", ".aac");
    for (const char *properties : {"max-size-time=1000000000", ""}) {
        SCOPED_TRACE(properties);
        sink_under_test sink(properties);
        GstHarness *const pictures = sink.add_pad("video", h264_caps), *const other =
                                                                           sink.add_pad("audio_0", adts_caps);
        for (const frame &each : frames) EXPECT_EQ(sink.push(pictures, each), GST_FLOW_OK);
        gst_harness_push_event(pictures, gst_event_new_eos());
        for (size_t n = 0; n < sound.size(); ++n) {
            EXPECT_EQ(sink.push(other, sound[n]), GST_FLOW_OK);
            EXPECT_TRUE(n != 60 || comes_true([&] { return sink.statistic("frames-out") > n; }));
            if (n == 60 && !*properties) g_signal_emit_by_name(sink.element, "split-after");
            EXPECT_TRUE(n != 100 || sink.hears("mediafiles-finished"));
        }
        sink.end_all();
        const played all = play(sink.on);
        EXPECT_GE(all.files.size(), *properties ? 3u : 2u);
        EXPECT_EQ(samples_in(all, "soun"), sound.size());
    }
}

TEST(GStreamer, TakesEightPads)
{
    sink_under_test sink;
    std::vector<GstPad *> pads;
    for (int round = 0; round < 7; ++round) {
        for (int n = 0; n < 8; ++n)
            pads.push_back(gst_element_request_pad_simple(sink.element, n % 2 ? "audio_%u" : "video_%u"));
        EXPECT_EQ(std::ranges::count(pads, nullptr), 0);
        EXPECT_EQ(gst_element_request_pad_simple(sink.element, "video_%u"), nullptr);
        EXPECT_EQ(gst_element_request_pad_simple(sink.element, "video"), nullptr);
        for (GstPad *each : pads) {
            gst_element_release_request_pad(sink.element, each);
            gst_object_unref(each);
        }
        pads.clear();
        if (round == 3) gst_element_set_state(sink.element, GST_STATE_PLAYING);
    }
    std::atomic<int> made = 0;
    std::vector<std::thread> threads(20);
    for (std::thread &each : threads)
        each = std::thread([&] {
            GstPad *pad = gst_element_request_pad_simple(sink.element, "video_%u");
            made += pad != nullptr;
            g_clear_object(&pad);
        });
    for (std::thread &each : threads) each.join();
    EXPECT_EQ(made, 8);
}

TEST(GStreamer, WithoutDescriptorsItDoesNotBegin)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "UndefinedBehaviorSanitizer needs descriptors itself";
#endif
    sink_under_test sink;
    rlimit usual = {};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none = {0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const auto result = gst_element_set_state(sink.element, GST_STATE_PAUSED);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(result, GST_STATE_CHANGE_FAILURE);
    expect_error(sink, "lacks resources");
}

/* A number of the properties, but those that are memory. */
std::string at_its_most(GParamSpec *spec)
{
    const std::string name = g_param_spec_get_name(spec);
    if (!G_IS_PARAM_SPEC_UINT64(spec) || name.ends_with("-bytes") || name.starts_with("pre-event")) return "";
    return name + "=" + std::to_string(G_PARAM_SPEC_UINT64(spec)->maximum);
}

TEST(GStreamer, FinishesItsFilesWhateverItsPropertiesAre)
{
    const stream frames = camera(1, 1'000);
    guint count = 0;
    GParamSpec **const all = g_object_class_list_properties(G_OBJECT_GET_CLASS(sink_under_test().element), &count);
    for (guint n = 0; n < count; ++n) {
        const std::string property = at_its_most(all[n]);
        if (property.empty() || property.starts_with("keep-free")) continue;
        SCOPED_TRACE(property);
        sink_under_test sink(property);
        GstHarness *const pad = sink.add_pad("video", h264_caps);
        for (const frame &each : frames) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
        gst_element_set_state(sink.element, GST_STATE_NULL);
        EXPECT_EQ(sink.on.names(), std::vector<std::string>{"00000001.mp4"});
    }
    g_free(all);
}

void push_segment(GstHarness *pad, GstClockTime base)
{
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.base = base;
    gst_harness_push_event(pad, gst_event_new_segment(&segment));
}

void push_gap(GstHarness *pad)
{
    gst_harness_push_event(pad, gst_event_new_gap(800 * millisecond, 10 * millisecond));
}

void flush(GstHarness *pad)
{
    gst_harness_push_event(pad, gst_event_new_flush_start());
    gst_harness_push_event(pad, gst_event_new_flush_stop(TRUE));
    push_segment(pad, 0);
}

TEST(GStreamer, FlushesGapsAndSteps)
{
    const stream frames = numbered(camera(4, 2'000));
    const std::tuple<const char *, std::function<void(GstHarness *)>, GstBufferFlags, size_t> cases[] = {
        {"packets were lost", [](GstHarness *) {}, GST_BUFFER_FLAG_DISCONT, 1},
        {"a gap", push_gap, GstBufferFlags(0), 1},
        {"a flush, times go on", flush, GST_BUFFER_FLAG_DISCONT, 1},
        {"a segment whose running time is a minute on", [](GstHarness *pad) { push_segment(pad, 60 * GST_SECOND); },
         GstBufferFlags(0), 2},
    };
    for (const auto &[what, happens, flags, files] : cases) {
        SCOPED_TRACE(what);
        sink_under_test sink;
        GstHarness *const pad = sink.add_pad("video", h264_caps);
        for (size_t n = 0; n < frames.size(); ++n) {
            if (n == 20) happens(pad);
            EXPECT_EQ(sink.push(pad, frames[n], n == 20 ? flags : GstBufferFlags(0)), GST_FLOW_OK);
        }
        sink.end_all();
        const played all = play(sink.on);
        EXPECT_EQ(all.files.size(), files);
        expect_all_samples(all, {{h264(), frames}});
    }
}

TEST(GStreamer, TimesThatNoRecordingReaches)
{
    constexpr int64_t most = std::numeric_limits<int64_t>::max();
    const struct {
        const char *what;
        int64_t time; // of one frame
        uint64_t refused;
    } cases[] = {
        {"millennia", most, 1},
        {"the last of them", -2, 1},
        {"half of that", most / 2 + 1, 1},
        {"a clock that is not exact", 159 * millisecond, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        stream frames = numbered(camera(4, 2'000));
        frames[5].time = c.time;
        sink_under_test sink;
        GstHarness *const pad = sink.add_pad("video", h264_caps);
        for (const frame &each : frames) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
        sink.end_all();
        EXPECT_EQ(sink.statistic("frames-refused"), c.refused);
        EXPECT_EQ(samples_in(play(sink.on), "vide") + c.refused, frames.size());
    }
}

TEST(GStreamer, ChangesItsStateAHundredTimes)
{
    const stream frames = camera(1, 1'000);
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    const GstState states[] = {GST_STATE_PAUSED,  GST_STATE_PLAYING, GST_STATE_READY,
                               GST_STATE_PLAYING, GST_STATE_NULL,    GST_STATE_PLAYING};
    for (int n = 0; n < 100; ++n) {
        EXPECT_EQ(gst_element_set_state(sink.element, states[n % 6]), GST_STATE_CHANGE_SUCCESS);
        if (states[n % 6] != GST_STATE_PLAYING) continue;
        flush(pad); /* the source forgets that it has said all this before */
        gst_pad_push_event(pad->srcpad, gst_event_new_stream_start("again"));
        gst_harness_set_src_caps_str(pad, h264_caps);
        for (const frame &each : frames) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    }
    gst_element_set_state(sink.element, GST_STATE_NULL);
    const played all = play(sink.on);
    EXPECT_GE(all.files.size(), 1u);
    EXPECT_EQ(all.samples.at(1).size() % frames.size(), 0u);
}

TEST(GStreamer, TheEndIsReachedWhenItPlays)
{
    const stream frames = camera(2, 1'000);
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : frames) sink.push(pad, each);
    EXPECT_EQ(gst_element_set_state(sink.element, GST_STATE_PAUSED), GST_STATE_CHANGE_SUCCESS);
    gst_harness_push_event(pad, gst_event_new_eos());
    ASSERT_TRUE(sink.hears("mediafiles-finished"));
    EXPECT_EQ(sink.heard().count("eos"), 0u);
    gst_element_set_state(sink.element, GST_STATE_PLAYING);
    EXPECT_TRUE(sink.hears("eos"));
    for (const GstState state : {GST_STATE_PAUSED, GST_STATE_PLAYING}) gst_element_set_state(sink.element, state);
    EXPECT_TRUE(comes_true([&] { return sink.heard().count("eos") == 2; }));
    GstEvent *const seek =
        gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET, 0, GST_SEEK_TYPE_NONE, -1);
    EXPECT_FALSE(gst_element_send_event(sink.element, seek));
}

TEST(GStreamer, TheEndIsReachedWithoutThePadThatBroughtIt)
{
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : camera(1, 1'000)) sink.push(pad, each);
    gst_harness_push_event(pad, gst_event_new_eos());
    GstPad *const ours = gst_pad_get_peer(pad->srcpad);
    gst_element_release_request_pad(sink.element, ours);
    gst_object_unref(ours);
    EXPECT_TRUE(sink.hears("eos"));
}

TEST(GStreamer, AnotherStreamBeginsWhileTheEndStalls)
{
    const stream before = numbered(camera(2, 2'000)), after = numbered(camera(2, 2'000, 2 * second));
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : before) sink.push(pad, each);
    ASSERT_TRUE(comes_true([&] { return sink.statistic("safe", "video") > 0; }));
    syncs.close();
    gst_harness_push_event(pad, gst_event_new_eos());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    gst_pad_push_event(pad->srcpad, gst_event_new_stream_start("again"));
    for (const frame &each : after) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    syncs.open();
    EXPECT_TRUE(comes_true([&] { return sink.statistic("frames-out") > before.size(); }));
    EXPECT_EQ(sink.heard().count("eos"), 0u);
    sink.end_all();
    EXPECT_EQ(samples_in(play(sink.on), "vide"), before.size() + after.size());
}

TEST(GStreamer, NobodyWaitsForACard)
{
    const stream frames = numbered(camera(30, 20'000));
    sink_under_test sink("sync-interval=1 patience=300000000 queue-bytes=1000000");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (size_t n = 0; n < 20; ++n) sink.push(pad, frames[n]);
    ASSERT_TRUE(comes_true([&] { return sink.statistic("safe", "video") > 10; }));
    syncs.close();
    writes.close();
    const auto begin = std::chrono::steady_clock::now();
    for (size_t n = 20; n < frames.size(); ++n) EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
    sink.end_all(); /* within its patience */
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(sink.heard().count("warning"), 1u);
    syncs.open();
    writes.open();
    EXPECT_TRUE(comes_true([&] {
        const card &on = sink.on;
        recover(on);
        return on.names().size() == 1;
    }));
    EXPECT_GE(found_frames(play(sink.on).samples[1], frames, true).size(), 10u);
}

/* A card that does not answer when its directory is opened. */
class stalled_directory : public medium::watch {
public:
    int64_t carry_out(const medium::operation &of, medium::real_call call) override
    {
        if (of.what == medium::opening && of.name[0] == '/') opens.pass();
        return call();
    }
    gate opens;
};

stalled_directory &stall()
{
    static stalled_directory stalled; // a thread that ends may look at it until it has ended
    medium::watch::current = &stalled;
    stalled.opens.close();
    return stalled;
}

TEST(GStreamer, WhatIsDroppedWhileNoRecorderRunsIsReported)
{
    const stream frames = numbered(camera(10, 20'000));
    sink_under_test sink("queue-bytes=100000");
    stalled_directory &stalled = stall();
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (size_t n = 0; n < 80; ++n) EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
    EXPECT_EQ(sink.statistic("frames-dropped"), 70u);
    stalled.opens.open();
    EXPECT_TRUE(comes_true([&] { return sink.statistic("frames-out") > 5; }));
    for (size_t n = 80; n < frames.size(); ++n) EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
    sink.end_all();
    medium::watch::current = nullptr;
    const std::string text = sink.heard().text("mediafiles-frames-dropped");
    EXPECT_NE(text.find("running-time=(gint64)400000000, running-time-end=(gint64)3160000000, count=(guint64)70, "
                        "pad=(string)video"),
              text.npos)
        << text;
    EXPECT_EQ(found_frames(play(sink.on).samples[1], frames, true).size(), 30u);
}

TEST(GStreamer, NobodyWaitsForACardAtTheBeginning)
{
    const stream frames = numbered(camera(3, 20'000));
    sink_under_test sink("patience=100000000");
    stalled_directory &stalled = stall();
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : frames) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    gst_element_set_state(sink.element, GST_STATE_NULL);
    EXPECT_EQ(sink.on.names().size(), 0u);
    stalled.opens.open(); /* the thread that was left in the kernel stores what was held */
    const int directory = open(sink.on.path().c_str(), O_RDONLY); /* it is unlocked at the very end */
    EXPECT_TRUE(comes_true([&] { return sink.on.names() == std::vector<std::string>{"00000001.mp4"}; }));
    EXPECT_TRUE(comes_true([&] { return flock(directory, LOCK_EX | LOCK_NB) == 0; }));
    close(directory);
    medium::watch::current = nullptr;
    expect_all_samples(play(sink.on), {{h264(), frames}});
}

TEST(GStreamer, AnotherRecorderWaitsForTheOneThatStalls)
{
    const stream before = numbered(camera(2, 2'000)), hevc = load("h265_aud_sei_640x360_25", ".h265"),
                 after = repeated(hevc, 1, before.back().time + 40 * millisecond);
    sink_under_test sink("patience=100000000");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (const frame &each : before) sink.push(pad, each);
    ASSERT_TRUE(comes_true([&] { return sink.statistic("safe", "video") > 0; }));
    syncs.close();
    gst_harness_set_src_caps_str(pad, h265_caps);
    for (const frame &each : after) EXPECT_EQ(sink.push(pad, each), GST_FLOW_OK);
    ASSERT_TRUE(sink.hears("warning"));
    syncs.open();
    sink.end_all();
    EXPECT_EQ(sink.heard().count("error"), 0u);
    EXPECT_GE(samples_in(play(sink.on), "vide"), after.size());
}

TEST(GStreamer, AnotherPipelineWaitsForTheOneThatStalls)
{
    const stream frames = numbered(camera(2, 2'000));
    auto before = std::make_unique<sink_under_test>("patience=100000000");
    const card &on = before->on;
    GstHarness *const pad = before->add_pad("video", h264_caps);
    for (const frame &each : frames) before->push(pad, each);
    ASSERT_TRUE(comes_true([&] { return before->statistic("safe", "video") > 0; }));
    syncs.close();
    gst_element_set_state(before->element, GST_STATE_NULL);
    sink_under_test after("location=" + on / "%08d.mp4");
    GstHarness *const next = after.add_pad("video", h264_caps);
    for (const frame &each : frames) EXPECT_EQ(after.push(next, each), GST_FLOW_OK);
    EXPECT_TRUE(after.hears("warning"));
    syncs.open();
    after.end_all();
    EXPECT_EQ(after.heard().count("error"), 0u);
    EXPECT_GT(samples_in(play(on), "vide"), frames.size());
}

TEST(GStreamer, AFileWaitsForItsCard)
{
    const stream frames = numbered(camera(30, 20'000));
    sink_under_test sink("queue-bytes=100000");
    GstHarness *const pad = sink.add_pad("video", h264_caps, false);
    sink.record({{pad, &frames}});
    expect_all_samples(play(sink.on), {{h264(), frames}});
    EXPECT_EQ(sink.statistic("frames-dropped"), 0u);
}

TEST(GStreamer, AFrameThatIsTooLargeTakesItsGroupAlong)
{
    stream frames = numbered(camera(4, 2'000));
    frames[20] = numbered(camera(1, 40'000, frames[20].time), 20)[0];
    sink_under_test sink("queue-bytes=30000");
    sink.record({{sink.add_pad("video", h264_caps, false), &frames}});
    EXPECT_EQ(sink.heard().count("warning"), 1u);
    EXPECT_EQ(sink.statistic("frames-dropped"), 10u);
    const std::set<size_t> found = found_frames(play(sink.on).samples[1], frames, true);
    EXPECT_EQ(found.size(), 30u);
    EXPECT_EQ(found.count(25), 0u);
}

TEST(GStreamer, ObeysAnApplication)
{
    const stream frames = numbered(camera(8, 2'000));
    gboolean done = FALSE;
    sink_under_test sink;
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    g_signal_emit_by_name(sink.element, "protect", guint64(0), guint64(0), &done);
    EXPECT_FALSE(done); // nothing is recorded yet
    for (size_t n = 0; n < frames.size(); ++n) {
        EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
        EXPECT_TRUE(n % 20 != 5 || comes_true([&] { return sink.statistic("frames-out") + 2 >= n; }));
        if (n == 5) g_signal_emit_by_name(sink.element, "split-now");
        if (n == 25) g_signal_emit_by_name(sink.element, "split-after");
        if (n == 45) g_signal_emit_by_name(sink.element, "protect", guint64(0), guint64(0), &done);
    }
    EXPECT_TRUE(done);
    g_signal_emit_by_name(sink.element, "trigger", guint64(0), &done);
    EXPECT_FALSE(done); // without pre-event
    sink.end_all();
    EXPECT_EQ(sink.heard().count("mediafiles-protected"), 1u);
    EXPECT_EQ(key_requests(pad), 1u);
    const played all = play(sink.on);
    EXPECT_EQ(all.files.size(), 3u);
    expect_all_samples(all, {{h264(), frames}});
}

/* Sound of another rate begins a file of another recorder. */
TEST(GStreamer, WhatIsAskedForOutlastsARecorder)
{
    const stream frames = numbered(camera(8, 2'000)), sound = load("aac_lc_48000_2", ".aac"),
                 other = load("aac_voaac_44100_2", ".aac");
    for (const bool is_event : {true, false}) {
        SCOPED_TRACE(is_event ? "trigger" : "protect");
        sink_under_test sink(is_event ? "pre-event=800000000" : "");
        GstHarness *const pictures = sink.add_pad("video", h264_caps), *const heard =
                                                                           sink.add_pad("audio_0", adts_caps);
        for (size_t n = 0; n < frames.size(); ++n) {
            EXPECT_EQ(sink.push(pictures, frames[n]), GST_FLOW_OK);
            if (n == 45)
                gst_harness_set_src_caps_str(heard,
                                             "audio/mpeg, mpegversion=4, stream-format=adts, rate=44100, channels=2");
            frame each = n < 45 ? sound[n] : other[n];
            each.time = frames[n].time;
            EXPECT_EQ(sink.push(heard, each), GST_FLOW_OK);
            if (n != 25) continue;
            gboolean done = FALSE;
            EXPECT_TRUE(comes_true([&] { return sink.statistic("frames-in") > n; }));
            if (is_event) g_signal_emit_by_name(sink.element, "trigger", guint64(60 * GST_SECOND), &done);
            if (!is_event) g_signal_emit_by_name(sink.element, "protect", guint64(0), guint64(60 * GST_SECOND), &done);
            EXPECT_TRUE(done);
        }
        sink.end_all();
        EXPECT_EQ(sink.heard().count("mediafiles-finished"), 2u);
        EXPECT_EQ(sink.heard().count("mediafiles-protected"), is_event ? 0u : 2u);
        EXPECT_GE(samples_in(play(sink.on), "vide"), is_event ? 60u : 80u);
    }
}

TEST(GStreamer, KeepsWhatComesBeforeAnEvent)
{
    const stream frames = numbered(camera(20, 2'000));
    gboolean done = FALSE;
    sink_under_test sink("pre-event=800000000 send-keyframe-requests=true");
    GstHarness *const pad = sink.add_pad("video", h264_caps);
    for (size_t n = 0; n < frames.size(); ++n) {
        EXPECT_EQ(sink.push(pad, frames[n]), GST_FLOW_OK);
        if (n != 100) continue;
        EXPECT_TRUE(comes_true([&] { return sink.statistic("frames-in") > n; }));
        g_signal_emit_by_name(sink.element, "trigger", guint64(500 * millisecond), &done);
        EXPECT_TRUE(done);
    }
    sink.end_all();
    const played all = play(sink.on);
    ASSERT_EQ(all.files.size(), 1u);
    const std::set<size_t> found = found_frames(all.samples.at(1), frames, true);
    EXPECT_TRUE(*found.begin() <= 80 && *found.begin() % 10 == 0 && *found.rbegin() >= 112) << *found.begin();
    EXPECT_EQ(sink.statistic("frames-let-go") + found.size(), frames.size());
}

} // namespace
