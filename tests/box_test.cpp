// Boxes and descriptors: framing, bodies against bytes spelled out from the
// standard's tables, and a failure of every stream operation in turn.

#include <gtest/gtest.h>

#include <mediafiles/aac-track.h>
#include <mediafiles/atom.h>
#include <mediafiles/descriptor.h>
#include <mediafiles/movie.h>
#include <mediafiles/support/array-stream.h>
#include <mediafiles/track.h>

#include "support/fake-stream.h"

namespace {

using box_writer = int (*)(mp4_atom *, mp4_stream *);

const std::string matrix = " 00010000 00*12 00010000 00*12 40000000 ";

struct film {
    const bool tracks = true;
    mp4_movie *const movie = mp4_movie_create();
    mp4_track *const video = tracks ? add({MP4_TRACK_H264, {{1920, 1080, 0}}}) : nullptr;
    mp4_track *const audio = tracks ? add({MP4_TRACK_AAC, {{2, 16, 48000}}}) : nullptr;

    ~film() { mp4_movie_destroy(movie); }
    mp4_track *add(const mp4_track_desc &desc) { return movie->tracks[mp4_movie_add_track(movie, &desc)]; }

    /** What a body writer writes. */
    bytes body(box_writer writer, mp4_track *track = nullptr) const
    {
        fake_stream out;
        mp4_atom atom = {writer, {}, 0, movie, track};
        EXPECT_EQ(0, writer(&atom, &out));
        return out.content;
    }
};

/** The tree of boxes in [at, end), which they must fill exactly. */
std::string outline(const bytes &data, size_t at, size_t end)
{
    std::string tree;
    for (size_t size; end - at >= 8; at += size) {
        size = size_t{data[at]} << 24 | size_t{data[at + 1]} << 16 | size_t{data[at + 2]} << 8 | data[at + 3];
        const std::string type(&data[at + 4], &data[at + 8]);
        if (size < 8 || size > end - at) break;
        const bool parent = std::string("trak edts mdia minf dinf stbl").find(type) != std::string::npos;
        tree += (tree.empty() ? "" : " ") + type + (parent ? "(" + outline(data, at + 8, at + size) + ")" : "");
    }
    EXPECT_EQ(end, at);
    return tree;
}

void fill(array_stream *table, const bytes &elements)
{
    array_stream_clear(table);
    const uint32_t size = array_stream_element_size(table);
    for (uint32_t at = 0, one = 1; at < elements.size(); at += size) {
        std::copy_n(&elements[at], size, static_cast<uint8_t *>(array_stream_write(table, &one)));
    }
}

TEST(Framing, WritesSizeAndTypeAroundTheBody)
{
    const auto fails_inside = [](mp4_atom *, mp4_stream *stream) { return stream->write(stream, "abc", 3) - 1; };
    const struct { uint32_t start; box_writer writer; int result; const char *log, *content; } cases[] = {
        {0, mp4_atom_mdat_write, 0, " w4 w4 s0 w4 s8", "00000008 'test'"},
        {5, mp4_atom_ftyp_write, 0, " w4 w4 w4 w4 w4 w4 s5 w4 s29", "00*5 00000018 'test' 'mp42' 00*4 'mp42' 'isom'"},
        {0, fails_inside, -1, " w4 w4 w3", "00*4 'test' 'abc'"},
    };
    for (const auto &c : cases) {
        fake_stream out;
        out.at = c.start;
        mp4_atom atom = {c.writer, {'t', 'e', 's', 't'}, 9, nullptr, nullptr};
        EXPECT_TRUE(mp4_atom_write(&atom, &out) == c.result && atom.start == c.start);
        EXPECT_EQ(c.log, out.log);
        EXPECT_EQ(dump(c.content), dump(out.content));
    }
}

TEST(Headers, SwitchToVersion1WhereATimeNeeds32Bits)
{
    // 40 ms, 0x7FFFFFFF ms and 0x80000000 ms
    const mp4_time low = {0, 40'999'999}, limit = {2147483, 647'999'999}, over = {2147483, 648'000'000};
    const std::string mvhd = "00010000 0100 00*10" + matrix + "00*24 00000003";
    const std::string tkhd = "00*12 0100 0000" + matrix + "00*8";
    const struct { box_writer writer; mp4_time first, last; uint64_t duration; std::string expected; } cases[] = {
        {mp4_atom_mvhd_write, {}, limit, 0, "00000000 00*8 000003e8 7fffffff" + mvhd},
        {mp4_atom_mvhd_write, {}, over, 0, "01000000 00*16 000003e8 00000000 80000000" + mvhd},
        {mp4_atom_tkhd_write, {}, limit, 0, "00000007 00*8 00000002 00*4 7fffffff" + tkhd},
        {mp4_atom_tkhd_write, {}, over, 0, "01000007 00*16 00000002 00*4 00000000 80000000" + tkhd},
        {mp4_atom_mdhd_write, {}, {}, 0x7FFFFFFF - 9600, "00*12 0000bb80 7fffffff 15c7 0000"},
        {mp4_atom_mdhd_write, {}, {}, 0x80000000 - 9600, "01 00*19 0000bb80 00000000 80000000 15c7 0000"},
        {mp4_atom_elst_write, low, {1, 41'000'000}, 0, "00*4 00000002 00000028 ff*4 00010000 000003e9 00*4 00010000"},
        {mp4_atom_elst_write, low, over, 0, "00*4 00000002 00000028 ff*4 00010000 7fffffd8 00*4 00010000"},
        {mp4_atom_elst_write, limit, over, 0, "00*4 00000002 7fffffff ff*4 00010000 00000001 00*4 00010000"},
        {mp4_atom_elst_write, {}, over, 0, "01000000 00000002 00*8 ff*8 00010000 00*4 80000000 00*8 00010000"},
        {mp4_atom_elst_write, over, over, 0, "01000000 00000002 00*4 80000000 ff*8 00010000 00*8 00*8 00010000"},
    };
    for (const auto &c : cases) {
        const film film;
        *film.movie->spans[1] = {1, c.first, c.last};
        film.audio->delay = 9600;
        film.audio->duration = c.duration;
        EXPECT_EQ(dump(c.expected), dump(film.body(c.writer, film.audio)));
    }
}

TEST(Headers, FollowTheMediaKind)
{
    const struct { uint32_t kind; const std::string volume, size, handler, header; } cases[] = {
        {MP4_MEDIA_AUDIO, "0100", "00*8", "'mhlr' 'soun'", "00000010 'smhd' 00*8"},
        {3, "0100", "07800000 04380000", "'mhlr' 'vide'", "00000014 'vmhd' 00000001 00*8"},
        {4, "0000", "00*8", "'dhlr' '    '", "0000000c 'nmhd' 00*4"},
    };
    for (const auto &c : cases) {
        const film film;
        film.video->media_kind = c.kind;
        EXPECT_EQ(dump("00000007 00*8 00000001 00*20 " + c.volume + "0000" + matrix + c.size),
                  dump(film.body(mp4_atom_tkhd_write, film.video)));
        EXPECT_EQ(dump("00*4 " + c.handler + "00*13"), dump(film.body(mp4_atom_hdlr_write, film.video)));
        const std::string dinf = " 00000024 'dinf' 0000001c 'dref' 00*4 00000001 0000000c 'url ' 00000001";
        const std::string start = dump(c.header + dinf);
        EXPECT_EQ(start, dump(film.body(mp4_atom_minf_write, film.video)).substr(0, start.size()));
    }
}

TEST(Tree, HasTheChildrenThatTheTracksNeed)
{
    const struct { uint32_t samples; uint8_t flags; std::string stbl; } cases[] = {
        {0, MP4_TRACK_ALL_SYNC, "stsd stsc stsz"},
        {0, 0, "stsd stss stsc stsz"},
        {1, MP4_TRACK_ALL_SYNC, "stsd stts stco stsc stsz"},
        {1, 0, "stsd stts stco stss stsc stsz"},
    };
    for (const auto &c : cases) {
        const film film;
        film.video->sample_count = c.samples;
        film.video->flags = c.flags;
        film.audio->delay = uint64_t{1} << 32;
        film.audio->flags = MP4_TRACK_ALL_SYNC;
        const bytes moov = film.body(mp4_atom_moov_write);
        EXPECT_EQ("mvhd iods trak(tkhd mdia(mdhd hdlr minf(vmhd dinf(dref) stbl(" + c.stbl + ")))) "
                  "trak(tkhd edts(elst) mdia(mdhd hdlr minf(smhd dinf(dref) stbl(stsd stsc stsz))))",
                  outline(moov, 0, moov.size()));
    }
    const std::string iods = "00*4 10 808080", profiles = "004fffff0f03ff", es = "0e80808004 0000000";
    const film film;
    EXPECT_EQ(dump(iods + "19" + profiles + es + "1" + es + "2"), dump(film.body(mp4_atom_iods_write)));
    film.video->media_kind = 4;
    EXPECT_EQ(dump(iods + "10" + profiles + es + "2"), dump(film.body(mp4_atom_iods_write)));
    EXPECT_EQ(dump("0000006c 'mvhd' 00*12 000003e8 00*4 00010000 0100 00*10" + matrix + "00*24 00000001"
                   "00000018 'iods'" + iods + "07" + profiles),
              dump(::film{.tracks = false}.body(mp4_atom_moov_write)));
}

TEST(Tree, EndsAtTheFirstFailure)
{
    const film film;
    array_stream *const tables[] = {film.video->stts_table, film.video->stss_table, film.video->stsz_table};
    for (array_stream *table : tables) fill(table, random_bytes(24)), array_stream_seek(table, 1, 0);
    film.video->sample_count = 6;
    film.audio->delay = 1;
    for (int n = 0, result = -1; result != 0; ++n) {
        fake_stream out;
        out.fail_at = n;
        out.fail_errno = 1000 + n;
        mp4_atom moov = {mp4_atom_moov_write, {'m', 'o', 'o', 'v'}, 0, film.movie, nullptr};
        result = mp4_atom_write(&moov, &out);
        ASSERT_TRUE(result == -1 ? out.calls == n + 1 && errno == 1000 + n : out.calls == n && n > 200) << n;
        for (array_stream *table : tables) ASSERT_EQ(1u, array_stream_seek(table, 0, 1)) << n;
    }
    fake_stream out;
    mp4_atom stsd = {nullptr, {}, 0, film.movie, film.audio};
    film.audio->write_sample_entry = nullptr;
    EXPECT_TRUE(mp4_atom_stsd_write(&stsd, &out) == -1 && errno == ENOSYS);
}

TEST(SampleTables, AreWrittenAsTheyAreStored)
{
    const film film;
    mp4_track *const track = film.video;
    const struct { uint32_t samples; const char *table, *stsz; } cases[] = {
        {1, "000003e8", "00*4 000003e8 00000001"},
        {5, "00000200", "00*4 00000200 00000005"},
        {2, "00000200 00000258", "00*8 00000002 00000200 00000258"},
        {0, "00000200", "00*12"},
    };
    for (const auto &c : cases) {
        fill(track->stsz_table, hex(c.table));
        track->sample_count = c.samples;
        EXPECT_EQ(dump(c.stsz), dump(film.body(mp4_atom_stsz_write, track)));
    }
    const bytes elements = random_bytes(1'000'000);
    fill(track->stco_table, elements);
    array_stream_seek(track->stco_table, 0, 0);
    std::string log = " w4"; // the count, then each run
    for (uint32_t count; array_stream_read(track->stco_table, &count);) log += " w" + std::to_string(4 * count);
    array_stream_seek(track->stco_table, 77, 0);
    fake_stream out;
    EXPECT_EQ(0, mp4_atom_table_write(track->stco_table, &out));
    EXPECT_EQ(77u, array_stream_seek(track->stco_table, 0, 1));
    EXPECT_TRUE(log == out.log && log.size() > 12);
    EXPECT_TRUE(dump("0003d090") + dump(elements) == dump(out.content));
}

TEST(Descriptors, NestWithFourByteSizes)
{
    const struct { uint32_t size; const char *expected; } cases[] = {
        {0, "80808000"}, {127, "8080807f"}, {128, "80808100"}, {200, "80808148"}, {16384, "80818000"},
        {2097157, "8180800a"}};
    mp4_descriptor *const root = mp4_descriptor_create(0xFF10, 0);
    std::string expected = "00000010" "8181836f";
    for (const auto &c : cases) {
        mp4_descriptor *const child = mp4_descriptor_create(0x0E, c.size);
        const bytes payload = random_bytes(c.size);
        EXPECT_EQ(c.size == 0, mp4_descriptor_buf(child) == nullptr);
        std::copy(payload.begin(), payload.end(), static_cast<uint8_t *>(mp4_descriptor_buf(child)));
        mp4_descriptor_append(root, child);
        if (c.size > 16384) mp4_descriptor_append(child, mp4_descriptor_create(6, 0)); // counted by both above
        expected += "0e" + std::string(c.expected) + dump(payload) + (c.size > 16384 ? "0680808000" : "");
    }
    fake_stream out;
    out.at = 3;
    EXPECT_EQ(0, mp4_descriptor_write_to_stream(root, &out));
    EXPECT_TRUE(expected == dump(out.content));
    mp4_descriptor_destroy(root);
}

TEST(SampleEntries, DescribeAac)
{
    const struct { uint32_t channels, rate; const char *format, *config; } cases[] = {
        {2, 64000, "fa00", "1110"}, {1, 48000, "bb80", "1188"}, {2, 44100, "ac44", "1210"}, {2, 32000, "7d00", "1290"},
        {2, 24000, "5dc0", "1310"}, {2, 22050, "5622", "1390"}, {6, 16000, "3e80", "1430"}, {2, 12000, "2ee0", "1490"},
        {2, 11025, "2b11", "1510"}, {1, 8000, "1f40", "1588"}, {2, 7350, "1cb6", "1610"}, {2, 88200, "5888", "1010"},
        {2, 96000, "7700", "1010"}, {2, 65536 + 48000, "bb80", "1190"}, {2, 47999, "bb7f", "1010"}};
    for (const auto &c : cases) {
        mp4_track *const track = mp4_aac_track_create(0xABCD0102, c.channels, 0x10010, c.rate, 0);
        EXPECT_EQ(c.rate, track->timescale);
        fake_stream out;
        mp4_atom stsd = {};
        EXPECT_EQ(0, track->write_sample_entry(track, &stsd, &out));
        EXPECT_EQ(dump("00000057 'mp4a' 00*6 0001 00*8 000" + std::to_string(c.channels) + "0010 00*4 " + c.format +
                       "0000 00000033 'esds' 00*4 03 80808022 0102 00 04 80808014 40 15 003a98 0016e360 00*4 "
                       "05 80808002" + c.config + "06 80808001 02"), dump(out.content)) << c.rate;
        mp4_track_destroy(track);
    }
}

} // namespace
