// The tracks that convert frames: the Annex-B splitter of H.264 and H.265,
// what they keep of parameter sets, and ADTS stripping.

#include <tuple>

#include <gtest/gtest.h>

#include <mediafiles/aac-track.h>
#include <mediafiles/atom.h>
#include <mediafiles/h264-track.h>
#include <mediafiles/h265-track.h>

#include "support/codec-track.h"

namespace {

enum codec { h264, h265 };

mp4_track *create(codec codec, uint32_t id, int width, int height, uint32_t raw = 0)
{
    testing::internal::CaptureStdout();
    mp4_track *track = (codec == h264 ? mp4_h264_track_create : mp4_h265_track_create)(id, width, height, raw);
    const std::string function = "[src/mediafiles/mp4/h265-track:mp4_h265_track_create]";
    const std::string line = function + " id=" + std::to_string(id) + ", width=" + std::to_string(width) +
                             ", height=" + std::to_string(height) + ".\n";
    EXPECT_EQ(codec == h264 ? "" : line, testing::internal::GetCapturedStdout());
    return track;
}

const std::tuple<codec, const char *, std::string, std::string> access_units[] = {
    {h264, "parameter sets and slice", "00000001 674200*7 00000001 68ebe3cb 000001 6588ff",
     "00000009 674200*7 00000004 68ebe3cb 00000003 6588ff"},
    {h264, "delimiter", "00000001 0910 00000001 419a", "00000002 0910 00000002 419a"},
    {h264, "bytes before the first start code", "aabb00 00000001 65ff", "00000002 65ff"},
    {h264, "the first slice runs to the end", "000001 0688 000001 41aa 00000001 06bb 000001 41cc",
     "00000002 0688 0000000d 41aa 00000001 06bb 000001 41cc"},
    {h264, "IDR, other bits of the header set", "000001 e5aa 000001 06", "00000006 e5aa 000001 06"},
    {h264, "non-reference slice", "000001 01aa 000001 06", "00000006 01aa 000001 06"},
    {h264, "data partitions", "000001 42aa 000001 43 000001 44cc", "00000002 42aa 00000001 43 00000002 44cc"},
    {h264, "last unit with trailing zeros", "000001 06aa000000", "00000005 06aa000000"},
    {h264, "more zeros than the code takes", "000001 06aa 00 00000001 65bb", "00000003 06aa00 00000002 65bb"},
    {h264, "start code upon start code", "000001 000001 00000001 65aa", "00*8 00000002 65aa"},
    {h264, "32 units", repeat("000001 06aa ", 31) + "000001 65bb", repeat("00000002 06aa ", 31) + "00000002 65bb"},
    {h264, "32 units without slice", repeat("000001 06aa ", 32), repeat("00000002 06aa ", 32)},
    {h264, "32 units, 31 empty", repeat("000001 ", 31) + "000001 65bb", "00*124 00000002 65bb"},
    {h264, "33 units", repeat("000001 06aa ", 32) + "000001 65bb", ""},
    {h264, "33 units, 32 empty", repeat("000001 ", 32) + "000001 65bb", ""},
    {h264, "33 units without slice", repeat("000001 06aa ", 33), ""},
    {h264, "no start code", "419aff0001", ""},
    {h264, "start code only", "00000001", ""},
    {h264, "start code at the end", "000001 0688 000001", ""},
    {h265, "TRAIL_R runs to the end", "00000001 0201aa 000001 0201bb", "00000009 0201aa 000001 0201bb"},
    {h265, "IDR_W_RADL runs to the end", "000001 2601aa 000001 2601bb", "00000009 2601aa 000001 2601bb"},
    {h265, "two CRA slices", "000001 2a01aa 00000001 2a01bb", "00000003 2a01aa 00000003 2a01bb"},
    {h265, "TRAIL_N, IDR_N_LP, suffix SEI", "000001 0001 000001 2801aa 000001 5001",
     "00000002 0001 00000003 2801aa 00000002 5001"},
    {h265, "32 units", repeat("000001 2a01 ", 32), repeat("00000002 2a01 ", 32)},
    {h265, "33 units", repeat("000001 2a01 ", 32) + "000001 0201", ""},
    {h265, "header cut", "000001 2a01 000001 02", ""},
    {h265, "no start code", "0201aa", ""},
};

TEST(VideoTrack, ReplacesStartCodesByLengths)
{
    for (const auto &[codec, what, frame, stored] : access_units) {
        SCOPED_TRACE(what);
        recorder video(create(codec, 1, 16, 16));
        const std::string line =
            codec == h265 && what == std::string("no start code") ? "could not find h265 start code\n" : "";
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, video.add(frame, 0));
        EXPECT_EQ(line, testing::internal::GetCapturedStdout());
        EXPECT_EQ(dump(stored), dump(video.out.content));
        EXPECT_EQ(stored.empty() ? "" : " v" + std::to_string(hex(stored).size()), video.out.log);
        EXPECT_EQ(stored.empty() ? 0u : 1u, video.track->sample_count);
        EXPECT_EQ(stored.empty(), (video.track->flags & MP4_TRACK_ALL_SYNC) != 0) << "the key flag is lost";
        video.out.fail_at = video.out.calls;
        EXPECT_EQ(stored.empty() ? 0 : -1, video.add(frame));
    }
}

