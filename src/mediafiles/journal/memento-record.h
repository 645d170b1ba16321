// The mementos that the library itself makes, as plain records. Every field is
// a 32-bit word, because the 64-bit seconds are not at a multiple of 8.
#pragma once

#include <cstdint>
#include <cstring>

#include <mediafiles/caretaker.h>

namespace mediafiles {

struct sample_memento {
    memento header;
    uint32_t offset; // in the file
    uint32_t len;
    uint32_t seconds[2]; // low word first
    uint32_t nanoseconds;
    int32_t key;
};

struct sample_size_memento {
    memento header;
    uint32_t len;
};

struct chunk_memento {
    memento header;
    uint32_t offset;
    int32_t count; // samples
};

struct sample_written_memento {
    memento header;
    uint32_t offset;
    uint32_t len;
};

template <class Record>
constexpr uint16_t payload_length = sizeof(Record) - sizeof(memento);

static_assert(sizeof(memento) == 4 && alignof(memento) == 2);
static_assert(payload_length<sample_memento> == 24);
static_assert(payload_length<sample_size_memento> == 4);
static_assert(payload_length<chunk_memento> == 8);
static_assert(payload_length<sample_written_memento> == 8);

template <class Record>
constexpr memento memento_header(uint8_t kind, uint32_t track)
{
    return {kind, static_cast<uint8_t>(track), payload_length<Record>};
}

// Bytes of a record with its padding, computed in 32 bits.
constexpr uint32_t record_size(uint16_t length)
{
    return static_cast<uint32_t>(sizeof(memento)) + ((uint32_t{length} + 3) & ~3u);
}

// A record in the buffer of a journal's reader. The reader has checked that it
// is as long as its kind requires, and it is aligned to 4 bytes.
template <class Record>
const Record &whole_memento(const memento *from)
{
    return *reinterpret_cast<const Record *>(from);
}

// A copy of a record's fields; those that a shorter record does not have are 0.
template <class Record>
Record load_memento(const memento *from)
{
    Record record;
    const uint32_t there = record_size(from->length);
    if (there >= sizeof record) {
        memcpy(&record, from, sizeof record);
    } else {
        record = {};
        memcpy(&record, from, there);
    }
    return record;
}

} // namespace mediafiles
