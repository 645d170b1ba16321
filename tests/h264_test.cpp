// H.264 reading, and the two tracks that convert frames: bit reader and
// parsers against plain definitions, the Annex-B splitter, ADTS stripping.

#include <bit>

#include <gtest/gtest.h>

#include <mediafiles/aac-track.h>
#include <mediafiles/atom.h>
#include <mediafiles/h264-parser.h>
#include <mediafiles/h264-track.h>
#include <mediafiles/support/array-stream.h>

#include "support/codec-track.h"

namespace {

/** The payload bits of a NAL unit: a 3 behind two zeros is left out. */
std::string unpack(const bytes &data)
{
    std::string bits;
    int zeros = 0;
    for (const uint8_t byte : data) {
        const bool dropped = zeros >= 2 && byte == 3;
        zeros = byte == 0 ? zeros + 1 : 0;
        for (int bit = 7; bit >= 0 && !dropped; --bit) bits += byte >> bit & 1 ? '1' : '0';
    }
    return bits;
}

TEST(BitReader, DropsEmulationPreventionAtAnyWidth)
{
    for (int round = 0; round < 20'000; ++round) {
        bytes raw(below(24));
        for (uint8_t &byte : raw) byte = bytes{0, 0, 0, 0, 1, 3, 3, 255}[below(8)];
        const exact data(raw);
        const std::string bits = unpack(raw);
        h264_bs reader = data.reader();
        for (size_t at = 0, n = 0; at <= bits.size(); at += n) {
            n = below(33);
            uint32_t value = 0;
            errno = 0;
            const int result = h264_bs_read_bits(&reader, static_cast<int>(n), &value);
            const bool there = at + n <= bits.size();
            ASSERT_TRUE(result == (there ? 0 : -1) && errno == (there ? 0 : ENOSPC)) << dump(raw) << " " << at;
            ASSERT_EQ(there && n != 0 ? std::stoul(bits.substr(at, n), nullptr, 2) : 0, value) << dump(raw) << at;
        }
    }
}

TEST(ExpGolomb, ReadsEveryLength)
{
    const struct { const char *code; int error; uint32_t ue; int32_t se; } cases[] = {
        {"80", 0, 0, 0}, {"40", 0, 1, 1}, {"60", 0, 2, -1}, {"20", 0, 3, 2}, {"28", 0, 4, -2}, {"10", 0, 7, 4},
        {"01fc", 0, 253, 127}, {"008000", 0, 255, 128}, {"000001 000000", 0, 0x7FFFFF, 0x400000},
        {"0000030001 fffffffe", 0, 0xFFFFFFFE, -0x7FFFFFFF}, // 31 zeros, with an emulation prevention byte
        {"0000030001 fffffffc", 0, 0xFFFFFFFD, 0x7FFFFFFF},
        {"0000030000 ff", EILSEQ, 0, 0}, {"000003000003 00ff", EILSEQ, 0, 0}, // 32 and 40 zeros
        {"0000030000", ENOSPC, 0, 0}, {"08", ENOSPC, 0, 0}, {"", ENOSPC, 0, 0},
    };
    for (size_t i = 0; i < 2 * std::size(cases); ++i) {
        const auto &c = cases[i / 2];
        const exact data(hex(c.code));
        h264_bs reader = data.reader();
        uint32_t ue = 0, rest = 0;
        int32_t se = 0;
        errno = 0;
        const int result = i % 2 == 0 ? h264_bs_read_ue(&reader, &ue) : h264_bs_read_se(&reader, &se);
        EXPECT_TRUE(result == (c.error == 0 ? 0 : -1) && errno == c.error) << c.code;
        EXPECT_TRUE(c.error != 0 || (i % 2 == 0 ? ue == c.ue : se == c.se)) << c.code << " " << ue << " " << se;
        EXPECT_TRUE(c.error != EILSEQ || (h264_bs_read_bits(&reader, 7, &rest) == 0 && rest == 0x7F)) << c.code;
    }
    for (uint32_t first_nine = 0; first_nine < 512; ++first_nine) {
        EXPECT_EQ(2 * (std::countl_zero(first_nine) - 23) + 1, ff_golomb_vlc_len[first_nine]) << first_nine;
    }
}

TEST(StartCode, IsFoundAsByItsDefinition)
{
    for (uint32_t round = 0; round < 71 * 16 * 25; ++round) {
        const uint32_t length = round % 71 + 64 * (below(2) * below(4)); // also several blocks of vector code
        const uint32_t before = round / 71 % 16;                         // zeros that do not count
        const uint32_t density = 2 + below(40);
        bytes all(before + length);
        for (uint32_t i = before; i < all.size(); ++i) all[i] = below(density) < 2 ? 0 : bytes{1, 1, 2, 128}[below(4)];
        if (length >= 3 && below(3) == 0) overlay(all, before + below(length - 2), {0, 0, 1});
        const exact block(all);
        const uint8_t *data = block.data.get() + before;
        uint32_t p = 0, offset = 77, code_length = 77;
        while (p + 3 <= length && !(data[p] == 0 && data[p + 1] == 0 && data[p + 2] == 1)) ++p;
        const bool found = p + 3 <= length, four = found && p > 0 && data[p - 1] == 0;
        ASSERT_EQ(found, h264_parser_find_start_code(data, length, &offset, &code_length)) << dump(all);
        ASSERT_EQ(found ? four ? 4u : 3u : 0u, code_length) << dump(all);
        ASSERT_EQ(four ? p - 1 : p, offset) << dump(all);
    }
}

TEST(Parsers, DecodeTheLeadingFields)
{
    using fields = std::vector<uint32_t>; // 3 of a NAL unit header, 2 of a slice header, 8 of an SPS
    const struct { const char *nal; int error; fields expected; std::string printed; } cases[] = {
        {"67", 0, {0, 3, 7}, ""}, {"41", 0, {0, 2, 1}, ""}, {"ff", 0, {1, 3, 31}, ""}, {"", ENOSPC, {9, 9, 9}, ""},
        {"419a", 0, {0, 5}, ""}, {"418a", 0, {0, 9}, ""}, {"418b", EILSEQ, {0, 10}, ""}, {"4140", ENOSPC, {1, 0}, ""},
        {"41", ENOSPC, {0, 0}, ""}, {"", ENOSPC, {9, 9}, ""},
        {"67640028ac", 0, {100, 0, 0, 0, 0, 0, 0, 40}, "+++++ sps->profile_idc=64 (100)\n"},
        {"6742c01e", 0, {66, 1, 1, 0, 0, 0, 0, 30}, "+++++ sps->profile_idc=42 (66)\n"},
        {"6700000301", 0, {0, 0, 0, 0, 0, 0, 0, 1}, "+++++ sps->profile_idc=00 (0)\n"},
        {"67", ENOSPC, {0, 0, 0, 0, 0, 0, 0, 0}, ""},
        {"677aab28", 0, {122, 1, 0, 1, 0, 1, 0, 40}, "+++++ sps->profile_idc=7a (122)\n"},
        {"674d55", ENOSPC, {77, 0, 1, 0, 1, 0, 1, 0}, ""}, {"", ENOSPC, {9, 9, 9, 9, 9, 9, 9, 9}, ""},
    };
    for (const auto &c : cases) {
        const exact nal(hex(c.nal));
        h264_nal_header h = {9, 9, 9};
        h264_slice_header slice = {9, 9};
        h264_sps s = {9, 9, 9, 9, 9, 9, 9, 9};
        const size_t count = c.expected.size();
        testing::internal::CaptureStdout();
        errno = 0;
        const int result = count == 3   ? h264_parser_decode_nal_header(nal.data.get(), nal.size, &h)
                           : count == 2 ? h264_parser_decode_slice_header(nal.data.get(), nal.size, &slice)
                                        : h264_parser_decode_sps(nal.data.get(), nal.size, &s);
        const int error = errno;
        EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
        EXPECT_TRUE(result == (c.error == 0 ? 0 : -1) && error == c.error) << c.nal << " " << error;
        EXPECT_EQ(c.expected, count == 3   ? fields({h.forbidden_zero_bit, h.nal_ref_idc, h.nal_unit_type})
                              : count == 2 ? fields({slice.first_mb_in_slice, slice.slice_type})
                                           : fields(&s.profile_idc, &s.level_idc + 1)) << c.nal;
    }
}

TEST(H264Track, ReplacesStartCodesByLengths)
{
    const struct { const char *what; std::string frame, stored; } cases[] = {
        {"parameter sets and slice", "00000001 674200*7 00000001 68ebe3cb 000001 6588ff",
         "00000009 674200*7 00000004 68ebe3cb 00000003 6588ff"},
        {"delimiter", "00000001 0910 00000001 419a", "00000002 0910 00000002 419a"},
        {"bytes before the first start code", "aabb00 00000001 65ff", "00000002 65ff"},
        {"the first slice runs to the end", "000001 0688 000001 41aa 00000001 06bb 000001 41cc",
         "00000002 0688 0000000d 41aa 00000001 06bb 000001 41cc"},
        {"IDR, other bits of the header set", "000001 e5aa 000001 06", "00000006 e5aa 000001 06"},
        {"non-reference slice", "000001 01aa 000001 06", "00000006 01aa 000001 06"},
        {"data partitions", "000001 42aa 000001 43 000001 44cc", "00000002 42aa 00000001 43 00000002 44cc"},
        {"last unit with trailing zeros", "000001 06aa000000", "00000005 06aa000000"},
        {"more zeros than the code takes", "000001 06aa 00 00000001 65bb", "00000003 06aa00 00000002 65bb"},
        {"start code upon start code", "000001 000001 00000001 65aa", "00*8 00000002 65aa"},
        {"32 units", repeat("000001 06aa ", 31) + "000001 65bb", repeat("00000002 06aa ", 31) + "00000002 65bb"},
        {"32 units without slice", repeat("000001 06aa ", 32), repeat("00000002 06aa ", 32)},
        {"32 units, 31 empty", repeat("000001 ", 31) + "000001 65bb", "00*124 00000002 65bb"},
        {"33 units", repeat("000001 06aa ", 32) + "000001 65bb", ""},
        {"33 units, 32 empty", repeat("000001 ", 32) + "000001 65bb", ""},
        {"33 units without slice", repeat("000001 06aa ", 33), ""},
        {"no start code", "419aff0001", ""},
        {"start code only", "00000001", ""},
        {"start code at the end", "000001 0688 000001", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        recorder video(mp4_h264_track_create(1, 16, 16, 0));
        EXPECT_EQ(0, video.add(c.frame, 0));
        EXPECT_EQ(dump(c.stored), dump(video.out.content));
        EXPECT_EQ(c.stored.empty() ? "" : " v" + std::to_string(hex(c.stored).size()), video.out.log);
        EXPECT_EQ(c.stored.empty() ? 0u : 1u, video.track->sample_count);
        EXPECT_EQ(c.stored.empty(), (video.track->flags & MP4_TRACK_ALL_SYNC) != 0) << "the key flag is lost";
        video.out.fail_at = video.out.calls;
        EXPECT_EQ(c.stored.empty() ? 0 : -1, video.add(c.frame));
    }
}

TEST(H264Track, KeepsJournalsAndDescribesTheFirstParameterSets)
{
    recorder video(mp4_h264_track_create(1, 0x10780, 1080, 0));
    const std::string high = "+++++ sps->profile_idc=64 (100)\n", baseline = "+++++ sps->profile_idc=42 (66)\n";
    // Each frame is dropped at its end: what it carries counts from where it was met.
    const struct { bool begin; const char *frame, *journaled, *avcC; std::string printed; } cases[] = {
        {true, "", "", "01000000 ffe1 0000 01 0000", ""},
        {false, "000001 6764a828 000001 6742571e 000001", "07050400 6764a828",
         "0164a828 ffe1 0004 6764a828 01 0000", high},
        {false, "000001 68ebe3cb 000001", "08050400 68ebe3cb", "0164a828 ffe1 0004 6764a828 01 0004 68ebe3cb", high},
        {false, "000001 68aa 000001 6742571e 000001", "", "0164a828 ffe1 0004 6764a828 01 0004 68ebe3cb", high},
        {true, "000001 68aaaaaa 000001 6742571e 000001", "08050400 68aaaaaa 07050400 6742571e",
         "0142541e ffe1 0004 6742571e 01 0004 68aaaaaa", baseline},
        {true, "000001 67000003 000001", "07050400 67000003", "01000000 ffe1 0004 67000003 01 0000", ""}, // no level
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.avcC);
        if (c.begin) mp4_track_finish_record(video.track, 1);
        if (c.begin) mp4_track_begin_record(video.track, &video.out, video.journal.get(), 5);
        EXPECT_EQ(0, video.add(c.frame));
        EXPECT_EQ("", video.out.log);
        EXPECT_EQ(dump(c.journaled), video.journaled());
        fake_stream entry;
        mp4_atom stsd = {};
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, video.track->write_sample_entry(video.track, &stsd, &entry));
        EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
        const auto size = static_cast<uint8_t>(8 + hex(c.avcC).size());
        const bytes sizes = {static_cast<uint8_t>(86 + size), size};
        EXPECT_EQ("000000" + dump(sizes).substr(0, 2) + dump("'avc1' 00*6 0001 00*16 0780 0438 00480000 00480000 00*4 "
                  "0001 00*32 0018 ffff 000000") + dump(sizes).substr(2) + dump("'avcC'") + dump(c.avcC),
                  dump(entry.content));
    }
}

