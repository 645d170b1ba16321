/**
 * One complete small recording, then one without frames, against file and journal bytes that are spelled out here,
 * box by box, as ISO/IEC 14496-12, -14 and -15 lay them out. Every number of the listings was worked out by hand;
 * nothing here computes what a box holds.
 */
#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

namespace {

using bytes = std::vector<uint8_t>;

/**
 * Spelled bytes: hex digits, 'text' for ASCII, 00*24 for a byte many times, blanks only separate; then count bytes
 * that rise from seed and start again every 251.
 */
bytes hex(const std::string &spelling, uint8_t seed = 0, size_t count = 0)
{
    bytes out;
    std::istringstream words(spelling);
    for (std::string word; words >> word;) {
        const size_t star = word.find('*');
        if (word[0] == '\'')
            out.insert(out.end(), word.begin() + 1, word.end() - 1);
        else if (star != std::string::npos)
            out.insert(out.end(), std::stoul(word.substr(star + 1)), uint8_t(std::stoul(word, nullptr, 16)));
        else
            for (size_t i = 0; i < word.size(); i += 2)
                out.push_back(uint8_t(std::stoul(word.substr(i, 2), nullptr, 16)));
    }
    for (size_t i = 0; i < count; i++) out.push_back(uint8_t(seed + i % 251));
    return out;
}

struct row {
    size_t offset; /* in the file, or in the journal */
    const char *what;
    bytes content;
};

void expect_bytes(const std::vector<row> &listing, const bytes &actual)
{
    bytes expected;
    for (const row &r : listing) {
        EXPECT_EQ(r.offset, expected.size()) << "the listing itself is wrong before " << r.what;
        expected.insert(expected.end(), r.content.begin(), r.content.end());
    }
    if (actual == expected) return;
    const auto [e, a] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const size_t at = size_t(e - expected.begin()), from = at < 8 ? 0 : at - 8;
    const row &in = *std::find_if(listing.rbegin(), listing.rend(), [at](const row &r) { return r.offset <= at; });
    const auto dump = [from, at](const bytes &data) {
        std::ostringstream out;
        for (size_t i = from; i < std::min(at + 24, data.size()); i++)
            out << std::hex << std::uppercase << ' ' << (data[i] >> 4) << (data[i] & 15);
        return out.str();
    };
    ADD_FAILURE() << "first difference at offset " << at << ": " << in.what << " + " << at - in.offset
                  << "\nfrom offset " << from << ", expected (" << expected.size() << " bytes in all):\n "
                  << dump(expected) << "\nactual (" << actual.size() << " bytes in all):\n " << dump(actual);
}

/* ---- what goes in ---- */
struct step {
    const char *what;
    int32_t track;
    mp4_time time;
    int32_t key;
    bytes data;
    bool flush = false; /* afterwards */
    size_t journal = 0; /* bytes drained by then; 0: it is not drained after this step */
};

constexpr int32_t t7 = 1'700'000'007, t8 = 1'700'000'008;

/* The audio cache takes 8000 Hz * 2 bytes = 16,000 bytes: a second sample of 8000 does not fit and goes out with the
 * first. ADTS: 01 1011 0 001 in bytes 2 and 3 are AAC-LC, 8000 Hz, mono; the 13-bit length starts in byte 3. */
const std::vector<step> recording = {
    {"V0: delimiter, SPS, PPS, IDR", 0, {t7, 980'000'000}, 1,
     hex("00000001 09F0 00000001 6742C00A88682C4E40 000001 68CE3C80 000001 658880A1A2A3A4A5A6A7A8A9AAABACAD")},
    {"V1: as long as V0 when stored", 0, {t8, 20'000'000}, 0, hex("00000001 419A", 0x11, 41)},
    {"A0: 7-byte header, length 8007", 1, {t8, 41'812'500}, 1, hex("FFF16C43E8FFFC", 0xA0, 8000), false, 120},
    {"V2: leading zero byte", 0, {t8, 60'000'000}, 0, hex("00 00000001 419AB2B3B4B5B6B7B8B9BABB")},
    {"V3: two slices", 0, {t8, 80'050'000}, 0, hex("000001 419AC2C3C4C5 000001 419AC7C8C9CA")},
    {"A1: 9-byte header with CRC, length 8009", 1, {t8, 169'812'500}, 1, hex("FFF06C43E93FFC 1234", 0xA1, 8000)},
    {"V4: same SPS, other PPS, SEI, IDR", 0, {t8, 213'383'333}, 256,
     hex("00000001 6742C00A88682C4E40 00000001 68DE3C80 000001 060601C480 00000001 6588", 0xD1, 18)},
    {"V5", 0, {t8, 253'383'333}, 0, hex("000001 419A", 0x71, 12)},
    {"A2: no header", 1, {t8, 297'875'000}, 1, hex("", 0xA2, 8000), true, 316},
    {"A3: MPEG-2 header, length 8007", 1, {t8, 425'937'400}, 1, hex("FFF96C43E8FFFC", 0xA3, 8000)},
    {"A4: header with another length, 8001, is kept", 1, {t8, 553'937'400}, 1, hex("FFF16C43E83FFC", 0xA4, 7993)},
    {"V6: delimiter, non-reference slice", 0, {t8, 613'383'333}, 0, hex("000001 09F0 00000001 019AF2F3F4")},
    {"V7", 0, {t8, 653'983'333}, 0, hex("00000001 419A8283848586")},
    {"A5", 1, {t8, 681'600'000}, 1, hex("FFF16C43E8FFFC", 0xA5, 8000)},
};

/* ---- what comes out: parts that both files have ---- */
const std::string ftyp = "00000018 'ftyp' 'mp42' 00000000 'mp42' 'isom'";
const std::string matrix = "00010000 00000000 00000000  00000000 00010000 00000000  00000000 00000000 40000000 ";
const std::string mvhd_end = "00010000 0100 00*10"                           // rate 1.0, volume 1.0, reserved
                             + (" " + matrix) + "00*24 00000003";            // pre_defined, next_track_ID
const std::string tkhd_head = "0000005C 'tkhd' 00000007 00000000 00000000 "; // enabled, in movie, in preview; no times
const std::string video_tkhd_end = "00*8 0000 0000 0000 0000"              // reserved, layer, group, volume 0, reserved
                                   + (" " + matrix) + "00B00000 00900000"; // 176 x 144 in 16.16
const std::string audio_tkhd_end = "00*8 0000 0000 0100 0000" + (" " + matrix) + "00000000 00000000"; // volume 1.0
const std::string mdhd_head = "00000020 'mdhd' 00000000 00000000 00000000 "; // version 0, no times
const std::string mdhd_end = " 15C7 0000"; // 'eng': 5, 14, 7 in 5 bits each: 0 00101 01110 00111
const std::string video_hdlr = "00000021 'hdlr' 00000000 'mhlr' 'vide' 00*12 00"; // 25 bytes: empty name
const std::string audio_hdlr = "00000021 'hdlr' 00000000 'mhlr' 'soun' 00*12 00";
const std::string vmhd = "00000014 'vmhd' 00000001 0000 000000000000"; // flags 1, graphicsmode, opcolor
const std::string smhd = "00000010 'smhd' 00000000 0000 0000";         // balance, reserved
const std::string dinf = "00000024 'dinf'  0000001C 'dref' 00000000 00000001  0000000C 75726C20 00000001"; // 'url '
const std::string iods = "0000002A 'iods' 00000000 10 80808019 004F FFFF 0F03 FF"  // 7 + 2 * 9 = 25 bytes
                         " 0E 80808004 00000001  0E 80808004 00000002";            // ES_ID_Inc of both tracks
const std::string avc1_body = "'avc1' 000000000000 0001 00*16 00B0 0090"           // data_reference_index 1, 176 x 144
                              " 00480000 00480000 00000000 0001 00*32 0018 FFFF "; // 72 dpi, 1 frame, no name, depth 24
const std::string audio_stsd =
    "00000067 'stsd' 00000000 00000001  00000057 'mp4a' 000000000000 0001 00*8"
    " 0001 0010 0000 0000 1F400000"                 // mono, 16 bits, pre_defined, reserved, 8000 Hz in 16.16
    " 00000033 'esds' 00000000 03 80808022 0002 00" // ES_Descriptor: ES_ID 2, 3 + 5 + 20 + 5 + 1 = 34 bytes
    " 04 80808014 40 15 003A98 0016E360 00000000"   // MPEG-4 audio, buffer 15000, 1,500,000 bit/s; 13 + 5 + 2 = 20
    " 05 80808002 1588"                             // AAC-LC 00010, 8000 Hz 1011, mono 0001, 000
    " 06 80808001 02";

/* ---- the file of the recording ----
 * Movie start: V0. Video 673.983333 ms, audio from 61.8125 ms to 701.6 ms; milliseconds are cut off, ticks rounded. */
const std::vector<row> recorded_file = {
    {0, "ftyp", hex(ftyp)},
    {24, "mdat", hex("0000BC6B 'mdat'")}, // 48259 - 24 = 48235
    {32, "V0", hex("00000002 09F0 00000009 6742C00A88682C4E40 00000004 68CE3C80"
                   " 00000010 658880A1A2A3A4A5A6A7A8A9AAABACAD")}, // 47 = 6 + 13 + 8 + 20
    {79, "V1", hex("0000002B 419A", 0x11, 41)},                    // 47
    {126, "V2", hex("0000000C 419AB2B3B4B5B6B7B8B9BABB")},         // 16
    {142, "V3", hex("0000000F 419AC2C3C4C5 000001 419AC7C8C9CA")}, // 19: from the first slice on it is one unit
    {161, "A0", hex("", 0xA0, 8000)},                              // cache of two, written when A1 came
    {8161, "A1", hex("", 0xA1, 8000)},
    {16161, "V4", hex("00000009 6742C00A88682C4E40 00000004 68DE3C80 00000005 060601C480 00000014 6588", 0xD1, 18)},
    {16215, "V5", hex("0000000E 419A", 0x71, 12)}, // 18
    {16233, "A2", hex("", 0xA2, 8000)},            // flushed
    {24233, "A3", hex("", 0xA3, 8000)},            // cache of two, extends the chunk of A2
    {32233, "A4", hex("FFF16C43E83FFC", 0xA4, 7993)},
    {40233, "V6", hex("00000002 09F0 00000005 019AF2F3F4")},         // 15
    {40248, "V7", hex("00000007 419A8283848586")},                   // 11
    {40259, "A5", hex("", 0xA5, 8000)},                              // written by close
    {48259, "moov", hex("00000515 'moov'")},                         // 1301 = 8 + 108 + 42 + 595 + 548
    {48267, "mvhd", hex("0000006C 'mvhd' 00000000 00000000 00000000" // version 0; creation, modification
                        " 000003E8 000002BD " + mvhd_end)},          // timescale 1000, 701 ms: the audio ends last
    {48375, "iods", hex(iods)},

    {48417, "trak 1", hex("00000253 'trak'")},                                          // 595 = 8 + 92 + 495
    {48425, "tkhd 1", hex(tkhd_head + "00000001 00000000 000002A1 " + video_tkhd_end)}, // ID 1, 673 ms
    {48517, "mdia 1", hex("000001EF 'mdia'")},                                          // 495 = 8 + 32 + 33 + 422
    {48525, "mdhd 1", hex(mdhd_head + "00015F90 0000ECF3" + mdhd_end)},                 // 60659, sum of stts
    {48557, "hdlr 1", hex(video_hdlr)},
    {48590, "minf 1", hex("000001A6 'minf'")}, // 422 = 8 + 20 + 36 + 358
    {48598, "vmhd 1", hex(vmhd)},
    {48618, "dinf 1", hex(dinf)},
    {48654, "stbl 1", hex("00000166 'stbl'")}, // 358 = 8 + 134 + 72 + 28 + 24 + 40 + 52
    {48662, "stsd 1", hex("00000086 'stsd' 00000000 00000001 00000076 " + avc1_body + // 118 = 8 + 78 + 32
                          "00000020 'avcC' 01 42C00A FF" // 32 = 8 + 11 + 9 + 4; Constrained Baseline, level 1
                          " E1 0009 6742C00A88682C4E40 01 0004 68CE3C80")}, // the first of each, from V0
    {48796, "stts 1", hex("00000048 'stts' 00000000 00000007"
                          " 00000001 00000000"    // V0: the first sample lasts 0
                          " 00000002 00000E10"    // V1, V2: 40 ms * 90 = 3600
                          " 00000001 0000070D"    // V3: 20.05 ms = 1804.5, half up: 1805
                          " 00000001 00002EE0"    // V4: 133.333333 ms = 11999.99997: 12000
                          " 00000001 00000E10"    // V5: 3600
                          " 00000001 00007E90"    // V6: 360 ms = 32400, the gap
                          " 00000001 00000E46")}, // V7: 40.6 ms = 3654
    {48868, "stco 1", hex("0000001C 'stco' 00000000 00000003  00000020 00003F21 00009D29")}, // 32, 16161, 40233
    {48896, "stss 1", hex("00000018 'stss' 00000000 00000002  00000001 00000005")},          // V0, V4
    {48920, "stsc 1", hex("00000028 'stsc' 00000000 00000002"
                          " 00000001 00000004 00000001"    // chunk 1: V0 to V3, while A0 only lay in the cache
                          " 00000002 00000002 00000001")}, // chunks 2 and 3: V4 V5, V6 V7
    {48960, "stsz 1", hex("00000034 'stsz' 00000000 00000000 00000008"
                          " 0000002F 0000002F 00000010 00000013 00000036 00000012 0000000F 0000000B")},

    {49012, "trak 2", hex("00000224 'trak'")},                                          // 548 = 8 + 92 + 48 + 400
    {49020, "tkhd 2", hex(tkhd_head + "00000002 00000000 000002BD " + audio_tkhd_end)}, // ID 2, 701 ms
    {49112, "edts 2", hex("00000030 'edts'  00000028 'elst' 00000000 00000002"
                          " 0000003D FFFFFFFF 00010000"                 // empty edit, 61 ms (of 61.8125)
                          " 00000280 00000000 00010000")},              // 640 ms = 701 - 61 (of 639.7875)
    {49160, "mdia 2", hex("00000190 'mdia'")},                          // 400 = 8 + 32 + 33 + 327
    {49168, "mdhd 2", hex(mdhd_head + "00001F40 000015ED" + mdhd_end)}, // 8000; 61.8125 ms = 494.5: 495, + 5118 = 5613
    {49200, "hdlr 2", hex(audio_hdlr)},
    {49233, "minf 2", hex("00000147 'minf'")}, // 327 = 8 + 16 + 36 + 267
    {49241, "smhd 2", hex(smhd)},
    {49257, "dinf 2", hex(dinf)},
    {49293, "stbl 2", hex("0000010B 'stbl'")}, // 267 = 8 + 103 + 56 + 28 + 52 + 20; all sync: no stss
    {49301, "stsd 2", hex(audio_stsd)},
    {49404, "stts 2", hex("00000038 'stts' 00000000 00000005"
                          " 00000001 00000000"    // A0
                          " 00000001 00000400"    // A1: 128 ms * 8 = 1024
                          " 00000001 00000401"    // A2: 128.0625 ms = 1024.5, half up: 1025
                          " 00000002 00000400"    // A3: 128.0624 ms = 1024.4992: 1024; A4: 128 ms
                          " 00000001 000003FD")}, // A5: 127.6626 ms = 1021.3008: 1021
    {49460, "stco 2", hex("0000001C 'stco' 00000000 00000003  000000A1 00003F69 00009D43")}, // 161, 16233, 40259
    {49488, "stsc 2", hex("00000034 'stsc' 00000000 00000003"
                          " 00000001 00000002 00000001"                   // A0 A1
                          " 00000002 00000003 00000001"                   // A2, and A3 A4 right behind it
                          " 00000003 00000001 00000001")},                // A5
    {49540, "stsz 2", hex("00000014 'stsz' 00000000 00001F40 00000006")}, // six samples of 8000: no list
};

/* ---- the journal of the recording: little-endian; samples as they reach the file ---- */
const std::vector<row> recorded_journal = {
    {0, "track 0", hex("01 00 1000  01010000 B0000000 90000000 00000000")},  // H.264, 176, 144
    {20, "track 1", hex("01 01 1000  01020000 01000000 10000000 401F0000")}, // AAC, mono, 16 bits, 8000 Hz
    {40, "SPS", hex("07 00 0900  6742C00A88682C4E40 000000")},               // 9 bytes and 3 of padding
    {56, "PPS", hex("08 00 0400  68CE3C80")},                                // those of V4 are not kept
    // kind, track, length 24; offset, size; seconds (0x6553F107 or 8 in 64 bits), nanoseconds, key
    {64, "V0", hex("02 00 1800  20000000 2F000000  07F1536500000000 009D693A 01000000")},
    {92, "V1", hex("02 00 1800  4F000000 2F000000  08F1536500000000 002D3101 00000000")},
    {120, "V2", hex("02 00 1800  7E000000 10000000  08F1536500000000 00879303 00000000")},
    {148, "V3", hex("02 00 1800  8E000000 13000000  08F1536500000000 5077C504 00000000")},
    {176, "A0", hex("02 01 1800  A1000000 401F0000  08F1536500000000 14027E02 01000000")},
    {204, "A1", hex("02 01 1800  E11F0000 401F0000  08F1536500000000 14221F0A 01000000")},
    {232, "V4", hex("02 00 1800  213F0000 36000000  08F1536500000000 A5F8B70C 00010000")}, // key as given, 256
    {260, "V5", hex("02 00 1800  573F0000 12000000  08F1536500000000 A5521A0F 00000000")},
    {288, "A2", hex("02 01 1800  693F0000 401F0000  08F1536500000000 3836C111 01000000")},
    {316, "A3", hex("02 01 1800  A95E0000 401F0000  08F1536500000000 F8496319 01000000")},
    {344, "A4", hex("02 01 1800  E97D0000 401F0000  08F1536500000000 F8690421 01000000")},
    {372, "V6", hex("02 00 1800  299D0000 0F000000  08F1536500000000 A57C8F24 00000000")},
    {400, "V7", hex("02 00 1800  389D0000 0B000000  08F1536500000000 65FEFA26 00000000")},
    {428, "A5", hex("02 01 1800  439D0000 401F0000  08F1536500000000 0064A028 01000000")},
};

/* ---- the file without frames ---- */
const std::string no_samples = "00000010 'stsc' 00000000 00000000  00000014 'stsz' 00000000 00000000 00000000";
const std::vector<row> empty_file = {
    {0, "ftyp", hex(ftyp)},
    {24, "mdat", hex("00000008 'mdat'")},
    {32, "moov", hex("000003AC 'moov'")}, // 940 = 8 + 108 + 42 + 402 + 380
    {40, "mvhd", hex("0000006C 'mvhd' 00000000 00000000 00000000 000003E8 00000000 " + mvhd_end)},
    {148, "iods", hex(iods)},
    {190, "trak, tkhd 1", hex("00000192 'trak' " + tkhd_head + "00000001 00000000 00000000 " + video_tkhd_end)},
    {290, "mdia, mdhd 1", hex("0000012E 'mdia' " + mdhd_head + "00015F90 00000000" + mdhd_end)},
    {330, "hdlr 1", hex(video_hdlr)},
    {363, "minf, vmhd 1", hex("000000E5 'minf' " + vmhd)}, // 229 = 8 + 20 + 36 + 165; mdia 302, trak 402
    {391, "dinf 1", hex(dinf)},
    {427, "stbl, stsd 1", hex("000000A5 'stbl' 00000079 'stsd' 00000000 00000001" // 165 = 8 + 121 + 16 + 20
                              " 00000069 " + avc1_body +                          // 105 = 8 + 78 + 19
                              "00000013 'avcC' 01 000000 FF E1 0000 01 0000")},   // the parameter sets are forgotten
    {556, "stsc, stsz 1", hex(no_samples)},
    {592, "trak, tkhd 2", hex("0000017C 'trak' " + tkhd_head + "00000002 00000000 00000000 " + audio_tkhd_end)},
    {692, "mdia, mdhd 2", hex("00000118 'mdia' " + mdhd_head + "00001F40 00000000" + mdhd_end)},
    {732, "hdlr 2", hex(audio_hdlr)},
    {765, "minf, smhd 2", hex("000000CF 'minf' " + smhd)}, // 207 = 8 + 16 + 36 + 147; mdia 280, trak 380
    {789, "dinf 2", hex(dinf)},
    {825, "stbl, stsd 2", hex("00000093 'stbl' " + audio_stsd)}, // 147 = 8 + 103 + 16 + 20
    {936, "stsc, stsz 2", hex(no_samples)},
};

/* ---- the recording ---- */
using file = std::unique_ptr<FILE, decltype(&fclose)>;
using builder = std::unique_ptr<mp4_builder, void (*)(mp4_builder *)>;
using journal = std::unique_ptr<mediafile_caretaker, decltype(&mediafile_caretaker_destroy)>;

bytes content(const file &f)
{
    bytes all(100'000);
    all.resize(size_t(std::max<ssize_t>(0, pread(fileno(f.get()), all.data(), all.size(), 0))));
    return all;
}

using golden = testing::TestWithParam<uint32_t>;

TEST_P(golden, a_recording_and_then_one_without_frames)
{
    const journal notes(mediafile_caretaker_create(), mediafile_caretaker_destroy);
    const builder made(mp4_builder_create(), [](mp4_builder *b) { b->destroy(b); });
    mp4_builder *const b = made.get();
    const mp4_track_desc video = {.type = MP4_TRACK_H264, .video = {176, 144, 0}};
    const mp4_track_desc audio = {.type = MP4_TRACK_AAC, .audio = {1, 16, 8000}};
    ASSERT_EQ(b->add_track(b, &video), 0);
    ASSERT_EQ(b->add_track(b, &audio), 1);

    bytes drained;
    const auto drain = [&] {
        uint32_t count = 0;
        const auto *data = static_cast<const uint8_t *>(mediafile_caretaker_read(notes.get(), &count));
        drained.insert(drained.end(), data, data + count);
    };

    const file first(tmpfile(), fclose);
    ASSERT_EQ(b->open(b, fileno(first.get()), GetParam(), notes.get()), 0);
    for (const step &s : recording) {
        SCOPED_TRACE(s.what);
        const mp4_frame frame = {s.track, s.data.data(), uint32_t(s.data.size()), s.time, s.key};
        ASSERT_EQ(b->add_frame(b, &frame), 0);
        if (s.flush) {
            ASSERT_EQ(b->flush(b), 0);
            EXPECT_EQ(content(first).size(), 24233u); // up to A2
        }
        if (s.journal == 0) continue;
        drain();
        EXPECT_EQ(drained.size(), s.journal);
    }
    ASSERT_EQ(b->close(b), 0);
    drain();
    ASSERT_EQ(drained.size(), 456u);
    std::fill_n(drained.begin() + 53, 3, uint8_t(0)); // padding may hold anything
    expect_bytes(recorded_file, content(first));
    expect_bytes(recorded_journal, drained);

    const file second(tmpfile(), fclose);
    drained.clear();
    ASSERT_EQ(b->open(b, fileno(second.get()), GetParam(), notes.get()), 0);
    ASSERT_EQ(b->close(b), 0);
    drain();
    expect_bytes(empty_file, content(second));
    expect_bytes({recorded_journal[0], recorded_journal[1]}, drained);
    EXPECT_EQ(mediafile_caretaker_errcode(notes.get()), 0);
}

// No write cache; one that a few small samples fill; one smaller than an audio sample; one that holds everything.
INSTANTIATE_TEST_SUITE_P(buffer_size, golden, testing::Values(0u, 64u, 4096u, 65536u));

} // namespace
