// Reading H.264 and H.265: bit reader, start-code search and parsers against
// plain definitions.

#include <bit>
#include <tuple>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <mediafiles/h264-parser.h>
#include <mediafiles/h265-parser.h>

#include "support/codec-track.h"

namespace {

/** The payload bits of a NAL unit: a 3 after two zeros is left out. */
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
        const auto read_bits = round % 2 == 0 ? h264_bs_read_bits : h265_bs_read_bits;
        bytes raw(below(24));
        for (uint8_t &byte : raw) byte = bytes{0, 0, 0, 0, 1, 3, 3, 255}[below(8)];
        const exact data(raw);
        const std::string bits = unpack(raw);
        h264_bs reader = data.reader();
        for (size_t at = 0, n = 0; at <= bits.size(); at += n) {
            n = below(33);
            uint32_t value = 0;
            errno = 0;
            const int result = read_bits(&reader, static_cast<int>(n), &value);
            const bool there = at + n <= bits.size();
            ASSERT_TRUE(result == (there ? 0 : -1) && errno == (there ? 0 : ENOSPC)) << dump(raw) << " " << at;
            ASSERT_EQ(there && n != 0 ? std::stoul(bits.substr(at, n), nullptr, 2) : 0, value) << dump(raw) << at;
        }
    }
}

const std::tuple<const char *, int, uint32_t, int32_t> codes[] = {
    {"80", 0, 0, 0},
    {"40", 0, 1, 1},
    {"60", 0, 2, -1},
    {"20", 0, 3, 2},
    {"28", 0, 4, -2},
    {"10", 0, 7, 4},
    {"01fc", 0, 253, 127},
    {"008000", 0, 255, 128},
    {"000001 000000", 0, 0x7FFFFF, 0x400000},
    {"0000030001 fffffffe", 0, 0xFFFFFFFE, -0x7FFFFFFF}, // 31 zeros, with an emulation prevention byte
    {"0000030001 fffffffc", 0, 0xFFFFFFFD, 0x7FFFFFFF},
    {"0000030000 ff", EILSEQ, 0, 0},
    {"000003000003 00ff", EILSEQ, 0, 0}, // 32 and 40 zeros
    {"0000030000", ENOSPC, 0, 0},
    {"08", ENOSPC, 0, 0},
    {"", ENOSPC, 0, 0}};

TEST(ExpGolomb, ReadsEveryLength)
{
    for (size_t i = 0; i < 4 * std::size(codes); ++i) {
        const auto &[code, error, ue, se] = codes[i / 4];
        const exact data(hex(code));
        h264_bs reader = data.reader();
        uint32_t found = 0, rest = 0;
        int32_t number = 0;
        errno = 0;
        const int result = i % 2 == 0 ? (i % 4 == 0 ? h264_bs_read_ue : h265_bs_read_ue)(&reader, &found)
                                      : (i % 4 == 1 ? h264_bs_read_se : h265_bs_read_se)(&reader, &number);
        EXPECT_TRUE(result == (error == 0 ? 0 : -1) && errno == error) << code;
        EXPECT_TRUE(error != 0 || (i % 2 == 0 ? found == ue : number == se)) << code << " " << found << " " << number;
        EXPECT_TRUE(error != EILSEQ || (h264_bs_read_bits(&reader, 7, &rest) == 0 && rest == 0x7F)) << code;
    }
    for (uint32_t first_nine = 0; first_nine < 512; ++first_nine)
        EXPECT_EQ(2 * (std::countl_zero(first_nine) - 23) + 1, ff_golomb_vlc_len[first_nine]) << first_nine;
}

TEST(StartCode, IsFoundAsByItsDefinition)
{
    for (uint32_t round = 0; round < 71 * 16 * 25; ++round) {
        const auto find = round % 2 == 0 ? h264_parser_find_start_code : h265_parser_find_start_code;
        const uint32_t length = round % 71 + 64 * (below(2) * below(6)); // also several blocks of vector code
        const uint32_t before = round / 71 % 16;                         // zeros that do not count
        const uint32_t density = 2 + below(round % 3 == 0 ? 2000 : 40);  // seldom, and everywhere
        bytes all(before + length);
        for (uint32_t i = before; i < all.size(); ++i) all[i] = below(density) < 2 ? 0 : bytes{1, 1, 2, 128}[below(4)];
        if (length >= 3 && below(3) == 0) overlay(all, before + below(length - 2), {0, 0, 1});
        const exact block(all);
        const uint8_t *data = block.data.get() + before;
        uint32_t p = 0, offset = 77, code_length = 77;
        while (p + 3 <= length && !(data[p] == 0 && data[p + 1] == 0 && data[p + 2] == 1)) ++p;
        const bool found = p + 3 <= length, four = found && p > 0 && data[p - 1] == 0;
        ASSERT_EQ(found, find(data, length, &offset, &code_length)) << dump(all);
        ASSERT_EQ(std::pair(p - four, 3u * found + four), std::pair(offset, code_length)) << dump(all);
    }
}

