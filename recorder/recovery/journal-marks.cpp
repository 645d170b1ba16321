#include "journal-marks.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <mediafiles/caretaker.h>
#include <mediafiles/recovery.h>

namespace mediafiles::recovery {
namespace {

/* What a byte does to the CRC: that is followed by no other byte, by one, by two, up to seven. */
constexpr std::array<std::array<uint32_t, 256>, 8> crc_tables = [] {
    std::array<std::array<uint32_t, 256>, 8> tables = {};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = value & 1 ? value >> 1 ^ 0xEDB88320u : value >> 1;
        tables[0][i] = value;
    }
    for (size_t followers = 1; followers < tables.size(); ++followers)
        for (uint32_t i = 0; i < 256; ++i) {
            const uint32_t before = tables[followers - 1][i];
            tables[followers][i] = tables[0][before & 0xFF] ^ before >> 8;
        }
    return tables;
}();

uint32_t le32(const uint8_t *bytes)
{
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

static_assert(MEDIAFILES_ROUND_MARK_SIZE == sizeof(memento) + round_mark_length);
static_assert(repair_mark_size == sizeof(memento) + repair_mark_length);

constexpr char protection[] = "mediafiles protected";
static_assert(sizeof protection - 1 == protection_mark_length);
static_assert(protection_mark_size == sizeof(memento) + protection_mark_length);

// Writes a record of which the text fills all but the terminator.
template <uint32_t Length, class... Values>
void write_text(uint8_t *record, const char *format, Values... values)
{
    const memento header = {MEMENTO_USER, 0, Length};
    char text[Length + 1] = {};
    snprintf(text, sizeof text, format, values...);
    memcpy(record, &header, sizeof header);
    memcpy(record + sizeof header, text, Length);
}

void write_mark(const round_mark &mark, uint8_t record[MEDIAFILES_ROUND_MARK_SIZE])
{
    write_text<round_mark_length>(record, "mediafiles round %010" PRIu32 " of %012" PRIu64 " bytes %08" PRIx32 "..",
                                  mark.number, mark.media_size, mark.crc);
}

// The digits there as a number. false where something else stands.
bool number_at(const char *text, int digits, int base, uint64_t &value)
{
    value = 0;
    for (int i = 0; i < digits; ++i) {
        const char c = text[i];
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : base;
        if (digit >= base) return false;
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
    }
    return true;
}

// Whether the payload is, to the byte, what the mark that was read from it is written as.
template <uint32_t Size, class Mark>
bool is_written_so(const Mark &mark, const uint8_t *payload)
{
    uint8_t record[Size];
    write_mark(mark, record);
    return memcmp(record + sizeof(memento), payload, Size - sizeof(memento)) == 0;
}

} // namespace

uint32_t crc32(uint32_t crc, const void *bytes, size_t count)
{
    const auto *from = static_cast<const uint8_t *>(bytes);
    crc = ~crc;
    for (; count >= 8; count -= 8, from += 8) {
        crc ^= le32(from);
        const uint32_t after = le32(from + 4);
        crc = crc_tables[7][crc & 0xFF] ^ crc_tables[6][crc >> 8 & 0xFF] ^ crc_tables[5][crc >> 16 & 0xFF] ^
              crc_tables[4][crc >> 24] ^ crc_tables[3][after & 0xFF] ^ crc_tables[2][after >> 8 & 0xFF] ^
              crc_tables[1][after >> 16 & 0xFF] ^ crc_tables[0][after >> 24];
    }
    for (; count > 0; --count, ++from) crc = crc_tables[0][(crc ^ *from) & 0xFF] ^ crc >> 8;
    return ~crc;
}

bool read_mark(const uint8_t *payload, uint32_t length, round_mark &mark)
{
    if (length != round_mark_length) return false;
    const auto *text = reinterpret_cast<const char *>(payload);
    uint64_t number, size, crc;
    if (!number_at(text + 17, 10, 10, number) || !number_at(text + 31, 12, 10, size) ||
        !number_at(text + 50, 8, 16, crc))
        return false;
    mark = {static_cast<uint32_t>(number), size, static_cast<uint32_t>(crc)};
    return number <= UINT32_MAX && is_written_so<MEDIAFILES_ROUND_MARK_SIZE>(mark, payload);
}

bool read_mark(const uint8_t *payload, uint32_t length, repair_mark &mark)
{
    if (length != repair_mark_length) return false;
    const auto *text = reinterpret_cast<const char *>(payload);
    uint64_t size;
    if (!number_at(text + 22, 10, 10, size) || size > UINT32_MAX) return false;
    mark = {static_cast<uint32_t>(size), text[39] == 'd', text[40] == 'c'};
    return is_written_so<repair_mark_size>(mark, payload);
}

void write_mark(const repair_mark &mark, uint8_t record[repair_mark_size])
{
    write_text<repair_mark_length>(record, "mediafiles repair: of %010" PRIu32 " bytes %c%c...", mark.media_size,
                                   mark.dropped_frame ? 'd' : '-', mark.completed ? 'c' : '-');
}

bool is_protection_mark(const uint8_t *payload, uint32_t length)
{
    return length == protection_mark_length && memcmp(payload, protection, length) == 0;
}

void write_protection_mark(uint8_t record[protection_mark_size])
{
    const memento header = {MEMENTO_USER, 0, protection_mark_length};
    memcpy(record, &header, sizeof header);
    memcpy(record + sizeof header, protection, protection_mark_length);
}

} // namespace mediafiles::recovery

void mediafiles_round_mark(void *mark, uint32_t number, uint64_t media_size, const void *records, size_t length)
{
    using namespace mediafiles::recovery;
    write_mark(round_mark{number, media_size, crc32(0, records, length)}, static_cast<uint8_t *>(mark));
}
