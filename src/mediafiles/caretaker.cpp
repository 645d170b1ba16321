// The journal of a recording.
//
// A writer (fd -1) learns of a sample in three steps: the movie accepts the
// frame (time and key are known), the track takes it (its stored size is
// known), its chunk is written (its place in the file is known). Until then
// it waits as a pending sample in its track's queue; only then its record is
// stored. So no record names a sample that has not gone to the stream, and
// the samples stand in the journal in the order of the file.
//
// A reader (fd 0 or more) hands out records in place from a window of the
// file, whose start is always on a record.
//
// error keeps the first failure; from then on both only fail with it, until
// they are reset.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include <mediafiles/caretaker.h>
#include <mediafiles/support/io.h>

#include "mediafiles/journal.h"
#include "mediafiles/log.h"
#include "mediafiles/memento-record.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {

constexpr uint32_t slot_count = 8; // tracks

struct pending_sample {
    sample_memento record; // len is 0 until the track has taken the sample, offset until it is stored
    pending_sample *next;
};

// The samples of one track that wait for their place in the file.
struct pending_queue {
    pending_sample *cursor; // the one that received the latest size, or NULL
    pending_sample *first;
    pending_sample *last; // only valid while first is set
};

} // namespace mediafiles

using namespace mediafiles;

struct mediafile_caretaker {
    int32_t fd;        // the journal file of a reader, owned; -1 for a writer
    uint8_t *buffer;   // records stored and not yet handed out (writer), or read ahead (reader)
    uint32_t capacity; // bytes
    uint32_t length;   // bytes in use
    bool eof;          // a read returned less than was asked
    int32_t error;     // errno of the first failure, or 0
    pending_sample *free_nodes;
    pending_queue slots[slot_count];
    uint32_t next_offset; // the least offset that the next sample may have
    uint32_t read_pos;    // of a reader, in buffer
};

namespace mediafiles {
namespace {

constexpr uint32_t writer_capacity = 4096;
constexpr uint32_t reader_capacity = 8192;

// These appear in log lines, which are part of the interface.
constexpr const char *log_path = "src/mediafiles/caretaker";
constexpr const char *log_function_bad_message = "mediafile_caretaker_pop";
constexpr int log_line_bad_message = 579;

constexpr uint8_t last_kind = MEMENTO_SEI;

[[gnu::cold, gnu::noinline]] int fail(mediafile_caretaker *caretaker, int error)
{
    caretaker->error = error;
    return refuse(error);
}

bool is_reader(const mediafile_caretaker *caretaker)
{
    return caretaker->fd >= 0;
}

// Room for a record behind those that are stored; NULL with error set.
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

// Whether records can be added; else errno tells why not.
bool takes_records(const mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker) && caretaker->error == 0) [[likely]]
        return true;
    set_errno(is_reader(caretaker) ? EACCES : caretaker->error);
    return false;
}

// One that waits for its size and place, or one that has them and is stored
// as it is given.
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

// What a sample does that finds no free node. Kept out of its way: so the
// samples that find one need no register of their caller.
[[gnu::cold, gnu::noinline]] int journal_in_new_node(mediafile_caretaker *caretaker, uint8_t track, int64_t seconds,
                                                     uint32_t nanoseconds, int32_t key)
{
    caretaker->free_nodes = create<pending_sample>();
    if (!caretaker->free_nodes) return fail(caretaker, errno);
    return journal_sample(caretaker, track, seconds, nanoseconds, key);
}

void free_list(pending_sample *node)
{
    while (node) free(std::exchange(node, node->next));
}

void reset(mediafile_caretaker *caretaker)
{
    caretaker->length = 0;
    caretaker->error = 0;
    caretaker->next_offset = 0;
    for (pending_queue &queue : caretaker->slots) {
        if (queue.first) {
            queue.last->next = caretaker->free_nodes;
            caretaker->free_nodes = queue.first;
        }
        queue = {};
    }
}

// Reads on behind what the buffer holds. false at the end of the file, and on
// failure, with error set.
bool refill(mediafile_caretaker *caretaker)
{
    if (caretaker->eof) return false;
    const uint32_t wanted = caretaker->capacity - caretaker->length;
    const ssize_t got = readn(caretaker->fd, caretaker->buffer + caretaker->length, wanted);
    if (got < 0) {
        fail(caretaker, errno);
        return false;
    }
    const auto n = static_cast<uint32_t>(got);
    if (n < wanted) caretaker->eof = true;
    caretaker->length += n;
    return n > 0;
}

const memento *at_read_pos(const mediafile_caretaker *caretaker)
{
    // Records are multiples of 4 bytes, and the buffer begins with one.
    return reinterpret_cast<const memento *>(caretaker->buffer + caretaker->read_pos);
}

[[gnu::cold, gnu::noinline]] uint32_t too_large(mediafile_caretaker *caretaker, uint32_t size)
{
    if (log_enabled(log_warning))
        __printLog(log_warning, "len(%d) > MEMENTO_MAX_SIZE(%d)\n", static_cast<int>(size), MEMENTO_MAX_SIZE);
    fail(caretaker, EBADMSG);
    return 0;
}

// Bytes of the record at the read position; 0 when it does not lie there
// whole, and with error set when it cannot be.
inline uint32_t whole_record(mediafile_caretaker *caretaker)
{
    const uint32_t there = caretaker->length - caretaker->read_pos;
    if (there < sizeof(memento)) return 0;
    const uint32_t size = record_size(at_read_pos(caretaker)->length);
    if (size > MEMENTO_MAX_SIZE) return too_large(caretaker, size);
    return size <= there ? size : 0;
}