/** Decodes a NAL unit into a record whose bytes were 9. */
template <class Record, int (*Decode)(const uint8_t *, uint32_t, Record *)>
int decode(const exact &nal, bytes &record)
{
    record.assign(sizeof(Record), 9);
    const int result = Decode(nal.data.get(), nal.size, reinterpret_cast<Record *>(record.data()));
    if (sizeof(Record) == sizeof(h265_vps)) record[2] = record[3] = 9; // padding
    return result;
}

constexpr auto header264 = decode<h264_nal_header, h264_parser_decode_nal_header>,
               header265 = decode<h265_nal_header, h265_parser_decode_nal_header>,
               slice264 = decode<h264_slice_header, h264_parser_decode_slice_header>,
               slice265 = decode<h265_slice_header, h265_parser_decode_slice_header>,
               sps264 = decode<h264_sps, h264_parser_decode_sps>, sps265 = decode<h265_sps, h265_parser_decode_sps>,
               vps265 = decode<h265_vps, h265_parser_decode_vps>;
struct parsed {
    int (*decoder)(const exact &, bytes &);
    int error; // no_cause: it fails, and errno stays
    std::string printed;
    std::vector<std::pair<const char *, const char *>> units; // and the records that they become
};
constexpr int no_cause = -1;
const parsed parsers[] = {
    {header264, 0, "", {{"67", "000307"}, {"41", "000201"}, {"ff", "01031f"}}},
    {header264, ENOSPC, "", {{"", "090909"}}},
    {slice264, 0, "", {{"419a", "00*4 05000000"}, {"418a", "00*4 09000000"}}},
    {slice264, EILSEQ, "", {{"418b", "00*4 0a000000"}}},
    {slice264, ENOSPC, "", {{"4140", "01 00*7"}, {"41007f", "00*8"}, {"41", "00*8"}, {"", "09*8"}}},
    {slice265, EILSEQ, "", {{"418b", "00*4 0a000000"}}},
    {sps264, 0, "+++++ sps->profile_idc=64 (100)\n", {{"67640028ac", "6400000000000028"}}},
    {sps264, 0, "+++++ sps->profile_idc=42 (66)\n", {{"6742c01e", "420101000000001e"}}},
    {sps264, 0, "+++++ sps->profile_idc=00 (0)\n", {{"6700000301", "0000000000000001"}}},
    {sps264, 0, "+++++ sps->profile_idc=03 (3)\n", {{"6703001e", "030000000000001e"}}}, // the first byte
    {sps264, 0, "+++++ sps->profile_idc=7a (122)\n", {{"677aab28", "7a01000100010028"}}},
    {sps264, ENOSPC, "", {{"67", "00*8"}, {"674d55", "4d00010001000100"}, {"", "09*8"}}},
    {header265, 0, "", {{"4001", "00200001"}, {"2601", "00130001"}, {"ffff", "013f3f07"}, {"819a", "01003302"}}},
    {header265, ENOSPC, "", {{"41", "00200909"}, {"", "09*4"}}},
    {vps265, 0, "", {{"40010c01ffff", "0001 0909 00*8"}, {"4001afedffff00", "0a01 0909 3e000000 06000000"}}},
    {vps265, no_cause, "vps_reserved_three_2bits is not three\n", {{"40010801ffff", "0000 0909 00*8"}}},
    {vps265, no_cause, "vps_reserved_ffff_16bits is not 0xffff\n", {{"40010c01fffe", "0001 0909 00*8"}}},
    {vps265, ENOSPC, "", {{"40010c01ff", "0001 0909 00*8"}, {"40010c", "0000 0909 00*8"}}},
    {vps265, ENOSPC, "", {{"4001", "0000 0909 00*8"}, {"40", "09*12"}}},
    {sps265, 0, "", {{"420101016000", "0100000000000001"}, {"4201ab60", "0101000100010060"}}},
    {sps265, ENOSPC, "", {{"4201", "01 00*7"}, {"", "09*8"}}},
};

TEST(Parsers, DecodeTheLeadingFields)
{
    for (const auto &[decoder, error, printed, units] : parsers) {
        for (const auto &[nal, fields] : units) {
            bytes record;
            testing::internal::CaptureStdout();
            errno = 0;
            const int result = decoder(exact(hex(nal)), record), cause = errno;
            EXPECT_EQ(printed, testing::internal::GetCapturedStdout()) << nal;
            EXPECT_EQ(std::tuple(-!!error, std::max(error, 0), hex(fields)), std::tuple(result, cause, record)) << nal;
        }
    }
}

TEST(Parsers, KeepErrnoWhereTheirLinesFail)
{
    const int kept = dup(STDOUT_FILENO), full = open("/dev/full", O_WRONLY);
    setvbuf(stdout, nullptr, _IONBF, 0);
    dup2(full, STDOUT_FILENO);
    bytes record;
    errno = 0;
    const int result = vps265(exact(hex("40010801ffff")), record), cause = errno;
    dup2(kept, STDOUT_FILENO);
    EXPECT_EQ(0, close(kept) | close(full));
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0, cause);
}

} // namespace
