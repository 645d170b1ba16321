/** What the recorder is made of: names, the times of a file's samples, frames as they are pushed. */
#include <chrono>
#include <cstring>
#include <deque>
#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <poll.h>

#include "recorder/recording/adts.h"
#include "recorder/recording/events.h"
#include "recorder/recording/frame.h"
#include "recorder/recording/names.h"
#include "recorder/recording/picture-size.h"
#include "recorder/recording/queue.h"
#include "recorder/recording/timeline.h"
#include "support/three-codecs.h"

namespace {

using namespace mediafiles::recorder;

/* ---- Events ---- */

TEST(Events, KeepTheLatestAndCountTheOthers)
{
    event_list events;
    mediafiles_recorder_event event = {};
    pollfd readable = {events.descriptor(), POLLIN, 0};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(events.take(event, 20));
    EXPECT_LE(std::chrono::milliseconds(20), std::chrono::steady_clock::now() - begin);
    for (uint64_t i = 0; i < 260; i++) events.add({.kind = MEDIAFILES_EVENT_STALLED, .number = i}, std::to_string(i));
    EXPECT_EQ(1, poll(&readable, 1, 0));
    EXPECT_TRUE(events.take(event, -1));
    EXPECT_EQ(std::pair(uint32_t{MEDIAFILES_EVENT_LOST}, uint64_t{4}), std::pair(event.kind, event.count));
    for (uint64_t i = 4; i < 260; i++) {
        ASSERT_TRUE(events.take(event, 0));
        EXPECT_EQ(std::pair(i, std::to_string(i)), std::pair(event.number, std::string(event.path)));
    }
    EXPECT_TRUE(!events.take(event, 0) && poll(&readable, 1, 0) == 0);
    events.end();
    EXPECT_TRUE(!events.take(event, -1) && poll(&readable, 1, 0) == 1);
}

/* ---- Names ---- */

TEST(Names, FollowTheirPattern)
{
    constexpr int64_t leap_day = 951'827'696; // 2000-02-29 12:34:56
    const std::tuple<const char *, uint64_t, int64_t, const char *> cases[] = {
        {"{number}.mp4", 1, 0, "00000001.mp4"},
        {"{number:1}.MP4", 42, 0, "42.MP4"},
        {"{number:10}.mp4", largest_number, 0, "9999999999.mp4"},
        {"{number:2}.mp4", 1234, 0, "1234.mp4"},
        {"%Y/%m-%d/cam_{number:3}%H%M%S.mp4", 7, leap_day, "2000/02-29/cam_007123456.mp4"},
        {"%Y%m%d.mp4", 1, -1, "19700101.mp4"},
        {"%Y%m%dT%H%M%S.mp4", 1, INT64_MAX, "99991231T235959.mp4"},
        {"ride %Y.mp4", 2, leap_day, "ride 2000-2.mp4"},
        {"dir/ride.Mp4", 30, 0, "dir/ride-30.Mp4"},
    };
    for (const auto &[text, number, seconds, name] : cases) {
        SCOPED_TRACE(text);
        const auto pattern = name_pattern::parse(text);
        ASSERT_TRUE(pattern);
        EXPECT_EQ(name, pattern->make(number, seconds));
        EXPECT_EQ(number, pattern->match(name));
        EXPECT_EQ(strstr(text, "{number") != nullptr, pattern->is_numbered());
    }
}

TEST(Names, PatternsThatLeadAstrayAreRefused)
{
    std::istringstream patterns(
        "|.mp4|a/.mp4|a|a.mov|a.mp4/b|/a.mp4|../a.mp4|a/../b.mp4|./a.mp4|a//b.mp4|a./b.mp4|"
        "a /b.mp4|a\nb.mp4|a\x7f.mp4|%T.mp4|%.mp4|%%.mp4|a%|{number.mp4|{number:}.mp4|"
        "{number:0}.mp4|{number:11}.mp4|{number:08}.mp4|{number:-1}.mp4|{Number}.mp4|a}.mp4|{}.mp4|"
        "{number}{number}.mp4|1/2/3/4/5/6/7/8/9/a.mp4");
    for (std::string pattern; getline(patterns, pattern, '|');) EXPECT_FALSE(name_pattern::parse(pattern)) << pattern;
    EXPECT_FALSE(name_pattern::parse(std::string("a\0b.mp4", 7)));
    EXPECT_FALSE(name_pattern::parse(std::string(190, 'x') + "{number}.mp4"));
    EXPECT_TRUE(name_pattern::parse("1/2/3/4/5/6/7/8/{number}.mp4"));
    EXPECT_TRUE(name_pattern::parse("..a/...b.mp4"));
    EXPECT_TRUE(name_pattern::parse(default_pattern));
}

TEST(Names, OnlyWhatAPatternMakesIsMatched)
{
    const std::pair<const char *, std::vector<const char *>> cases[] = {
        {"{number}.mp4",
         {"0000001.mp4", "000000001.mp4", "00000000.mp4", "99999999999.mp4", "00000001.MP4", "00000001.mp4.journal",
          "0000000a.mp4", "00000001-recovered.mp4", "99999999999999999999999999.mp4", ".mp4", "", "x/00000001.mp4"}},
        {"c{number:1}-%S.mp4", {"c-10.mp4", "c1-60.mp4", "c01-10.mp4", "c1-1.mp4", "d1-10.mp4", "c 1-10.mp4"}},
        {"%Y/%Y%m%d_{number:1}.mp4",
         {"2001/20000101_1.mp4", "2001/20010229_1.mp4", "2001/20011301_1.mp4", "2001/20010100_1.mp4",
          "2001/20010431_1.mp4", "1969/19690101_1.mp4", "2100/21000229_1.mp4", "2001/20010001_1.mp4"}},
        {"%H%M.mp4",
         {"2400.mp4", "1260.mp4", "1200-1.mp4", "1200-02.mp4", "1200-.mp4", "1200x2.mp4", "1200-99999999999.mp4"}},
    };
    for (const auto &[pattern, foreign] : cases)
        for (const char *name : foreign)
            EXPECT_FALSE(name_pattern::parse(pattern).value().match(name)) << pattern << ' ' << name;
    EXPECT_EQ(name_pattern::parse("%d.mp4")->match("31-7.mp4"), 7u);
    EXPECT_EQ(name_pattern::parse("%m%d.mp4")->match("0229.mp4"), 1u);
}

TEST(Names, DatesAreThoseOfTheSystem)
{
    const auto pattern = name_pattern::parse("%Y%m%d%H%M%S.mp4").value();
    std::mt19937_64 random(1);
    for (int i = 0; i < 20000; i++) {
        const auto seconds = static_cast<time_t>(random() % (sizeof(time_t) == 4 ? INT32_MAX : 253'402'300'800));
        struct tm parts;
        char text[32];
        strftime(text, sizeof text, "%Y%m%d%H%M%S.mp4", gmtime_r(&seconds, &parts));
        ASSERT_EQ(pattern.make(1, seconds), text);
        ASSERT_EQ(pattern.match(text), 1u);
    }
}

/* ---- Times ---- */

constexpr int64_t second = 1'000'000'000;
constexpr mp4_track_desc camera = {MP4_TRACK_H264 | MP4_TRACK_RAW, {{640, 360, 0}}};
constexpr mp4_track_desc microphone(uint32_t rate)
{
    return {MP4_TRACK_AAC | MP4_TRACK_RAW, {{2, 16, rate}}};
}

std::string text_of(std::optional<mp4_time> time)
{
    if (!time) return "-";
    return std::to_string(time->seconds) + "." + std::to_string(1'000'000'000 + int64_t(time->nanoseconds)).substr(1);
}

TEST(Times, LateSuccessorsMakeUpForWhatWasGuessed)
{
    constexpr int64_t ms = 1'000'000;
    const mp4_track_desc tracks[] = {camera};
    timeline line(tracks);
    line.begin(7 * second);
    EXPECT_EQ(text_of(line.start(0, 7 * second)), "0.000000000");
    EXPECT_EQ(text_of(line.release(0)), "-");                      // the first is not held
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 40 * ms)), "-"); // held from here on
    EXPECT_EQ(text_of(line.release(0)), "0.080000000");            // as long as the first
    EXPECT_EQ(text_of(line.release(0)), "-");
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 1000 * ms)), "-"); // begins at 80 ms
    EXPECT_EQ(line.made_up(), 920 * ms);
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 1010 * ms)), "1.010000000"); // exact again
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 1020 * ms)), "1.020000000");
    EXPECT_EQ(line.usual_next(0), 7 * second + 1030 * ms);
    EXPECT_EQ(text_of(line.release(0)), "1.030000000");
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 1025 * ms)), "-");           // before the guess
    EXPECT_EQ(text_of(line.follow(0, 7 * second + 1028 * ms)), "1.030000000"); // never back
    EXPECT_EQ(line.made_up(), 925 * ms);
    EXPECT_EQ(text_of(line.finish(0, 7 * second + 2000 * ms + 499'999)), "2.000000000");
    EXPECT_EQ(text_of(line.finish(0, 9 * second)), "-");
}

TEST(Times, SamplesNearTheEndAreTheNextFiles)
{
    constexpr int64_t ms = 1'000'000, end = second;
    const mp4_track_desc tracks[] = {camera, microphone(48000)};
    timeline line(tracks);
    line.begin(0);
    EXPECT_TRUE(line.is_before(1, end - 2 * ms, end));
    EXPECT_FALSE(line.is_before(1, end - ms - 400'000, end));
    line.start(1, end - 32 * ms); // its next one is counted at 10.667 ms before the end
    EXPECT_TRUE(line.is_before(1, end - ms, end));
    EXPECT_FALSE(line.is_before(1, end + ms, end)); // more than half a frame away
    line.follow(1, end - 2 * ms);
    EXPECT_EQ(text_of(line.finish(1, end)), "1.000000000");

    line.begin(end); // sound that began before it begins with it, and goes on where it was captured
    EXPECT_EQ(text_of(line.start(1, end - 1'500'000)), "0.000000000");
    line.follow(1, end + 20 * ms);
    EXPECT_EQ(text_of(line.follow(1, end + 42 * ms)), "0.041166667"); // 1976 samples: 2048 after its capture
}

TEST(Times, WhatTheCoreCannotHoldNeedsANewFile)
{
    const mp4_track_desc tracks[] = {camera, microphone(8000)};
    timeline line(tracks);
    line.begin(earliest_time);
    EXPECT_FALSE(line.has_room_for(0, latest_time));
    line.begin(latest_time);
    EXPECT_FALSE(line.has_room_for(0, earliest_time));
    line.begin(0);
    EXPECT_TRUE(line.has_room_for(0, second * 2'000'000'000));
    EXPECT_FALSE(line.has_room_for(0, second * 2'147'483'000));
    line.start(0, 0);
    EXPECT_TRUE(line.has_room_for(0, 3600 * second));
    EXPECT_TRUE(line.has_room_for(0, 23'860 * second));
    EXPECT_FALSE(line.has_room_for(0, 23'861 * second)); // 2^31 ticks of 1/90000 s
    line.follow(0, second);
    EXPECT_EQ(text_of(line.finish(0, second * 1'000'000)), "2.000000000"); // as long as usual
}

/* ---- The queue ---- */

/** Video of units in two parts, in groups of six, and sound, pushed and taken at random; each frame is its number. */
class queue_run {
public:
    explicit queue_run(uint32_t seed) : random_(seed) {}

    void push()
    {
        const uint32_t track = random_() % 2;
        const uint64_t number = pushed_[track]++;
        const uint16_t flags = track == 0 && number % 12 == 0 ? frame_is_key : 0;
        const auto size = static_cast<uint32_t>(sizeof number + random_() % 3000);
        const auto fill = [&](uint8_t *to, queue::entry &entry) {
            memset(to, 0x55, size);
            memcpy(to, &number, sizeof number);
            entry.length = size;
            return true;
        };
        const queue::result made = frames_.push(track, time_of(track, number), {}, size, flags, fill);
        lost_[track] += made.ended.count;
        if (made.ended.count != 0) { EXPECT_EQ(made.ended.to, time_of(track, number - 1)); }
        if (track == 0 || made.what == queue::outcome::taken) return;
        int videos = 0;
        for (int taken = take(); taken >= 0; taken = take()) videos += taken == 0;
        EXPECT_LE(videos, 1) << "sound went while there was video that nobody had looked for";
    }

    /** @return the track of what was taken; without a frame, -1 */
    int take()
    {
        const queue::taken next = frames_.next();
        if (!next.frame) return -1;
        const uint32_t track = next.frame->track;
        uint64_t number;
        memcpy(&number, next.frame->bytes(), sizeof number);
        const uint64_t due = taken_[track];
        EXPECT_GE(number, due);
        EXPECT_EQ(next.frame->flags & frame_after_gap, number != due ? frame_after_gap : 0);
        const bool torn = track == 0 && number != due && due % 2 == 1;
        EXPECT_EQ(next.frame->flags & frame_after_tear, torn ? frame_after_tear : 0) << number << " after " << due;
        if (track == 0 && number != due) { EXPECT_TRUE(next.frame->flags & frame_is_key); }
        EXPECT_EQ(next.frame->time, time_of(track, number));
        count_[track]++;
        taken_[track] = number + 1;
        held_.push_back(next);
        return static_cast<int>(track);
    }

    void release()
    {
        if (held_.empty()) return;
        const queue::taken oldest = held_.front();
        held_.pop_front();
        const uint8_t *const end = oldest.frame->bytes() + oldest.frame->length;
        EXPECT_TRUE(std::all_of(oldest.frame->bytes() + 8, end, [](uint8_t byte) { return byte == 0x55; }));
        frames_.release(held_.empty() ? queue::everything : held_.front().position);
    }

    void expect_all_counted()
    {
        while (take() >= 0) release();
        EXPECT_EQ(frames_.open_gap(0).count + frames_.open_gap(1).count, frames_.in_use().dropped);
        for (const uint32_t track : {0u, 1u})
            EXPECT_EQ(count_[track] + lost_[track] + frames_.open_gap(track).count, pushed_[track]);
    }

private:
    static int64_t time_of(uint32_t track, uint64_t number)
    {
        return static_cast<int64_t>(track == 0 ? number / 2 : number);
    }

    std::mt19937 random_;
    queue frames_{30'000, 0, 1, 0, capture_line(second)};
    std::array<uint64_t, 2> pushed_ = {}, taken_ = {}, count_ = {}, lost_ = {};
    std::deque<queue::taken> held_;
};

TEST(Queue, DropsGroupsOfPicturesAndCountsThem)
{
    for (uint32_t seed = 0; seed < 50; ++seed) {
        SCOPED_TRACE(seed);
        queue_run run(seed);
        std::mt19937 random(seed);
        for (int step = 0; step < 2'000 && !testing::Test::HasFailure(); ++step) {
            const uint32_t pace = step / 200 % 2 ? 2 : 5; // of ten steps that take: the queue fills, and empties
            run.push();
            if (random() % 10 < pace) run.take();
            if (random() % 10 < pace) run.take();
            if (random() % 10 < 2 * pace) run.release();
        }
        run.expect_all_counted();
    }
}

/* ---- Frames ---- */

constexpr mp4_track_desc h264 = {MP4_TRACK_H264, {}}, h265 = {MP4_TRACK_H265, {}},
                         aac = {MP4_TRACK_AAC, {{2, 16, 48000}}}, surround = {MP4_TRACK_AAC, {{6, 16, 48000}}};

/** What a frame is in a word each, and its sample; "| fault N" for a fault. */
std::string outcome(const mp4_track_desc &track, frame_pieces pieces, bytes &sample)
{
    const frame_facts facts = look_at_frame(track, pieces);
    const auto fault = static_cast<uint32_t>(facts.fault);
    if (fault != 0) return std::string("fault: ") + mediafiles_refused_text(fault);
    sample.assign(facts.stored_size + 1, 0xEE);
    store_frame(track, pieces, facts, sample.data());
    EXPECT_EQ(sample.back(), 0xEE);
    sample.pop_back();
    std::string out;
    if (facts.key) out += " key";
    if (facts.recovery_point) out += " recovery";
    if (facts.has_slices) out += facts.begins_picture ? " picture" : " goes-on";
    set_reader sets(track, sample);
    while (const auto set = sets.next()) out += " " + std::to_string(set->kind) + "#" + std::to_string(set->id);
    return out.empty() ? out : out.substr(1);
}

iovec piece(const bytes &data, size_t begin, size_t end)
{
    return {const_cast<uint8_t *>(data.data()) + begin, end - begin};
}

const struct {
    const char *what;
    const mp4_track_desc &track;
    const char *pushed, *outcome, *sample;
} frames[] = {
    {"key frame with its sets", h264, "00000001 6742c01e80 000001 68eeff3c 000001 6588", "key picture 7#0 8#0",
     "00000005 6742c01e80 00000004 68eeff3c 00000002 6588"},
    {"delimiter, filler and zeros between", h264, "0000000001 0910 0000000000000001 41e0 000001 0cff80 0000", "picture",
     "00000002 0910 00000002 41e0 00000003 0cff80"},
    {"slices that go on with a picture", h264, "000001 4140 000001 41a0", "goes-on", "00000002 4140 00000002 41a0"},
    {"sets alone", h264, "000001 6742c01e50 000001 684a", "7#1 8#1", "00000005 6742c01e50 00000002 684a"},
    {"a zero that belongs to a unit", h264, "000001 41e0000003 000001 41e000", "picture",
     "00000005 41e0000003 00000002 41e0"},
    {"recovery point after a long message", h264, "000001 0605ff0a aa*255 aa*10 060180 80 000001 41e0",
     "recovery picture", nullptr},
    {"another message with a 6 in it", h264, "000001 06050306060680 000001 41e0", "picture", nullptr},
    {"prevented emulation inside a message", h264, "000001 06050400000306 0680 000001 41e0", "picture", nullptr},
    {"a message that is cut", h264, "000001 060506 000001 41e0", "picture", nullptr},
    {"H.265, with sets of an upper layer", h265, "000001 40010c 000001 40090c 000001 4401c0 000001 260180",
     "key picture 6#0 8#0", nullptr},
    {"H.265, second slice", h265, "000001 020140", "goes-on", nullptr},
    {"H.265, picture of an upper layer alone", h265, "000001 260980", "", "00000003 260980"},
    {"H.265 recovery point", h265, "000001 4e01060180 80 000001 0201d0", "recovery picture", nullptr},
    {"nothing", h264, "", "fault: it is empty", nullptr},
    {"no start code", h264, "6588", "fault: damaged (it has no start code)", nullptr},
    {"something before it", h264, "00ff000001 6588", "fault: damaged (it has no start code)", nullptr},
    {"zeros", h264, "00000000", "fault: damaged (it has no start code)", nullptr},
    {"start code at the end", h264, "000001 6588 000001", "fault: damaged (a NAL unit header is cut off)", nullptr},
    {"slice without a header", h264, "000001 65", "fault: damaged (a NAL unit header is cut off)", nullptr},
    {"H.265, half a header", h265, "000001 26 000001 260180", "fault: damaged (a NAL unit header is cut off)", nullptr},
    {"set without a number", h264, "000001 6742c01e 000001 6588",
     "fault: damaged (a parameter set has no valid number)", nullptr},
    {"number too high", h264, "000001 6742c01e0420 000001 6588", "fault: damaged (a parameter set has no valid number)",
     nullptr},
    {"sound", aac, "2100494c", "key picture", "2100494c"},
    {"sound with a header", aac, "fff14c8001 3ffc 2100", "key picture", "2100"},
    {"six channels", surround, "fff14d8001 3ffc 2100", "key picture", "2100"},
    {"sound with a header and a check", aac, "fff04c8001 9ffc 1234 210049", "key picture", "210049"},
    {"sound that begins as half a header, and ends as one", aac, "21f14c8001 3ffc 2100 ff", "key picture",
     "21f14c8001 3ffc 2100 ff"},
    {"a byte of sound", aac, "ff", "fault: it is empty", nullptr},
    {"two frames at once", aac, "fff14c8001 3ffc 2100 fff14c8001 3ffc 2100",
     "fault: damaged (its ADTS header is cut, or states another length)", nullptr},
    {"header alone", aac, "fff14c8000 fffc", "fault: damaged (its ADTS header is cut, or states another length)",
     nullptr},
    {"header cut", aac, "fff14c80", "fault: damaged (its ADTS header is cut, or states another length)", nullptr},
    {"another rate", aac, "fff1508001 3ffc 2100",
     "fault: its ADTS header has another profile, rate or channel count than the track, or several AAC blocks",
     nullptr},
    {"one channel", aac, "fff14c4001 3ffc 2100",
     "fault: its ADTS header has another profile, rate or channel count than the track, or several AAC blocks",
     nullptr},
    {"another profile", aac, "fff10c8001 3ffc 2100",
     "fault: its ADTS header has another profile, rate or channel count than the track, or several AAC blocks",
     nullptr},
    {"two blocks", aac, "fff14c8001 3ffd 2100",
     "fault: its ADTS header has another profile, rate or channel count than the track, or several AAC blocks",
     nullptr},
};

/* In one piece, in up to four, and in one for each byte. */
TEST(Frames, AreTakenApartHoweverTheyAreCut)
{
    for (const auto &c : frames) {
        SCOPED_TRACE(c.what);
        const bytes pushed = hex(c.pushed);
        bytes expected, sample;
        const iovec whole[] = {piece(pushed, 0, pushed.size())};
        EXPECT_EQ(c.outcome, outcome(c.track, whole, expected));
        EXPECT_TRUE(!c.sample || expected == hex(c.sample));
        for (size_t i = 0; i <= pushed.size(); i++)
            for (size_t j = i; j <= std::min(pushed.size(), i + 8); j++) {
                const iovec pieces[] = {piece(pushed, 0, i), piece(pushed, i, j), {}, piece(pushed, j, pushed.size())};
                ASSERT_EQ(c.outcome, outcome(c.track, pieces, sample)) << i << ' ' << j;
                ASSERT_EQ(expected, sample) << i << ' ' << j;
            }
        std::vector<iovec> single;
        for (size_t i = 0; i < pushed.size(); i++) single.push_back(piece(pushed, i, i + 1));
        EXPECT_EQ(c.outcome, outcome(c.track, single, sample));
        EXPECT_EQ(expected, sample);
    }
}

/* A device's buffer, written again too early: no byte goes beyond the place that the frame was given. */
TEST(Frames, ThatChangeWhileTheyAreStoredStayInTheirPlace)
{
    const bytes unit = hex("000001 41e0"), shorter = hex("000001 41");
    bytes frame;
    for (int i = 0; i < 17; i++) frame.insert(frame.end(), unit.begin(), unit.end());
    frame.resize(frame.size() + 96, 0xe0);
    const iovec whole[] = {piece(frame, 0, frame.size())};
    const frame_facts facts = look_at_frame(h264, whole);
    for (size_t at = 80; at + 4 <= frame.size(); at += 4) std::copy_n(shorter.data(), 4, frame.data() + at);
    bytes sample(facts.stored_size + 1, 0xEE);
    store_frame(h264, whole, facts, sample.data());
    EXPECT_EQ(sample.back(), 0xEE);
}

TEST(Frames, SoundThatATrackCanState)
{
    for (const uint32_t rate : {7350u, 8000u, 44100u, 64000u}) EXPECT_TRUE(can_state({6, 16, rate}));
    for (const uint32_t rate : {0u, 88200u, 96000u, 44101u}) EXPECT_FALSE(can_state({2, 16, rate}));
    EXPECT_FALSE(can_state({0, 16, 48000}));
    EXPECT_FALSE(can_state({7, 16, 48000}));
}

/** Encoded by x264 and x265 at these sizes. */
const std::tuple<const char *, uint32_t, const char *, uint32_t, uint32_t> pictures[] = {
    {"baseline", 0x101, "6742c00bd902c4ec0440000003004000000c83c50a92", 176, 144},
    {"cropped", 0x101, "6764001eacd940a42fe224c044000003000400000300c83c58b658", 642, 362},
    {"4:4:4", 0x8101, "67f4001e919b281485fc21360220000003002000000641e2c5b2c0", 641, 363},
    {"4:2:2", 0x101, "677a001ebcd940a42fe226c044000003000400000300c83c58b658", 642, 363},
    {"grey", 0x101, "6764001ef3650290bf8426c05b20000003002000000641e2c5b2c0", 641, 363},
    {"interlaced", 0x101, "6764001facd940b426fc460220000003002000000643e2c5b2c0", 720, 580},
    {"scaling lists", 0x101, "6764001eacd940a02ff97011000003000100000300320f162d96", 640, 360},
    {"H.265, cropped", 0x102,
     "42010101600000030090000003000003003fa005120171c9265959a4932bc05a020000030002000003003210", 642, 362},
    {"H.265, 4:4:4", 0x8102, "4201010408000003009e0800000300003f9000a2402e3889b2cacd24995e02d0100000030010000003019080",
     641, 363},
    {"H.265, 4:2:2", 0x102, "4201010408000003009d0800000300003fb005120171c9365959a4932bc05a020000030002000003003210",
     642, 363},
    {"H.265, two temporal layers", 0x102,
     "42010201600000030090000003000003003f0000a005020171659598acd24995e02d010000030001000003001908", 640, 368},
    {"H.265, 10 bits", 0x102, "420101022000000300900000030000030096a001e020021c4d96566924caf0168080000003008000000c84",
     3840, 2160},
};

TEST(Pictures, HaveTheirSize)
{
    for (const auto &[what, type, sps, width, height] : pictures) {
        SCOPED_TRACE(what);
        const bytes set = hex(sps);
        const auto size = read_picture_size(type, set);
        ASSERT_TRUE(size);
        EXPECT_EQ(size->width, width);
        EXPECT_EQ(size->height, height);
        for (size_t length = 0; length < 7; length++) { // exact blocks, for the sanitizers
            const bytes cut(set.begin(), set.begin() + ptrdiff_t(length));
            EXPECT_FALSE(read_picture_size(type, cut)) << length;
        }
        EXPECT_FALSE(read_picture_size(type ^ 3, set)); // the other codec's
        EXPECT_FALSE(read_picture_size(MP4_TRACK_AAC, set));
    }
}

/** An H.264 SPS, of the baseline profile if nothing else is said: "1" is ue(v) of 0. */
bytes sps_of(const std::string &bits, const char *begin = "6742c01e")
{
    bytes out = hex(begin);
    for (size_t i = 0; i < bits.size(); i += 8) {
        int byte = 0;
        for (size_t j = i; j < i + 8; j++) byte = byte * 2 + (j < bits.size() && bits[j] == '1');
        out.push_back(uint8_t(byte));
    }
    return out;
}
std::string ue(uint64_t value)
{
    std::string bits;
    for (++value; value != 0; value /= 2) bits.insert(bits.begin(), char('0' + value % 2));
    return std::string(bits.size() - 1, '0') + bits;
}

/* One of them in full, one that ends early, those between left out; there are four more of them in 4:4:4. */
TEST(Pictures, AreReadAfterScalingLists)
{
    const std::string full = "1" + std::string(64, '1'), ends = "1" + ue(16),
                      depths = "1"
                               "1"
                               "0"
                               "1";
    const std::string rest = "1" + ue(2) +
                             "1"
                             "0" +
                             ue(39) + ue(22) +
                             "1"
                             "1"
                             "0"
                             "0";
    for (const auto &[chroma, lists] : {std::pair(ue(1) + depths, ends + "000000" + full),
                                        std::pair(ue(3) + "0" + depths, ends + "0000000000" + full)}) {
        const auto size = read_picture_size(MP4_TRACK_H264, sps_of("1" + chroma + lists + rest, "67f4001e"));
        ASSERT_TRUE(size);
        EXPECT_EQ(std::pair(size->width, size->height), std::pair(640u, 368u));
    }
}

TEST(Pictures, OfAbsurdSizesAreRefused)
{
    const struct {
        const char *what;
        uint64_t columns, rows, left, top; // macroblocks; cropped in pairs of luma samples
        bool taken;
    } cases[] = {
        {"one macroblock", 1, 1, 0, 0, true},    {"16880", 1055, 1, 0, 0, true},
        {"16896", 1056, 1, 0, 0, false},         {"16896, cropped", 1056, 1, 4, 0, true},
        {"too high", 1, 1056, 0, 0, false},      {"2^32 columns", 4294967295, 1, 0, 0, false},
        {"cropped to 2", 1, 1, 7, 7, true},      {"cropped to nothing", 1, 1, 8, 0, false},
        {"cropped beyond", 1, 1, 0, 100, false}, {"cropped by 2^32", 1, 1, 4294967290, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        // id, frame_num, order count type 2, references, gaps; size; frames only, direct 8x8; cropping
        const bytes sps =
            sps_of("1101110" + ue(c.columns - 1) + ue(c.rows - 1) + "111" + ue(c.left) + "1" + ue(c.top) + "101");
        const auto size = read_picture_size(MP4_TRACK_H264, sps);
        EXPECT_EQ(size.has_value(), c.taken);
        EXPECT_TRUE(!size || size->width == c.columns * 16 - 2 * c.left);
    }
    EXPECT_FALSE(read_picture_size(MP4_TRACK_H264, sps_of("110010010111101"))); // order count type 3
}

} // namespace
