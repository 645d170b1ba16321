/**
 * One complete small recording, then one without frames, against file and journal bytes that are spelled out here,
 * box by box, as ISO/IEC 14496-12, -14 and -15 lay them out. Every number of the listings was worked out by hand;
 * nothing here computes what a box holds.
 */
#include <cstring>

#include <gtest/gtest.h>

#include <mediafiles/fix.h>

#include "support/descriptors.h"
#include "support/three-codecs.h"

namespace {

struct row {
    size_t offset; /* in the file, or in the journal */
    const char *what;
    std::string content; /* as hex() has it */
};
using listing = std::vector<row>;

void expect_bytes(const listing &rows, int file)
{
    size_t at = 0;
    for (const row &r : rows) {
        const bytes expected = hex(r.content);
        EXPECT_EQ(r.offset, at) << "the listing itself is wrong before " << r.what;
        EXPECT_EQ(dump(expected), dump(file_content(file, at, expected.size()))) << r.what;
        at += expected.size();
    }
    EXPECT_EQ(at, file_size(file));
}

struct step {
    const char *what;
    int32_t track;
    mp4_time time;
    int32_t key;
    std::string data;
    bool flush = false; /* afterwards */
    size_t journal = 0; /* bytes drained by then; 0: it is not drained after this step */
};

const std::string sps = " 6742C00A88682C4E40 ", idr = " 658880A1A2A3A4A5A6A7A8A9AAABACAD";
const std::string v0 = "00000001 09F0 00000001" + sps + "000001 68CE3C80 000001" + idr,
                  v4 = "00000001" + sps + "00000001 68DE3C80 000001 060601C480 00000001 6588 D1+18";
constexpr int32_t t7 = 1'700'000'007, t8 = 1'700'000'008;

/* The audio cache takes 8000 Hz * 2 bytes = 16,000 bytes: a second sample of 8000 does not fit and goes out with the
 * first. ADTS: 01 1011 0 001 in bytes 2 and 3 are AAC-LC, 8000 Hz, mono; the 13-bit length starts in byte 3. */
const std::vector<step> frames = {
    {"V0: delimiter, SPS, PPS, IDR", 0, {t7, 980'000'000}, 1, v0},
    {"V1: as long as V0 when stored", 0, {t8, 20'000'000}, 0, "00000001 419A 11+41"},
    {"A0: 7-byte header, length 8007", 1, {t8, 41'812'500}, 1, "FFF16C43E8FFFC A0+8000", false, 120},
    {"V2: leading zero byte", 0, {t8, 60'000'000}, 0, "00 00000001 419AB2B3B4B5B6B7B8B9BABB"},
    {"V3: two slices", 0, {t8, 80'050'000}, 0, "000001 419AC2C3C4C5 000001 419AC7C8C9CA"},
    {"A1: 9-byte header with CRC, length 8009", 1, {t8, 169'812'500}, 1, "FFF06C43E93FFC 1234 A1+8000"},
    {"V4: same SPS, other PPS, SEI, IDR", 0, {t8, 213'383'333}, 256, v4},
    {"V5", 0, {t8, 253'383'333}, 0, "000001 419A 71+12"},
    {"A2: no header", 1, {t8, 297'875'000}, 1, "A2+8000", true, 316},
    {"A3: MPEG-2 header, length 8007", 1, {t8, 425'937'400}, 1, "FFF96C43E8FFFC A3+8000"},
    {"A4: header with another length, 8001, is kept", 1, {t8, 553'937'400}, 1, "FFF16C43E83FFC A4+7993"},
    {"V6: delimiter, non-reference slice", 0, {t8, 613'383'333}, 0, "000001 09F0 00000001 019AF2F3F4"},
    {"V7", 0, {t8, 653'983'333}, 0, "00000001 419A8283848586"},
    {"A5", 1, {t8, 681'600'000}, 1, "FFF16C43E8FFFC A5+8000"},
};

/* ---- what comes out: parts that both files have ---- */
const std::string ftyp = "00000018 'ftyp' 'mp42' 00000000 'mp42' 'isom'";
const std::string matrix = "00010000 00000000 00000000  00000000 00010000 00000000  00000000 00000000 40000000 ";
const std::string mvhd_head = "0000006C 'mvhd' 00000000 00000000 00000000 "; // version 0; creation, modification
// rate 1.0, volume 1.0, reserved; matrix; pre_defined, next_track_ID
const std::string mvhd_end = "00010000 0100 00*10 " + matrix + "00*24 00000003";
const std::string tkhd_head = "0000005C 'tkhd' 00000007 00000000 00000000 "; // enabled, in movie, in preview; no times
// reserved, layer, group, volume 0 or 1.0, reserved; matrix; 176 x 144 in 16.16
const std::string video_tkhd_end = "00*8 0000 0000 0000 0000 " + matrix + "00B00000 00900000";
const std::string audio_tkhd_end = "00*8 0000 0000 0100 0000 " + matrix + "00000000 00000000";
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
const listing recorded_file = {
    {0, "ftyp", ftyp},
    {24, "mdat", "0000BC6B 'mdat'"},                                                 // 48259 - 24 = 48235
    {32, "V0", "00000002 09F0 00000009" + sps + "00000004 68CE3C80 00000010" + idr}, // 47 = 6 + 13 + 8 + 20
    {79, "V1", "0000002B 419A 11+41"},                                               // 47
    {126, "V2", "0000000C 419AB2B3B4B5B6B7B8B9BABB"},                                // 16
    {142, "V3", "0000000F 419AC2C3C4C5 000001 419AC7C8C9CA"}, // 19: from the first slice on it is one unit
    {161, "A0", "A0+8000"},                                   // cache of two, written when A1 came
    {8161, "A1", "A1+8000"},
    {16161, "V4", "00000009 6742C00A88682C4E40 00000004 68DE3C80 00000005 060601C480 00000014 6588 D1+18"},
    {16215, "V5", "0000000E 419A 71+12"}, // 18
    {16233, "A2", "A2+8000"},             // flushed
    {24233, "A3", "A3+8000"},             // cache of two, extends the chunk of A2
    {32233, "A4", "FFF16C43E83FFC A4+7993"},
    {40233, "V6", "00000002 09F0 00000005 019AF2F3F4"},           // 15
    {40248, "V7", "00000007 419A8283848586"},                     // 11
    {40259, "A5", "A5+8000"},                                     // written by close
    {48259, "moov", "00000515 'moov'"},                           // 1301 = 8 + 108 + 42 + 595 + 548
    {48267, "mvhd", mvhd_head + "000003E8 000002BD " + mvhd_end}, // timescale 1000, 701 ms: the audio ends last
    {48375, "iods", iods},

    // 595 = 8 + 92 + 495; ID 1, 673 ms. 495 = 8 + 32 + 33 + 422; 60659, sum of stts
    {48417, "trak, tkhd 1", "00000253 'trak' " + tkhd_head + "00000001 00000000 000002A1 " + video_tkhd_end},
    {48517, "mdia, mdhd 1", "000001EF 'mdia' " + mdhd_head + "00015F90 0000ECF3" + mdhd_end},
    {48557, "hdlr to dinf 1", video_hdlr + " 000001A6 'minf' " + vmhd + dinf}, // 422 = 8 + 20 + 36 + 358
    // 358 = 8 + 134 + 72 + 28 + 24 + 40 + 52; 118 = 8 + 78 + 32; 32 = 8 + 11 + 9 + 4; Constrained Baseline, level 1; the
    // first of each set, from V0
    {48654, "stbl, stsd 1",
     "00000166 'stbl' 00000086 'stsd' 00000000 00000001 00000076 " + avc1_body +
         "00000020 'avcC' 01 42C00A FF E1 0009" + sps + "01 0004 68CE3C80"},
    {48796, "stts 1",
     "00000048 'stts' 00000000 00000007"
     " 00000001 00000000  00000002 00000E10" // V0: the first sample lasts 0; V1, V2: 40 ms * 90 = 3600
     " 00000001 0000070D  00000001 00002EE0" // V3: 20.05 ms = 1804.5, half up; V4: 133.333333 ms = 11999.99997
     " 00000001 00000E10  00000001 00007E90" // V5: 3600; V6: 360 ms = 32400, the gap
     " 00000001 00000E46"},                  // V7: 40.6 ms = 3654
    {48868, "stco 1", "0000001C 'stco' 00000000 00000003  00000020 00003F21 00009D29"}, // 32, 16161, 40233
    {48896, "stss 1", "00000018 'stss' 00000000 00000002  00000001 00000005"},          // V0, V4
    // V0 to V3, while A0 only lay in the cache; V4 V5, V6 V7
    {48920, "stsc 1", "00000028 'stsc' 00*4 00000002  00000001 00000004 00000001  00000002 00000002 00000001"},
    {48960, "stsz 1",
     "00000034 'stsz' 00000000 00000000 00000008"
     " 0000002F 0000002F 00000010 00000013 00000036 00000012 0000000F 0000000B"},

    // 548 = 8 + 92 + 48 + 400; ID 2, 701 ms
    {49012, "trak, tkhd 2", "00000224 'trak' " + tkhd_head + "00000002 00000000 000002BD " + audio_tkhd_end},
    {49112, "edts 2",
     "00000030 'edts'  00000028 'elst' 00000000 00000002"
     " 0000003D FFFFFFFF 00010000"   // empty edit, 61 ms (of 61.8125)
     " 00000280 00000000 00010000"}, // 640 ms = 701 - 61 (of 639.7875)
    // 400 = 8 + 32 + 33 + 327; 8000; 61.8125 ms = 494.5: 495, + 5118 = 5613
    {49160, "mdia, mdhd 2", "00000190 'mdia' " + mdhd_head + "00001F40 000015ED" + mdhd_end},
    {49200, "hdlr to dinf 2", audio_hdlr + " 00000147 'minf' " + smhd + dinf}, // 327 = 8 + 16 + 36 + 267
    {49293, "stbl, stsd 2", "0000010B 'stbl' " + audio_stsd}, // 267 = 8 + 103 + 56 + 28 + 52 + 20; all sync: no stss
    {49404, "stts 2",
     "00000038 'stts' 00000000 00000005"
     " 00000001 00000000  00000001 00000400" // A0; A1: 128 ms * 8 = 1024
     " 00000001 00000401  00000002 00000400" // A2: 128.0625 ms = 1024.5, half up; A3: 128.0624 ms = 1024.4992; A4
     " 00000001 000003FD"},                  // A5: 127.6626 ms = 1021.3008: 1021
    {49460, "stco 2", "0000001C 'stco' 00000000 00000003  000000A1 00003F69 00009D43"}, // 161, 16233, 40259
    {49488, "stsc 2",
     "00000034 'stsc' 00000000 00000003"
     " 00000001 00000002 00000001  00000002 00000003 00000001  00000003 00000001 00000001"}, // A0 A1; A2 A3 A4; A5
    {49540, "stsz 2", "00000014 'stsz' 00000000 00001F40 00000006"}, // six samples of 8000: no list
};

/* ---- the journal of the recording: little-endian; samples as they reach the file ---- */
const listing recorded_journal = {
    {0, "track 0", "01 00 1000  01010000 B0000000 90000000 00000000"},  // H.264, 176, 144
    {20, "track 1", "01 01 1000  01020000 01000000 10000000 401F0000"}, // AAC, mono, 16 bits, 8000 Hz
    {40, "SPS", "07 00 0900  6742C00A88682C4E40 000000"},               // 9 bytes and 3 of padding
    {56, "PPS", "08 00 0400  68CE3C80"},                                // those of V4 are not kept
    // kind, track, length 24; offset, size; seconds (0x6553F107 or 8 in 64 bits), nanoseconds, key
    {64, "V0", "02 00 1800  20000000 2F000000  07F1536500000000 009D693A 01000000"},
    {92, "V1", "02 00 1800  4F000000 2F000000  08F1536500000000 002D3101 00000000"},
    {120, "V2", "02 00 1800  7E000000 10000000  08F1536500000000 00879303 00000000"},
    {148, "V3", "02 00 1800  8E000000 13000000  08F1536500000000 5077C504 00000000"},
    {176, "A0", "02 01 1800  A1000000 401F0000  08F1536500000000 14027E02 01000000"},
    {204, "A1", "02 01 1800  E11F0000 401F0000  08F1536500000000 14221F0A 01000000"},
    {232, "V4", "02 00 1800  213F0000 36000000  08F1536500000000 A5F8B70C 00010000"}, // key as given, 256
    {260, "V5", "02 00 1800  573F0000 12000000  08F1536500000000 A5521A0F 00000000"},
    {288, "A2", "02 01 1800  693F0000 401F0000  08F1536500000000 3836C111 01000000"},
    {316, "A3", "02 01 1800  A95E0000 401F0000  08F1536500000000 F8496319 01000000"},
    {344, "A4", "02 01 1800  E97D0000 401F0000  08F1536500000000 F8690421 01000000"},
    {372, "V6", "02 00 1800  299D0000 0F000000  08F1536500000000 A57C8F24 00000000"},
    {400, "V7", "02 00 1800  389D0000 0B000000  08F1536500000000 65FEFA26 00000000"},
    {428, "A5", "02 01 1800  439D0000 401F0000  08F1536500000000 0064A028 01000000"},
};

/* ---- the file without frames ---- */
const std::string no_samples = "00000010 'stsc' 00000000 00000000  00000014 'stsz' 00000000 00000000 00000000";
const listing empty_file = {
    {0, "ftyp", ftyp},
    {24, "mdat", "00000008 'mdat'"},
    {32, "moov", "000003AC 'moov'"}, // 940 = 8 + 108 + 42 + 402 + 380
    {40, "mvhd", mvhd_head + "000003E8 00000000 " + mvhd_end},
    {148, "iods", iods},
    {190, "trak, tkhd 1", "00000192 'trak' " + tkhd_head + "00000001 00000000 00000000 " + video_tkhd_end},
    {290, "mdia, mdhd 1", "0000012E 'mdia' " + mdhd_head + "00015F90 00000000" + mdhd_end},
    // 229 = 8 + 20 + 36 + 165; mdia 302, trak 402
    {330, "hdlr to dinf 1", video_hdlr + " 000000E5 'minf' " + vmhd + dinf},
    // 165 = 8 + 121 + 16 + 20; 105 = 8 + 78 + 19; the parameter sets are forgotten
    {427, "stbl, stsd 1",
     "000000A5 'stbl' 00000079 'stsd' 00000000 00000001 00000069 " + avc1_body +
         "00000013 'avcC' 01 000000 FF E1 0000 01 0000"},
    {556, "stsc, stsz 1", no_samples},
    {592, "trak, tkhd 2", "0000017C 'trak' " + tkhd_head + "00000002 00000000 00000000 " + audio_tkhd_end},
    {692, "mdia, mdhd 2", "00000118 'mdia' " + mdhd_head + "00001F40 00000000" + mdhd_end},
    // 207 = 8 + 16 + 36 + 147; mdia 280, trak 380
    {732, "hdlr to dinf 2", audio_hdlr + " 000000CF 'minf' " + smhd + dinf},
    {825, "stbl, stsd 2", "00000093 'stbl' " + audio_stsd}, // 147 = 8 + 103 + 16 + 20
    {936, "stsc, stsz 2", no_samples},
};

const mp4_time none = {0, 0}, video_end = {0, 673'983'333}, audio_end = {0, 701'600'000};
const mp4_track_desc video = {MP4_TRACK_H264, {{176, 144, 0}}}, audio = {MP4_TRACK_AAC, {{1, 16, 8000}}};

/** Records and repairs files in a row, with one builder and one journal. */
struct Golden : testing::TestWithParam<uint32_t> {
    const journal_ptr notes{mediafile_caretaker_create()};
    const builder_ptr builder{mp4_builder_create()};
    mp4_builder *const b = builder.get();
    const descriptor file, journal;

