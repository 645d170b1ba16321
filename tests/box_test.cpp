// Boxes and descriptors: framing, bodies against bytes spelled out from the
// standard's tables, and a failure of every stream operation in turn.

#include <tuple>

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

void fill(array_stream *table, const bytes &elements)
{
    array_stream_clear(table);
    const uint32_t size = array_stream_element_size(table);
    for (uint32_t at = 0, one = 1; at < elements.size(); at += size) {
        std::copy_n(&elements[at], size, static_cast<uint8_t *>(array_stream_write(table, &one)));
    }
}

// 40 ms, 0x7FFFFFFF ms and 0x80000000 ms
constexpr mp4_time low = {0, 40'999'999}, limit = {2147483, 647'999'999}, over = {2147483, 648'000'000};
const std::string mvhd = "00010000 0100 00*10" + matrix + "00*24 00000003", tkhd = "00*12 0100 0000" + matrix + "00*8";
const std::tuple<box_writer, mp4_time, mp4_time, uint64_t, std::string> headers[] = {
    {mp4_atom_mvhd_write, {}, limit, 0, "00000000 00*8 000003e8 7fffffff" + mvhd},
    {mp4_atom_mvhd_write, {}, over, 0, "01000000 00*16 000003e8 00000000 80000000" + mvhd},
    {mp4_atom_tkhd_write, {}, limit, 0, "00000007 00*8 00000002 00*4 7fffffff" + tkhd},
    {mp4_atom_tkhd_write, {}, over, 0, "01000007 00*16 00000002 00*4 00000000 80000000" + tkhd},
    {mp4_atom_mdhd_write, {}, {}, 0x7FFFFFFF - 9600, "00*12 0000bb80 7fffffff 15c7 0000"},
    {mp4_atom_mdhd_write, {}, {}, 0x80000000 - 9600, "01 00*19 0000bb80 00000000 80000000 15c7 0000"},
    {mp4_atom_mdhd_write, {}, {}, 0xFFFFFFFF, "01 00*19 0000bb80 00000001 0000257f 15c7 0000"},
    {mp4_atom_elst_write, low, {1, 41'000'000}, 0, "00*4 00000002 00000028 ff*4 00010000 000003e9 00*4 00010000"},
    {mp4_atom_elst_write, low, over, 0, "00*4 00000002 00000028 ff*4 00010000 7fffffd8 00*4 00010000"},
    {mp4_atom_elst_write, limit, over, 0, "00*4 00000002 7fffffff ff*4 00010000 00000001 00*4 00010000"},
    {mp4_atom_elst_write, {}, over, 0, "01000000 00000002 00*8 ff*8 00010000 00*4 80000000 00*8 00010000"},
    {mp4_atom_elst_write, over, over, 0, "01000000 00000002 00*4 80000000 ff*8 00010000 00*8 00*8 00010000"},
};

TEST(Headers, SwitchToVersion1WhereATimeNeeds32Bits)
{
    for (const auto &[writer, first, last, duration, expected] : headers) {
        const film film;
        *film.movie->spans[1] = {1, first, last};
        film.audio->delay = 9600;
        film.audio->duration = duration;
        EXPECT_EQ(dump(expected), dump(film.body(writer, film.audio)));
    }
}

TEST(Headers, DescribeATrackThatIsNeitherVideoNorAudio)
{
    const film film;
    film.video->media_kind = 4;
    const std::string nmhd = dump("0000000c 'nmhd' 00*4");
    EXPECT_EQ(dump("00000007 00*8 00000001 00*24" + matrix + "00*8"), dump(film.body(mp4_atom_tkhd_write, film.video)));
    EXPECT_EQ(dump("00*4 'dhlr' '    ' 00*13"), dump(film.body(mp4_atom_hdlr_write, film.video)));
    EXPECT_EQ(nmhd, dump(film.body(mp4_atom_minf_write, film.video)).substr(0, nmhd.size()));
    EXPECT_EQ(dump("00*4 10 80808010 004fffff0f03ff 0e80808004 00000002"), dump(film.body(mp4_atom_iods_write)));
    film.video->media_kind = 3; // both: video
    EXPECT_EQ(dump("00*4 'mhlr' 'vide' 00*13"), dump(film.body(mp4_atom_hdlr_write, film.video)));
    EXPECT_EQ(dump("0100 0000"), dump(film.body(mp4_atom_tkhd_write, film.video)).substr(72, 8));
}

