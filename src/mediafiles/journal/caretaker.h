// The record of a journal, shared by its writer and its reader, and the kinds
// of mementos.
//
// The way of a sample through a writer:
//
//     accepted    the movie has taken the frame: time and key are known
//        |        journal_sample: a node at the end of the track's queue
//     sized       the track has made the sample: its size is known
//        |        journal_sample_size: the first node without a size gets it
//     placed      the sample's chunk went to the stream: its offset is known
//        |        journal_chunk: the first node of the queue gets it
//     stored      the record is complete and stands in the buffer; its node is free
//        |        mediafile_caretaker_read
//     drained     the application has the record
//
// So no record names a sample that has not gone to the stream, and the records
// stand in the order of the samples in the file.
#pragma once

#include <cerrno>
#include <cstdint>
#include <iterator>

#include <mediafiles/caretaker.h>

#include "mediafiles/journal/memento-record.h"
#include "mediafiles/refuse.h"

namespace mediafiles {

constexpr uint32_t slot_count = 8; // tracks

struct pending_sample {
    sample_memento record; // len is 0 until the sample is sized, offset until it is placed
    pending_sample *next;
};

// The samples of one track that are accepted, but not stored.
struct pending_queue {
    pending_sample *cursor; // the one that was sized last, or NULL
    pending_sample *first;
    pending_sample *last; // only valid while first is set
};

} // namespace mediafiles

struct mediafile_caretaker {
    int32_t fd;        // the journal file of a reader, owned; -1 for a writer
    uint8_t *buffer;   // owned: records stored and not yet drained (writer), or read ahead (reader)
    uint32_t capacity; // bytes
    uint32_t length;   // bytes in use
    bool eof;          // a read returned less than was asked
    int32_t error;     // errno of the first failure, or 0; while it is set both kinds fail with it, until a reset
    mediafiles::pending_sample *free_nodes;
    mediafiles::pending_queue slots[mediafiles::slot_count];
    uint32_t next_offset; // the lowest offset that the next sample may have
    uint32_t read_pos;    // of a reader, in buffer
};

namespace mediafiles {

constexpr uint16_t any_length = UINT16_MAX;

// A row for each kind, in the order of their numbers.
struct memento_kind {
    uint8_t kind;
    uint16_t length; // payload bytes of a record in a file
    bool stored;     // a writer stores the record as it is given; the others are steps of a sample
    bool read;       // a journal file may hold it
};

constexpr memento_kind memento_kinds[] = {
    {MEMENTO_USER, any_length, true, true},
    {MEMENTO_TRACK, 16, true, true},
    {MEMENTO_SAMPLE, payload_length<sample_memento>, false, true},
    {MEMENTO_SAMPLE_SIZE, payload_length<sample_size_memento>, false, false},
    {MEMENTO_CHUNK, payload_length<chunk_memento>, false, false},
    {MEMENTO_SAMPLE_WRITTEN, payload_length<sample_written_memento>, false, false},
    {MEMENTO_VPS, any_length, true, true},
    {MEMENTO_SPS, any_length, true, true},
    {MEMENTO_PPS, any_length, true, true},
    {MEMENTO_SEI, any_length, true, true},
};

static_assert([] {
    uint8_t number = 0;
    for (const memento_kind &each : memento_kinds)
        if (each.kind != number++) return false;
    return true;
}());

inline bool is_reader(const mediafile_caretaker *caretaker)
{
    return caretaker->fd >= 0;
}

// A failure that stays: error is set, the result is -1 with errno. That it is
// cold keeps 8 instructions off every journaled frame.
[[gnu::cold]] int fail(mediafile_caretaker *caretaker, int error);

} // namespace mediafiles