/** The sample entry of a track of 1920 x 1080, after what both codecs have in common and the size of the inner box. */
std::string sample_entry(mp4_track *track, const std::string &type, const std::string &printed = "")
{
    fake_stream entry;
    mp4_atom stsd = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, track->write_sample_entry(track, &stsd, &entry));
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    const std::string all = dump(entry.content);
    EXPECT_EQ(dump(type + "00*6 0001 00*16 0780 0438 00480000 00480000 00*4 0001 00*32 0018 ffff"), all.substr(8, 164));
    EXPECT_EQ(entry.content.size(), std::stoul(all.substr(0, 8), nullptr, 16));
    EXPECT_EQ(entry.content.size() - 86, std::stoul(all.substr(172, 8), nullptr, 16));
    return all.substr(180);
}

const std::string high = "+++++ sps->profile_idc=64 (100)\n", baseline = "+++++ sps->profile_idc=42 (66)\n";
// Each frame is dropped at its end: what it carries counts from where it was met.
const std::tuple<bool, const char *, const char *, const char *, std::string> h264_sets[] = {
    {true, "", "", "01000000 ffe1 0000 01 0000", ""},
    {false, "000001 6764a828 000001 6742571e 000001", "07050400 6764a828", "0164a828 ffe1 0004 6764a828 01 0000", high},
    {false, "000001 68ebe3cb 000001", "08050400 68ebe3cb", "0164a828 ffe1 0004 6764a828 01 0004 68ebe3cb", high},
    {false, "000001 68aa 000001 6742571e 000001", "", "0164a828 ffe1 0004 6764a828 01 0004 68ebe3cb", high},
    {true, "000001 68aaaaaa 000001 6742571e 000001", "08050400 68aaaaaa 07050400 6742571e",
     "0142541e ffe1 0004 6742571e 01 0004 68aaaaaa", baseline},
    {true, "000001 67000003 000001", "07050400 67000003", "01000000 ffe1 0004 67000003 01 0000", ""}, // no level
};

TEST(H264Track, KeepsJournalsAndDescribesTheFirstParameterSets)
{
    recorder video(create(h264, 1, 0x10780, 1080));
    for (const auto &[begin, frame, journaled, avcC, printed] : h264_sets) {
        SCOPED_TRACE(avcC);
        if (begin) mp4_track_finish_record(video.track, 1);
        if (begin) mp4_track_begin_record(video.track, &video.out, video.journal.get(), 5);
        EXPECT_EQ(0, video.add(frame));
        EXPECT_EQ("", video.out.log);
        EXPECT_EQ(dump(journaled), video.journaled());
        EXPECT_EQ(dump("'avcC'") + dump(avcC), sample_entry(video.track, "'avc1'", printed));
    }
}

const std::string general = "6000 0000 b000 0000 0000 99 f000 fc fd f8 f8 0000 0f 03";
const std::string no_sets = dump("'hvcC' 01 00 " + general + "20 0001 0000 21 0001 0000 22 0001 0000");

