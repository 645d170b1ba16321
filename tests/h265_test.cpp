// H.265 reading and its track: what is of H.265 alone. The bit reader, the
// start-code search and the splitter's course are those of H.264.

#include <gtest/gtest.h>

#include <mediafiles/atom.h>
#include <mediafiles/h265-parser.h>
#include <mediafiles/h265-track.h>

#include "support/codec-track.h"

namespace {

TEST(H265Names, AreTheFunctionsOfH264)
{
    const exact data(hex("12 00000001 64 a8 00000301 4f"));
    for (uint32_t skip = 0; skip < data.size; ++skip) {
        h264_bs one = data.reader(), other = one;
        one.next = other.next += skip;
        one.left = other.left -= skip;
        uint32_t a[5] = {}, b[5] = {};
        int32_t c = 0, d = 0;
        EXPECT_EQ(h264_bs_read_bits(&one, 3, &a[0]), h265_bs_read_bits(&other, 3, &b[0]));
        EXPECT_EQ(h264_bs_read_ue(&one, &a[1]), h265_bs_read_ue(&other, &b[1]));
        EXPECT_EQ(h264_bs_read_se(&one, &c), h265_bs_read_se(&other, &d));
        const uint8_t *at = data.data.get() + skip;
        EXPECT_EQ(h264_parser_find_start_code(at, data.size - skip, &a[2], &a[3]),
                  h265_parser_find_start_code(at, data.size - skip, &b[2], &b[3]));
        h264_slice_header slice = {9, 9};
        h265_slice_header same = {9, 9};
        EXPECT_EQ(h264_parser_decode_slice_header(at, data.size - skip, &slice),
                  h265_parser_decode_slice_header(at, data.size - skip, &same));
        EXPECT_TRUE(std::equal(a, a + 5, b) && c == d && slice.first_mb_in_slice == same.first_mb_in_slice &&
                    slice.slice_type == same.slice_type) << skip;
    }
}

TEST(H265Parser, DecodesTheLeadingFields)
{
    using fields = std::vector<uint32_t>;
    const std::string three = "vps_reserved_three_2bits is not three\n", ffff = "vps_reserved_ffff_16bits is not 0xffff\n";
    enum kind { header, vps, sps };
    const struct { kind what; const char *nal; int error; int result; fields expected; std::string printed; } cases[] = {
        {header, "4001", 0, 0, {0, 32, 0, 1}, ""},
        {header, "2601", 0, 0, {0, 19, 0, 1}, ""},
        {header, "ffff", 0, 0, {1, 63, 63, 7}, ""},
        {header, "819a", 0, 0, {1, 0, 51, 2}, ""},
        {header, "41", ENOSPC, -1, {0, 32, 9, 9}, ""},
        {header, "", ENOSPC, -1, {9, 9, 9, 9}, ""},
        {vps, "40010c01ffff", 0, 0, {0, 1, 0, 0}, ""},
        {vps, "4001afedffff00", 0, 0, {10, 1, 62, 6}, ""},
        {vps, "40010801ffff", 0, -1, {0, 0, 0, 0}, three},
        {vps, "40010c01fffe", 0, -1, {0, 1, 0, 0}, ffff},
        {vps, "40010c01ff", ENOSPC, -1, {0, 1, 0, 0}, ""},
        {vps, "40010c", ENOSPC, -1, {0, 0, 0, 0}, ""},
        {vps, "4001", ENOSPC, -1, {0, 0, 0, 0}, ""},
        {vps, "40", ENOSPC, -1, {9, 9, 9, 9}, ""},
        {sps, "420101016000", 0, 0, {1, 0, 0, 0, 0, 0, 0, 1}, ""},
        {sps, "4201ab60", 0, 0, {1, 1, 0, 1, 0, 1, 0, 0x60}, ""},
        {sps, "4201", ENOSPC, -1, {1, 0, 0, 0, 0, 0, 0, 0}, ""},
        {sps, "", ENOSPC, -1, {9, 9, 9, 9, 9, 9, 9, 9}, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.nal);
        const exact nal(hex(c.nal));
        h265_nal_header h = {9, 9, 9, 9};
        h265_vps v = {9, 9, 9, 9};
        h265_sps s = {9, 9, 9, 9, 9, 9, 9, 9};
        testing::internal::CaptureStdout();
        errno = 0;
        const int result = c.what == header ? h265_parser_decode_nal_header(nal.data.get(), nal.size, &h)
                           : c.what == vps  ? h265_parser_decode_vps(nal.data.get(), nal.size, &v)
                                            : h265_parser_decode_sps(nal.data.get(), nal.size, &s);
        const int error = errno;
        EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(c.error, error);
        EXPECT_EQ(c.expected,
                  c.what == header ? fields({h.forbidden_zero_bit, h.nal_unit_type, h.nuh_layer_id, h.nuh_temporal_id_plus1})
                  : c.what == vps  ? fields({v.vps_id, v.temporal_id_nesting, v.max_layers, v.max_sub_layers})
                                   : fields(&s.profile_idc, &s.level_idc + 1));
    }
}

mp4_track *create(uint32_t id, int width, int height, uint32_t raw)
{
    testing::internal::CaptureStdout();
    mp4_track *track = mp4_h265_track_create(id, width, height, raw);
    char line[128];
    snprintf(line, sizeof line, "[src/mediafiles/mp4/h265-track:mp4_h265_track_create] id=%u, width=%d, height=%d.\n", id,
             width, height);
    EXPECT_EQ(line, testing::internal::GetCapturedStdout());
    return track;
}

TEST(H265Track, SplitsAccessUnits)
{
    const struct { const char *what; std::string frame, stored, printed; } cases[] = {
        {"TRAIL_R runs to the end", "00000001 0201aa 000001 0201bb", "00000009 0201aa 000001 0201bb", ""},
        {"IDR_W_RADL runs to the end", "000001 2601aa 000001 2601bb", "00000009 2601aa 000001 2601bb", ""},
        {"two CRA slices", "000001 2a01aa 00000001 2a01bb", "00000003 2a01aa 00000003 2a01bb", ""},
        {"TRAIL_N, IDR_N_LP, suffix SEI", "000001 0001 000001 2801aa 000001 5001", "00000002 0001 00000003 2801aa 00000002 5001", ""},
        {"32 units", repeat("000001 2a01 ", 32), repeat("00000002 2a01 ", 32), ""},
        {"33 units", repeat("000001 2a01 ", 32) + "000001 0201", "", ""},
        {"header cut", "000001 2a01 000001 02", "", ""},
        {"no start code", "0201aa", "", "could not find h265 start code\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        recorder video(create(1, 16, 16, 0));
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, video.add(c.frame));
        EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
        EXPECT_EQ(dump(c.stored), dump(video.out.content));
        EXPECT_EQ(c.stored.empty() ? 0u : 1u, video.track->sample_count);
    }
}

/** The sample entry of a track, less what hev1 and avc1 have in common. */
std::string sample_entry(mp4_track *track)
{
    fake_stream entry;
    mp4_atom stsd = {};
    EXPECT_EQ(0, track->write_sample_entry(track, &stsd, &entry));
    const std::string all = dump(entry.content);
    EXPECT_EQ(dump("'hev1' 00*6 0001 00*16 0780 0438 00480000 00480000 00*4 0001 00*32 0018 ffff"), all.substr(8, 164));
    EXPECT_EQ(entry.content.size(), std::stoul(all.substr(0, 8), nullptr, 16));
    EXPECT_EQ(entry.content.size() - 86, std::stoul(all.substr(172, 8), nullptr, 16));
    return all.substr(180);
}

TEST(H265Track, KeepsJournalsAndDescribesTheFirstParameterSets)
{
    recorder video(create(2, 1920, 1080, 0));
    const std::string general = "6000 0000 b000 0000 0000 99 f000 fc fd f8 f8 0000 0f 03";
    const std::string none = dump("'hvcC' 01 00 " + general + "20 0001 0000 21 0001 0000 22 0001 0000");
    EXPECT_EQ(none, sample_entry(video.track));

    const std::string frame = "00000001 400155 00000001 420101016077 00000001 440166aa 00000001 4e0105 00000001 2601af";
    EXPECT_EQ(0, video.add(frame));
    // The chunk of this frame finds no frame that the movie announced: its sample is not journaled.
    EXPECT_EQ(dump("06050300 40015500 07050600 4201010160770000 08050400 440166aa 09050300 4e010500"), video.journaled());
    const std::string full = dump("'hvcC' 01 01 " + general + "20 0001 0003 400155 21 0001 0006 420101016077"
                                  "22 0001 0004 440166aa");
    EXPECT_EQ(full, sample_entry(video.track));
    EXPECT_EQ(0, video.add("000001 40019999 000001 42019999 000001 44019999 000001 4e019999 000001 2601"));
    EXPECT_EQ("", video.journaled());
    EXPECT_EQ(full, sample_entry(video.track));

    mp4_track_finish_record(video.track, 1);
    mp4_track_begin_record(video.track, &video.out, nullptr, 0);
    EXPECT_EQ(none, sample_entry(video.track));
}

TEST(H265Track, TakesParameterSetsThroughItsSettersWhenRaw)
{
    recorder video(create(1, 1920, 1080, 1));
    const bytes vps = hex("400155"), sps = hex("420101"), pps = hex("4401");
    for (const bytes *set : {&vps, &pps}) { // the first of a record stays
        video.track->set_vps(video.track, set->data(), static_cast<uint32_t>(set->size()));
        video.track->set_sps(video.track, sps.data(), 3);
        video.track->set_pps(video.track, pps.data(), 2);
        video.track->set_sei(video.track, pps.data(), 2);
    }
    EXPECT_EQ(0, video.add("000001 2601"));
    EXPECT_EQ("0000012601", dump(video.out.content));
    EXPECT_EQ(dump("20 0001 0003 400155 21 0001 0003 420101 22 0001 0002 4401"), sample_entry(video.track).substr(54));
    EXPECT_EQ("", video.journaled());
}

} // namespace