TEST(Tree, NeedsNoTracks)
{
    EXPECT_EQ(dump("0000006c 'mvhd' 00*12 000003e8 00*4 00010000 0100 00*10" + matrix +
                   "00*24 00000001"
                   "00000018 'iods' 00*4 10 80808007 004fffff0f03ff"),
              dump(film{.tracks = false}.body(mp4_atom_moov_write)));
}

TEST(Tree, HasAllTracksWhereNoMoreFit)
{
    film film;
    std::string iods = "00*4 10 8080804f 004fffff0f03ff";
    for (int id = 1; id <= MP4_MAX_TRACKS; ++id) {
        if (id > 2) film.add({MP4_TRACK_AAC, {{2, 16, 48000}}});
        iods += "0e80808004 0000000" + std::to_string(id);
    }
    EXPECT_EQ(dump(iods), dump(film.body(mp4_atom_iods_write)));
    EXPECT_TRUE(mp4_movie_add_track(film.movie, &film.movie->track_desc[1]) == -1 && errno == ENOBUFS);
}

TEST(Tree, EndsAtTheFirstFailure)
{
    const film film;
    array_stream *const tables[] = {film.video->stts_table, film.video->stss_table, film.video->stsz_table};
    for (array_stream *table : tables) {
        fill(table, random_bytes(24));
        array_stream_seek(table, 1, 0);
    }
    film.video->sample_count = 6;
    film.audio->delay = 1;
    const std::tuple<box_writer, box_writer, int> writers[] = {{mp4_atom_write, mp4_atom_ftyp_write, 8},
                                                               {mp4_atom_write, mp4_atom_mdat_write, 4},
                                                               {mp4_atom_write, mp4_atom_moov_write, 200},
                                                               {mp4_atom_moov_write, nullptr, 200},
                                                               {mp4_atom_trak_write, nullptr, 80}};
    for (const auto &[writer, body, least] : writers) {
        for (int n = 0, result = -1; result != 0; ++n) {
            fake_stream out;
            out.fail_at = n;
            out.fail_errno = 1000 + n;
            mp4_atom box = {body, {'t', 'e', 's', 't'}, 0, film.movie, film.video};
            result = writer(&box, &out);
            ASSERT_TRUE(result == -1 ? out.calls == n + 1 && errno == 1000 + n : out.calls == n && n > least) << n;
            for (array_stream *table : tables) ASSERT_EQ(1u, array_stream_seek(table, 0, 1)) << n;
        }
    }
    fake_stream out;
    mp4_atom stsd = {nullptr, {}, 0, film.movie, film.audio};
    film.audio->write_sample_entry = nullptr;
    EXPECT_TRUE(mp4_atom_stsd_write(&stsd, &out) == -1 && errno == ENOSYS);
}

TEST(SampleTables, ListSizesOnlyWhereTheyDiffer)
{
    const film film;
    const std::tuple<uint32_t, const char *, const char *> cases[] = {
        {1, "000003e8", "00*4 000003e8 00000001"},
        {5, "00000200", "00*4 00000200 00000005"},
        {2, "00000200 00000258", "00*8 00000002 00000200 00000258"},
        {0, "00000200", "00*12"},
    };
    for (const auto &[samples, table, stsz] : cases) {
        fill(film.video->stsz_table, hex(table));
        film.video->sample_count = samples;
        EXPECT_EQ(dump(stsz), dump(film.body(mp4_atom_stsz_write, film.video)));
    }
}