TEST(AacTrack, StripsTheHeaderOfOneWholeAdtsFrame)
{
    const struct { const char *what, *frame; size_t header; } cases[] = {
        {"smallest frame", "fff15080 011ffc aa", 7},
        {"no payload", "fff15080 00fffc", 0},
        {"with CRC", "fff05080 015ffc 1234 aa", 9},
        {"with CRC, no payload", "fff05080 013ffc 1234", 0},
        {"all bits of the length", "fff15083 fffffc aa*8184", 7},
        {"MPEG-2, other fields set", "fff9fffc 011fff aa", 7},
        {"length too large", "fff15080 013ffc aa", 0},
        {"length too small", "fff15080 011ffc aabb", 0},
        {"two frames", "fff15080 011ffc aa fff15080 011ffc aa", 0},
        {"sync word cut at 11 bits", "ffe15080 011ffc aa", 0},
        {"bare frame", "2110048ca5", 0},
    };
    for (const auto &c : cases) {
        for (const bool raw : {false, true}) { // neither has a cache: a sample of less than a byte, samples as they are
            SCOPED_TRACE(c.what + std::to_string(raw));
            recorder audio(mp4_aac_track_create(1, 2, raw ? 16 : 7, 48000, raw));
            EXPECT_EQ(0, audio.add(c.frame));
            EXPECT_EQ(dump(c.frame).substr(raw ? 0 : 2 * c.header), dump(audio.out.content));
        }
    }
    const recorder audio(mp4_aac_track_create(1, 2, 0x10017, 65536 + 48000, 0));
    EXPECT_EQ((65536u + 48000) * (0x10017 / 8), audio.track->cache_size);
}

} // namespace