    Golden()
    {
        EXPECT_EQ(0, b->add_track(b, &video));
        EXPECT_EQ(1, b->add_track(b, &audio));
    }

    void take_journal()
    {
        const bytes records = drain(notes);
        EXPECT_EQ(ssize_t(records.size()), write(journal, records.data(), records.size()));
    }

    void add(const step &s)
    {
        SCOPED_TRACE(s.what);
        const bytes data = hex(s.data);
        const mp4_frame frame = {s.track, data.data(), uint32_t(data.size()), s.time, s.key};
        EXPECT_EQ(0, b->add_frame(b, &frame));
        EXPECT_EQ(0, s.flush ? b->flush(b) : 0);
        EXPECT_EQ(s.flush ? 24233u : file_size(file), file_size(file)); // up to A2
        if (s.journal == 0) return;
        take_journal();
        EXPECT_EQ(s.journal, file_size(journal));
    }

    void record(const std::vector<step> &steps)
    {
        fill(file, {}), fill(journal, {}), lseek(journal, 0, SEEK_SET);
        EXPECT_EQ(0, b->open(b, file, GetParam(), notes.get()));
        for (const step &s : steps) add(s);
        EXPECT_EQ(0, b->close(b));
        take_journal();
    }

    /** As if the power had gone before the close; no file: the journal alone. */
    void cut_and_repair(off_t moov, const mp4_fix_info &expected)
    {
        EXPECT_EQ(0, ftruncate(file, moov) | (pwrite(file, "\0\0\0", 4, 24) - 4));
        for (const std::string &path : {path_of(file), std::string()}) {
            mp4_fix_info info;
            EXPECT_EQ(0, mp4_fix(path.empty() ? nullptr : path.c_str(), path_of(journal).c_str(), nullptr, &info));
            EXPECT_EQ(0, memcmp(&expected, &info, sizeof info));
        }
    }
};

TEST_P(Golden, RecordingAndThenOneWithoutFrames)
{
    record(frames);
    expect_bytes(recorded_file, file);
    expect_bytes(recorded_journal, journal);
    cut_and_repair(48259, {audio_end, 49560, 2, {{video, video_end, 8}, {audio, audio_end, 6}}});
    expect_bytes(recorded_file, file);
    record({});
    expect_bytes(empty_file, file);
    expect_bytes({recorded_journal[0], recorded_journal[1]}, journal);
    cut_and_repair(32, {none, 972, 2, {{video, none, 0}, {audio, none, 0}}});
    expect_bytes(empty_file, file);
    EXPECT_EQ(0, mediafile_caretaker_errcode(notes.get()));
}

// No write cache; one that a few small samples fill; one smaller than an audio sample; one that holds everything.
INSTANTIATE_TEST_SUITE_P(BufferSize, Golden, testing::Values(0u, 64u, 4096u, 65536u));

} // namespace
