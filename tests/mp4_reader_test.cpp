/**
 * The strict reader, on a small file: an H.264 track of two chunks, an AAC
 * track that starts 20 ms late, an H.265 track of one sample. It has to take
 * that file without a word, name each damage to it and survive every cut of it.
 */
#include "tools/reader/reader.h"

#include <fstream>
#include <tuple>

#include <gtest/gtest.h>

#include "support/hex.h"

namespace {

/* The file, as hex() has it. */
const std::string unity = " 00010000 00*12 00010000 00*12 40000000 ", video_size = unity + "02800000 01680000 ) ",
                  dinf = " dinf( dref( 00*4 00000001 0000000C 75726C20 00000001 ) ) ",
                  vide = " hdlr( 00*4 'mhlrvide' 00*13 ) minf( vmhd( 00000001 00*8 )" + dinf +
                         "stbl( stsd( 00*4 00000001 ",
                  picture = " 00*6 0001 00*16 02800168 00480000 00480000 00*4 0001 00*32 0018FFFF ";
const std::string good =
    "ftyp( 'mp42' 00*4 'mp42isom' ) mdat( 00000005 6588840010 00000002 419A 2110 0460 2110 0461 "
    "00000002 419B 00000002 2601 ) "
    "moov( mvhd( 00*12 000003E8 00000050 00010000 0100 00*10" +
    unity +
    "00*24 00000004 ) "
    "iods( 00*4 1019 004FFFFF0F03FF 0E0400000001 0E0400000002 0E0400000003 ) "
    "trak( tkhd( 00000007 00*8 00000001 00*4 00000050 00*16" +
    video_size + "mdia( mdhd( 00*12 00015F90 00001C20 15C70000 )" + vide + "avc1(" + picture +
    "avcC( 01 42C01E FF E1 0004 6742C01E 01 0002 68CE ) ) ) "
    "stts( 00*4 00000002 00000001 00000000 00000002 00000E10 ) stco( 00*4 00000002 00000020 00000037 ) "
    "stss( 00*4 00000001 00000001 ) stsc( 00*4 00000002 00000001 00000002 00000001 00000002 00000001 00000001 ) "
    "stsz( 00*4 00000000 00000003 00000009 00000006 00000006 ) ) ) ) ) "
    "trak( tkhd( 00000007 00*8 00000002 00*4 00000029 00*12 01000000" +
    unity +
    "00*8 ) "
    "edts( elst( 00*4 00000002 00000014 FFFFFFFF 00010000 00000015 00000000 00010000 ) ) "
    "mdia( mdhd( 00*12 0000BB80 000007C0 15C70000 ) hdlr( 00*4 'mhlrsoun' 00*13 ) minf( smhd( 00*8 )" +
    dinf +
    "stbl( stsd( 00*4 00000001 mp4a( 00*6 0001 00*8 0002 0010 00*4 BB800000 "
    "esds( 00*4 0319 0002 00 0411 40 15 003A98 0016E360 00*4 0502 1190 0601 02 ) ) ) "
    "stts( 00*4 00000002 00000001 00000000 00000001 00000400 ) stco( 00*4 00000001 0000002F ) "
    "stsc( 00*4 00000001 00000001 00000002 00000001 ) stsz( 00*4 00000004 00000002 ) ) ) ) ) "
    "trak( tkhd( 00000007 00*8 00000003 00*4 00000000 00*16" +
    video_size + "mdia( mdhd( 00*12 00015F90 00000000 15C70000 )" + vide + "hev1(" + picture +
    "hvcC( 01 01 60000000 9000 00*4 99 F000 FC FD F8 F8 0000 0F 01 A1 0001 0003 420101 ) ) ) "
    "stts( 00*4 00000001 00000001 00000000 ) stco( 00*4 00000001 0000003D ) "
    "stsc( 00*4 00000001 00000001 00000001 00000001 ) stsz( 00*4 00000006 00000001 ) ) ) ) ) )";

bytes file_with(const std::string &what = "", const std::string &instead = "")
{
    return hex(std::string(good).replace(good.find(what), what.size(), instead));
}
std::string told(const mp4::file &f)
{
    std::string text;
    for (const mp4::problem &p : f.problems) text += (p.fault ? "fault: " : "remark: ") + p.text + '\n';
    return text;
}

/** What comes of a byte that is inverted, box by box, in runs: x a fault, r a remark, . nothing. */
std::string weights(const bytes &data, const std::vector<mp4::box> &boxes)
{
    const auto weight = [&data](size_t at) {
        const mp4::file f = mp4::read(with(data, at, {static_cast<uint8_t>(~data[at])}));
        return !f.sound() ? 'x' : f.problems.empty() ? '.' : 'r';
    };
    std::string text;
    for (const mp4::box &b : boxes) {
        text += b.type + " ";
        const size_t end = static_cast<size_t>(b.children.empty() ? b.offset + b.size : b.children.front().offset);
        for (size_t at = static_cast<size_t>(b.offset) + b.header, run = at; at < end; run = at) {
            while (++at < end && weight(at) == weight(run)) continue;
            text += std::to_string(at - run) + weight(run) + " ";
        }
        text += b.children.empty() ? "" : "(" + weights(data, b.children) + ") ";
    }
    return text;
}

TEST(Mp4Reader, ReadsAGoodFileFromMemoryAndFromDisk)
{
    const std::string path = testing::TempDir() + "mp4_reader_test.mp4";
    std::ranges::copy(file_with(), std::ostreambuf_iterator<char>(std::ofstream(path, std::ios::binary).rdbuf()));
    for (const mp4::file &f : {mp4::read(file_with()), mp4::read(path)}) {
        EXPECT_EQ("", told(f));
        std::ostringstream samples;
        for (const mp4::track &t : f.tracks)
            for (const auto &s : t.samples)
                samples << t.id << ':' << s.offset << '+' << s.size << " at " << s.time << '+' << s.duration << " in "
                        << s.chunk << (s.sync ? " sync, " : ", ");
        EXPECT_EQ("1:32+9 at 0+0 in 0 sync, 1:41+6 at 0+3600 in 0, 1:55+6 at 3600+3600 in 1, "
                  "2:47+4 at 0+0 in 0 sync, 2:51+4 at 0+1024 in 0 sync, 3:61+6 at 0+0 in 0 sync, ",
                  samples.str());
    }
    std::remove(path.c_str());
    EXPECT_FALSE(mp4::read(path).sound() || mp4::read(testing::TempDir()).sound());
}

TEST(Mp4Reader, WeighsEveryByte)
{
    const bytes whole = file_with();
    const std::string dinf_part = "dinf (dref 8x (url  4x ) ) stbl (stsd 8x (";
    const std::string tkhd = "trak (tkhd 4x 8. 20x 4. 2r 2x 44r ", video = "hdlr 25x minf (vmhd 4x 8. " + dinf_part,
                      entry = "24x 12r 4x 2r 1x 31. 2r 2x ";
    EXPECT_EQ("ftyp 16. mdat 4x 5. 4x 10. 4x 2. 4x 2. moov (mvhd 4x 8. 8x 6r 10x 36r 24x 4. iods 4x 1. 1x 8. 5x 1. 5x "
              "1. 5x " +
                  tkhd + "mdia (mdhd 4x 8. 3x 1. 5x 1. 2x " + video + "avc1 " + entry +
                  "(avcC 16x 1. ) ) stts 24x stco 16x stss 12x stsc 32x stsz 24x ) ) ) ) " + tkhd +
                  "edts (elst 16x 4r 8x 4r ) mdia (mdhd 4x 8. 3x 1r 5x 1. 2x hdlr 25x minf (smhd 4x 4. " + dinf_part +
                  "mp4a 16x 2r 2. 4x 4r (esds 11x 1. 1x 11. 2x 1. 1r 1. 2x ) ) stts 12x 4r 8x stco 12x stsc 20x stsz "
                  "12x ) ) ) ) " +
                  tkhd + "mdia (mdhd 4x 12. 5x 1. 2x " + video + "hev1 " + entry +
                  "(hvcC 1x 12. 1x 1. 4x 2. 1r 7x 2. ) ) stts 16x stco 12x stsc 20x stsz 12x ) ) ) ) ) ",
              weights(whole, mp4::read(whole).boxes));
}

const std::tuple<const char *, const char *, const char *> damages[] = {
    {"ftyp(", "free(", "the file holds no ftyp"},
    {"stsc(", "skip(", "stbl holds no stsc"},
    {"mdat(", "00000000 'mdat'", "mdat: the size is 0"},
    {"mdat(", "00000007 'mdat'", "the size is too small"},
    {"stbl(", "0000FFFF 'stbl'", "size 65535 leaves minf"},
    {"iods(", "mvhd(", "moov holds a second mvhd"},
    {"mvhd( 00*12", "mvhd( 02 00*11", "version 2 is unknown"},
    {"04 ) iods", "03 ) iods", "next_track_ID 3"},
    {"00000004 ) iods", ") iods", "mvhd ends before its last"},
    {"04 ) iods", "04 00 ) iods", "1 bytes after its last"},
    {"0E0400000003", "0E03000003", "descriptor 14 ends before"},
    {"0319 0002", "031A 0002", "descriptor 3 leaves"},
    {"15 00000000 0001", "15 FFFFFFFF 0001", "the last edit is empty"},
    {"E1 0004", "E1 FFFF", "avcC ends before its last"},
    {"01 42C01E FF", "01 42C01E 7F", "reserved bits are not ones"},
    {"20 00000037", "1F 00000037", "15 bytes, is outside"},
    {"20 00000037", "21 00000037", "chunk 1 overlaps"},
    {"02 00000001 00000002 00", "02 00000001 00000000 00", "stsc: 0 samples of sample description 1"},
    {"00000001 00000002 00000001 00000001 ) stsz", "00000000 00000002 00000001 00000001 ) stsz",
     "sample description 0"},
    {"00000001 00000002 00000001 00000001 ) stsz", "00000002 00000002 00000001 00000001 ) stsz",
     "sample description 2"},
    {"stts( 00*4 00000002", "stts( 00*4 FFFFFFFF", "stts claims 4294967295 entries, but has room for 2"},
    {"stsc( 00*4 00000002 00000001", "stsc( 00*4 00000002 00000002", "stsc: chunk 2 cannot be followed by 2"},
    {"stsc( 00*4 00000002 00000001 00000002", "stsc( 00*4 00000002 00000001 00000003", "stsc places 4 samples"},
    {"stsz( 00*4 00000004 00000002", "stsz( 00*4 00000004 FFFFFFFF", "stsz has 4294967295"},
    /* All tables agree on more samples than there can be. */
    {"00000001 00000000 ) stco( 00*4 00000001 0000003D ) stsc( 00*4 00000001 00000001 00000001 00000001 ) stsz( 00*4 "
     "00000006",
     "0FFFFFFF 00000000 ) stco( 00*4 00000001 0000003D ) stsc( 00*4 00000001 00000001 0FFFFFFF 00000001 ) "
     "stsz( 00*4 00000001 0FFFFFFF ) free(",
     "there can be no 268435455 samples"}};

TEST(Mp4Reader, NamesEachDamage)
{
    for (const auto &[what, instead, problem] : damages) {
        const mp4::file f = mp4::read(file_with(what, instead));
        EXPECT_FALSE(f.sound()) << problem;
        EXPECT_NE(std::string::npos, told(f).find(problem)) << problem << " not among\n" << told(f);
    }
}

TEST(Mp4Reader, SurvivesCutsAndTails)
{
    const bytes whole = file_with();
    for (size_t n = 0; n < whole.size(); n++) EXPECT_FALSE(mp4::read(first(whole, n)).sound()) << n;
    for (const char *tail : {"00", "00*8", "'trailing'"})
        EXPECT_FALSE(mp4::read(joined({whole, hex(tail)})).sound()) << tail;
}

} // namespace
