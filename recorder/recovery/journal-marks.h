// Records of the journal that the core passes over: MEMENTO_USER whose
// payload is text, so that a dump of a journal explains itself.
//
//     mediafiles round 0000000012 of 000012345678 bytes 1a2b3c4d..
//         ends what one round of syncs appended; then follows the CRC-32
//         of the journal's bytes since the mark before
//     mediafiles repair: of 0012345678 bytes d-...
//         ends the journal that a repair made: bytes of the media file before
//         it, whether it left out the last frame (d), whether it was completed (c)
//     mediafiles protected
//         the recording is to lose its write permission when it is finished
#pragma once

#include <cstddef>
#include <cstdint>

namespace mediafiles::recovery {

// CRC-32 of ISO/IEC 13239 (as in zlib), continued from crc; 0 to begin with.
uint32_t crc32(uint32_t crc, const void *bytes, size_t count);

struct round_mark {
    uint32_t number;
    uint64_t media_size;
    uint32_t crc;
};

struct repair_mark {
    uint32_t media_size;
    bool dropped_frame;
    bool completed;
};

constexpr uint32_t round_mark_length = 60; // bytes of payload, without padding
constexpr uint32_t repair_mark_length = 44;
constexpr uint32_t repair_mark_size = 48; // bytes of the record

// false: the payload of that MEMENTO_USER is something else
bool read_mark(const uint8_t *payload, uint32_t length, round_mark &mark);
bool read_mark(const uint8_t *payload, uint32_t length, repair_mark &mark);

void write_mark(const repair_mark &mark, uint8_t record[repair_mark_size]);

constexpr uint32_t protection_mark_length = 20;
constexpr uint32_t protection_mark_size = 24;

bool is_protection_mark(const uint8_t *payload, uint32_t length);
void write_protection_mark(uint8_t record[protection_mark_size]);

} // namespace mediafiles::recovery