// Reads on, and then the same. 0 at the end of the journal, where a record that
// the end cuts is dropped, and on failure.
[[gnu::cold, gnu::noinline]] uint32_t read_on(mediafile_caretaker *caretaker)
{
    if (caretaker->error != 0) return 0;
    caretaker->length -= caretaker->read_pos;
    memmove(caretaker->buffer, caretaker->buffer + caretaker->read_pos, caretaker->length);
    caretaker->read_pos = 0;
    const uint32_t size = refill(caretaker) ? whole_record(caretaker) : 0;
    if (size == 0 && caretaker->error == 0) caretaker->length = caretaker->read_pos = 0;
    return size;
}

[[gnu::cold, gnu::noinline]] void bad_message(mediafile_caretaker *caretaker)
{
    if (log_enabled(log_failure))
        __printLog(log_failure, "bad_msg [%s:%s:%d]: %s\n", log_path, log_function_bad_message, log_line_bad_message,
                   strerror(errno));
    fail(caretaker, EBADMSG);
}

bool accept_sample(mediafile_caretaker *caretaker, const sample_memento &sample)
{
    if (sample.offset < caretaker->next_offset || sample.len == 0) return false;
    caretaker->next_offset = sample.offset + sample.len;
    return true;
}

// Whether a journal file holds such a record.
inline bool accept(mediafile_caretaker *caretaker, const memento *record)
{
    if (record->kind == MEMENTO_SAMPLE) [[likely]]
        return record->length == payload_length<sample_memento> &&
               accept_sample(caretaker, whole_memento<sample_memento>(record));
    switch (record->kind) {
    case MEMENTO_TRACK:
        return record->length == 4 * sizeof(uint32_t); // a description
    case MEMENTO_USER:
    case MEMENTO_VPS:
    case MEMENTO_SPS:
    case MEMENTO_PPS:
    case MEMENTO_SEI:
        return true;
    default:
        return false;
    }
}

mediafile_caretaker *make(int fd, uint32_t capacity)
{
    owned<mediafile_caretaker, free> caretaker(create<mediafile_caretaker>());
    if (!caretaker) return nullptr;
    caretaker->buffer = static_cast<uint8_t *>(malloc(capacity));
    if (!caretaker->buffer) return nullptr;
    caretaker->fd = fd;
    caretaker->capacity = capacity;
    return caretaker.release();
}

} // namespace

int journal_sample(mediafile_caretaker *caretaker, uint8_t track, int64_t seconds, uint32_t nanoseconds, int32_t key)
{
    if (!takes_records(caretaker)) return -1;
    if (track >= slot_count) return fail(caretaker, ENOBUFS);
    pending_sample *node = caretaker->free_nodes;
    if (!node) return journal_in_new_node(caretaker, track, seconds, nanoseconds, key);
    caretaker->free_nodes = node->next;

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

mediafile_caretaker *mediafile_caretaker_create(void)
{
    return make(-1, writer_capacity);
}

mediafile_caretaker *mediafile_caretaker_load(const char *path)
{
    const int fd = open(path, O_RDONLY);
    if (fd < 0) return nullptr;
    mediafile_caretaker *caretaker = make(fd, reader_capacity);
    if (!caretaker) {
        errno_saver keep;
        close(fd);
    }
    return caretaker;
}

void mediafile_caretaker_destroy(mediafile_caretaker *caretaker)
{
    for (pending_queue &queue : caretaker->slots) free_list(queue.first);
    free_list(caretaker->free_nodes);
    if (is_reader(caretaker)) close(caretaker->fd);
    free(caretaker->buffer);
    free(caretaker);
}

int mediafile_caretaker_add(mediafile_caretaker *caretaker, const memento *record)
{
    if (!takes_records(caretaker)) return -1;
    if (record->kind > last_kind) return fail(caretaker, EBADRQC);
    switch (record->kind) {
    case MEMENTO_SAMPLE:
        return add_sample(caretaker, record);
    case MEMENTO_SAMPLE_SIZE:
        return add_sample_size(caretaker, record);
    case MEMENTO_CHUNK:
        return add_chunk(caretaker, record);
    case MEMENTO_SAMPLE_WRITTEN:
        return add_sample_written(caretaker, record);
    default:
        return store(caretaker, record);
    }
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

void mediafile_caretaker_reset(mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker)) reset(caretaker);
}

void mediafile_caretaker_reset2(mediafile_caretaker *caretaker)
{
    reset(caretaker);
    caretaker->eof = false;
    caretaker->read_pos = 0;
    // A second pass over nothing would look like an empty journal.
    if (is_reader(caretaker) && lseek(caretaker->fd, 0, SEEK_SET) == -1 && errno != EOVERFLOW) fail(caretaker, errno);
}

const memento *mediafile_caretaker_pop(mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker)) {
        set_errno(EACCES);
        return nullptr;
    }
    if (caretaker->error != 0) {
        set_errno(caretaker->error);
        return nullptr;
    }
    uint32_t size = whole_record(caretaker);
    if (size == 0 && (size = read_on(caretaker)) == 0) return nullptr;

    const memento *record = at_read_pos(caretaker);
    if (!accept(caretaker, record)) {
        bad_message(caretaker);
        return nullptr;
    }
    caretaker->read_pos += size;
    if (caretaker->read_pos == caretaker->length) caretaker->read_pos = caretaker->length = 0;
    return record;
}

int mediafile_caretaker_eof(mediafile_caretaker *caretaker)
{
    return caretaker->eof && caretaker->read_pos == caretaker->length;
}

int mediafile_caretaker_errcode(mediafile_caretaker *caretaker)
{
    if (caretaker->error != 0 && log_enabled(log_warning))
        __printLog(log_warning, "caretaker->error=%d(%s)\n", caretaker->error, strerror(caretaker->error));
    return caretaker->error;
}
