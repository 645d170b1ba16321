// The writer of a journal: takes samples step by step, stores their records
// in memory once they are complete, and hands out what it has stored.

#include <cstdlib>
#include <cstring>
#include <utility>

#include "mediafiles/journal/caretaker.h"
#include "mediafiles/journal/samples.h"
#include "mediafiles/ownership.h"

namespace mediafiles {
namespace {

// Room for one more record at the end of the buffer; NULL with error set.
uint8_t *reserve(mediafile_caretaker *caretaker, uint32_t size)
{
    if (caretaker->capacity - caretaker->length < size) {
        if (caretaker->capacity > UINT32_MAX / 2) {
            fail(caretaker, ENOMEM);
            return nullptr;
        }
        void *grown = realloc(caretaker->buffer, size_t{caretaker->capacity} * 2);
        if (!grown) {
            fail(caretaker, errno);
            return nullptr;
        }
        caretaker->buffer = static_cast<uint8_t *>(grown);
        caretaker->capacity *= 2;
    }
    uint8_t *room = caretaker->buffer + caretaker->length;
    caretaker->length += size;
    return room;
}

int store(mediafile_caretaker *caretaker, const memento *record)
{
    const uint32_t size = record_size(record->length);
    if (size > MEMENTO_MAX_SIZE) return fail(caretaker, EFBIG);
    uint8_t *room = reserve(caretaker, size);
    if (!room) return -1;
    memcpy(room, record, size);
    return 0;
}

// Stores the first sample of the track's queue and puts its node on the free list.
int store_first(mediafile_caretaker *caretaker, pending_queue &queue, uint32_t offset, uint32_t len)
{
    pending_sample *node = queue.first;
    if (queue.cursor == node) queue.cursor = nullptr;
    queue.first = node->next;
    node->next = caretaker->free_nodes;
    caretaker->free_nodes = node;

    caretaker->next_offset = offset + len;
    uint8_t *room = reserve(caretaker, sizeof node->record);
    if (!room) return -1;
    node->record.offset = offset;
    node->record.len = len;
    memcpy(room, &node->record, sizeof node->record);
    return 0;
}

// Whether records can be added; if not, errno says why.
bool takes_records(const mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker) && caretaker->error == 0) [[likely]]
        return true;
    set_errno(is_reader(caretaker) ? EACCES : caretaker->error);
    return false;
}

// A node off the free list, or a new one; NULL with error set.
pending_sample *take_node(mediafile_caretaker *caretaker)
{
    pending_sample *node = caretaker->free_nodes;
    if (node) [[likely]] {
        caretaker->free_nodes = node->next;
        return node;
    }
    node = create<pending_sample>();
    if (!node) fail(caretaker, errno);
    return node;
}

// A sample of size 0 is accepted and waits for its size and place. One that has
// them is stored as it is given.
int add_sample(mediafile_caretaker *caretaker, const memento *given)
{
    const auto record = load_memento<sample_memento>(given);
    if (record.len == 0) {
        const uint64_t seconds = uint64_t{record.seconds[1]} << 32 | record.seconds[0];
        return journal_sample(caretaker, given->track, static_cast<int64_t>(seconds), record.nanoseconds, record.key);
    }
    if (given->track >= slot_count) return fail(caretaker, ENOBUFS);
    if (record.offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    caretaker->next_offset = record.offset + record.len;
    return store(caretaker, given);
}

int add_sample_size(mediafile_caretaker *caretaker, const memento *given)
{
    return journal_sample_size(caretaker, given->track, load_memento<sample_size_memento>(given).len);
}

int add_chunk(mediafile_caretaker *caretaker, const memento *given)
{
    const auto record = load_memento<chunk_memento>(given);
    return journal_chunk(caretaker, given->track, record.offset, record.count);
}

int add_sample_written(mediafile_caretaker *caretaker, const memento *given)
{
    if (given->track >= slot_count) return fail(caretaker, ENOENT);
    const auto record = load_memento<sample_written_memento>(given);
    if (record.offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    if (record.len == 0) return fail(caretaker, EINVAL);
    pending_queue &queue = caretaker->slots[given->track];
    if (!queue.first) return fail(caretaker, ENOENT);
    return store_first(caretaker, queue, record.offset, record.len);
}

// The kinds that are not stored as they are given, from MEMENTO_SAMPLE on.
int (*const steps[])(mediafile_caretaker *, const memento *) = {add_sample, add_sample_size, add_chunk,
                                                                add_sample_written};

static_assert([] {
    for (const memento_kind &each : memento_kinds) {
        const bool step = each.kind >= MEMENTO_SAMPLE && each.kind < MEMENTO_SAMPLE + std::size(steps);
        if (step == each.stored) return false;
    }
    return true;
}());

} // namespace

int journal_sample(mediafile_caretaker *caretaker, uint8_t track, int64_t seconds, uint32_t nanoseconds, int32_t key)
{
    if (!takes_records(caretaker)) return -1;
    if (track >= slot_count) return fail(caretaker, ENOBUFS);
    pending_sample *node = take_node(caretaker);
    if (!node) return -1;

    node->record = {memento_header<sample_memento>(MEMENTO_SAMPLE, track), 0, 0, {}, nanoseconds, key};
    memcpy(node->record.seconds, &seconds, sizeof seconds);
    node->next = nullptr;
    pending_queue &queue = caretaker->slots[track];
    (queue.first ? queue.last->next : queue.first) = node;
    queue.last = node;
    return 0;
}

int journal_sample_size(mediafile_caretaker *caretaker, uint8_t track, uint32_t len)
{
    if (!takes_records(caretaker)) return -1;
    if (track >= slot_count) return fail(caretaker, ENOENT);
    if (len == 0) return fail(caretaker, EINVAL);
    pending_queue &queue = caretaker->slots[track];
    pending_sample *target = queue.cursor ? queue.cursor->next : queue.first;
    if (!target) return fail(caretaker, ENOENT);
    target->record.len = len;
    queue.cursor = target;
    return 0;
}

int journal_chunk(mediafile_caretaker *caretaker, uint8_t track, uint32_t offset, int32_t count)
{
    if (!takes_records(caretaker)) return -1;
    if (track >= slot_count) return fail(caretaker, ENOENT);
    if (offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    if (count <= 0) return fail(caretaker, EINVAL);

    pending_queue &queue = caretaker->slots[track];
    for (int32_t i = 0; i < count; ++i) {
        if (!queue.first || queue.first->record.len == 0) return fail(caretaker, ENOENT);
        const uint32_t len = queue.first->record.len;
        if (store_first(caretaker, queue, offset, len) != 0) return -1;
        offset += len;
    }
    return 0;
}

} // namespace mediafiles

using namespace mediafiles;

int mediafile_caretaker_add(mediafile_caretaker *caretaker, const memento *record)
{
    if (!takes_records(caretaker)) return -1;
    if (record->kind >= std::size(memento_kinds)) return fail(caretaker, EBADRQC);
    if (memento_kinds[record->kind].stored) return store(caretaker, record);
    return steps[record->kind - MEMENTO_SAMPLE](caretaker, record);
}

const void *mediafile_caretaker_read(mediafile_caretaker *caretaker, uint32_t *count)
{
    if (is_reader(caretaker)) {
        set_errno(EACCES);
        return nullptr;
    }
    if (!count) {
        set_errno(EINVAL);
        return nullptr;
    }
    *count = std::exchange(caretaker->length, 0);
    return caretaker->buffer;
}