TEST(SampleTables, AreWrittenAsTheyAreStored)
{
    const film film;
    array_stream *const table = film.video->stco_table;
    const bytes elements = random_bytes(1'000'000);
    fill(table, elements);
    array_stream_seek(table, 0, 0);
    std::string log = " w4"; // the count, then each run
    for (uint32_t count; array_stream_read(table, &count);) log += " w" + std::to_string(4 * count);
    array_stream_seek(table, 77, 0);
    fake_stream out;
    EXPECT_EQ(0, mp4_atom_table_write(table, &out));
    EXPECT_EQ(77u, array_stream_seek(table, 0, 1));
    EXPECT_TRUE(log == out.log && log.size() > 12);
    EXPECT_TRUE(dump("0003d090") + dump(elements) == dump(out.content));
    for (const int n : {0, 1}) {
        fake_stream failing;
        failing.fail_at = n;
        EXPECT_EQ(-1, mp4_atom_table_write(table, &failing)) << n;
    }
}

TEST(Descriptors, NestWithFourByteSizes)
{
    const std::pair<uint32_t, std::string> cases[] = {{0, "80808000"},   {127, "8080807f"},   {128, "80808100"},
                                                      {200, "80808148"}, {16384, "80818000"}, {2097157, "8180800a"}};
    mp4_descriptor *const root = mp4_descriptor_create(0xFF10, 1);
    *static_cast<uint8_t *>(mp4_descriptor_buf(root)) = 0xA5;
    std::string expected = "0000001081818370a5";
    for (const auto &[size, coded] : cases) {
        mp4_descriptor *const child = mp4_descriptor_create(0x0E, size);
        const bytes payload = random_bytes(size);
        EXPECT_EQ(size == 0, mp4_descriptor_buf(child) == nullptr);
        std::copy(payload.begin(), payload.end(), static_cast<uint8_t *>(mp4_descriptor_buf(child)));
        mp4_descriptor_append(root, child);
        if (size > 16384) mp4_descriptor_append(child, mp4_descriptor_create(6, 0)); // counted by both above
        expected += "0e" + coded + dump(payload) + (size > 16384 ? "0680808000" : "");
    }
    fake_stream out;
    out.at = 3;
    EXPECT_EQ(0, mp4_descriptor_write_to_stream(root, &out));
    EXPECT_TRUE(expected == dump(out.content));
    for (int n = 0; n < out.calls; ++n) {
        fake_stream failing;
        failing.fail_at = n;
        EXPECT_EQ(-1, mp4_descriptor_write_to_stream(root, &failing)) << n;
    }
    mp4_descriptor_destroy(root);
}

TEST(SampleEntries, DescribeAac)
{
    const uint32_t cases[][4] = {
        {2, 64000, 0xFA00, 0x1110}, {1, 48000, 0xBB80, 0x1188}, {2, 44100, 0xAC44, 0x1210}, {2, 32000, 0x7D00, 0x1290},
        {2, 24000, 0x5DC0, 0x1310}, {2, 22050, 0x5622, 0x1390}, {6, 16000, 0x3E80, 0x1430}, {2, 12000, 0x2EE0, 0x1490},
        {2, 11025, 0x2B11, 0x1510}, {1, 8000, 0x1F40, 0x1588},  {2, 7350, 0x1CB6, 0x1610},  {2, 88200, 0x5888, 0x1010},
        {2, 96000, 0x7700, 0x1010}, {2, 47999, 0xBB7F, 0x1010}, {2, 113536, 0xBB80, 0x1190}}; // 65536 + 48000
    for (const auto &[channels, rate, format, config] : cases) {
        mp4_track *const track = mp4_aac_track_create(0xABCD0102, channels, 0x10010, rate, 0);
        EXPECT_EQ(rate, track->timescale);
        char numbers[3][9];
        for (int i = 0; i < 3; ++i)
            snprintf(numbers[i], sizeof numbers[i], "%04x", i == 0 ? channels : i == 1 ? format : config);
        EXPECT_EQ(dump(std::string("00*6 0001 00*8 ") + numbers[0] + "0010 00*4 " + numbers[1] +
                       "0000 00000033 'esds' 00*4 03 80808022 0102 00 04 80808014 40 15 003a98 0016e360 00*4 "
                       "05 80808002" +
                       numbers[2] + "06 80808001 02"),
                  dump(film{.tracks = false}.body(mp4_atom_mp4a_write, track)));
        mp4_track_destroy(track);
    }
}

} // namespace