TEST(H265Track, KeepsJournalsAndDescribesTheFirstParameterSets)
{
    recorder video(create(h265, 2, 1920, 1080));
    EXPECT_EQ(no_sets, sample_entry(video.track, "'hev1'"));
    EXPECT_EQ(0, video.add("00000001 400155 00000001 420101016077 00000001 440166aa 00000001 4e0105 00000001 2601af"));
    // The chunk of this frame finds no frame that the movie announced: its sample is not journaled.
    EXPECT_EQ(dump("06050300 40015500 07050600 4201010160770000 08050400 440166aa 09050300 4e010500"),
              video.journaled());
    const std::string sets = "20 0001 0003 400155 21 0001 0006 420101016077 22 0001 0004 440166aa";
    EXPECT_EQ(dump("'hvcC' 01 01 " + general + sets), sample_entry(video.track, "'hev1'"));
    EXPECT_EQ(0, video.add("000001 40019999 000001 42019999 000001 44019999 000001 4e019999 000001 2601"));
    EXPECT_EQ("", video.journaled());
    EXPECT_EQ(dump("'hvcC' 01 01 " + general + sets), sample_entry(video.track, "'hev1'"));
    mp4_track_finish_record(video.track, 1);
    mp4_track_begin_record(video.track, &video.out, nullptr, 0);
    EXPECT_EQ(no_sets, sample_entry(video.track, "'hev1'"));
}

TEST(H265Track, TakesParameterSetsThroughItsSettersWhenRaw)
{
    recorder video(create(h265, 1, 1920, 1080, 1));
    const bytes vps = hex("400155"), sps = hex("420101"), pps = hex("4401");
    for (const bytes *set : {&vps, &pps}) { // the first of a record stays
        video.track->set_vps(video.track, set->data(), static_cast<uint32_t>(set->size()));
        video.track->set_sps(video.track, sps.data(), 3);
        video.track->set_pps(video.track, pps.data(), 2);
        video.track->set_sei(video.track, pps.data(), 2);
    }
    EXPECT_EQ(0, video.add("000001 2601"));
    EXPECT_EQ("0000012601", dump(video.out.content));
    EXPECT_EQ(dump("20 0001 0003 400155 21 0001 0003 420101 22 0001 0002 4401"),
              sample_entry(video.track, "'hev1'").substr(54));
    EXPECT_EQ("", video.journaled());
}

const std::tuple<const char *, const char *, size_t> packets[] = {
    {"smallest frame", "fff15080 011ffc aa", 7},
    {"no payload", "fff15080 00fffc", 0},
    {"with CRC", "fff05080 015ffc 1234 aa", 9},
    {"with CRC, no payload", "fff05080 013ffc 1234", 0},
    {"all bits of the length", "fff15083 fffffc aa*8184", 7},
    {"MPEG-2, other fields set", "fff9fffc 011fff aa", 7},
    {"another layer", "fff75080 011ffc aa", 7},
    {"length too large", "fff15080 013ffc aa", 0},
    {"length too small", "fff15080 011ffc aabb", 0},
    {"two frames", "fff15080 011ffc aa fff15080 011ffc aa", 0},
    {"sync word cut at 11 bits", "ffe15080 011ffc aa", 0},
    {"another first byte", "fef15080 011ffc aa", 0},
    {"bare frame", "2110048ca5", 0},
};

TEST(AacTrack, StripsTheHeaderOfOneWholeAdtsFrame)
{
    for (const auto &[what, frame, header] : packets) {
        for (const bool raw : {false, true}) { // neither has a cache: a sample of less than a byte, samples as they are
            SCOPED_TRACE(what + std::to_string(raw));
            recorder audio(mp4_aac_track_create(1, 2, raw ? 16 : 7, 48000, raw));
            EXPECT_EQ(0, audio.add(frame));
            EXPECT_EQ(dump(frame).substr(raw ? 0 : 2 * header), dump(audio.out.content));
        }
    }
    const recorder audio(mp4_aac_track_create(1, 2, 0x10017, 65536 + 48000, 0));
    EXPECT_EQ((65536u + 48000) * (0x10017 / 8), audio.track->cache_size);
}

} // namespace
