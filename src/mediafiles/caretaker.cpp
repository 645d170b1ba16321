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

#include "mediafiles/log.h"
#include "mediafiles/memento-record.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {

constexpr uint32_t slot_count = 8; // tracks

struct pending_sample {
    uint32_t len; // bytes as stored; 0 until the track has taken the sample
    int64_t seconds;
    uint32_t nanoseconds;
    int32_t key;
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
    int32_t fd;         // the journal file of a reader, owned; -1 for a writer
    uint8_t *buffer;    // records stored and not yet handed out (writer), or read ahead (reader)
    uint32_t capacity;  // bytes
    uint32_t length;    // bytes in use
    bool eof;           // a read returned less than was asked
    int32_t error;      // errno of the first failure, or 0
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
constexpr int log_line_bad_message = 579;

constexpr int any_length = -1;

// What a journal file holds, and a reader accepts, of each kind.
struct {
    bool stored;
    int length;
} constexpr kinds[] = {
    {true, any_length},                        // MEMENTO_USER
    {true, 16},                                // MEMENTO_TRACK: a description of four words
    {true, payload_length<sample_memento>},    // MEMENTO_SAMPLE
    {false, 0},                                // MEMENTO_SAMPLE_SIZE
    {false, 0},                                // MEMENTO_CHUNK
    {false, 0},                                // MEMENTO_SAMPLE_WRITTEN
    {true, any_length},                        // MEMENTO_VPS
    {true, any_length},                        // MEMENTO_SPS
    {true, any_length},                        // MEMENTO_PPS
    {true, any_length},                        // MEMENTO_SEI
};
constexpr uint8_t kind_count = sizeof kinds / sizeof kinds[0];

int fail(mediafile_caretaker *caretaker, int error)
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

// Takes the first node out of the track's queue. It is on the free list then,
// and keeps what it holds until a node is asked for.
const pending_sample &take_first(mediafile_caretaker *caretaker, pending_queue &queue)
{
    pending_sample *node = queue.first;
    if (queue.cursor == node) queue.cursor = nullptr;
    queue.first = node->next;
    node->next = caretaker->free_nodes;
    caretaker->free_nodes = node;
    return *node;
}

int store_sample(mediafile_caretaker *caretaker, uint8_t track, uint32_t offset, uint32_t len,
                 const pending_sample &sample)
{
    caretaker->next_offset = offset + len;
    uint8_t *room = reserve(caretaker, sizeof(sample_memento));
    if (!room) return -1;
    sample_memento record = {memento_header<sample_memento>(MEMENTO_SAMPLE, track), offset, len, {},
                             sample.nanoseconds, sample.key};
    memcpy(record.seconds, &sample.seconds, sizeof record.seconds);
    memcpy(room, &record, sizeof record);
    return 0;
}

int queue_sample(mediafile_caretaker *caretaker, const sample_memento &record)
{
    pending_sample *node = caretaker->free_nodes;
    if (node)
        caretaker->free_nodes = node->next;
    else if (!(node = create<pending_sample>()))
        return fail(caretaker, errno);

    *node = {0, 0, record.nanoseconds, record.key, nullptr};
    memcpy(&node->seconds, record.seconds, sizeof node->seconds);
    pending_queue &queue = caretaker->slots[record.header.track];
    (queue.first ? queue.last->next : queue.first) = node;
    queue.last = node;
    return 0;
}

int add_sample(mediafile_caretaker *caretaker, const memento *given)
{
    if (given->track >= slot_count) return fail(caretaker, ENOBUFS);
    const auto record = load_memento<sample_memento>(given);
    if (record.len == 0) return queue_sample(caretaker, record);
    if (record.offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    caretaker->next_offset = record.offset + record.len;
    return store(caretaker, given);
}

int add_sample_size(mediafile_caretaker *caretaker, const memento *given)
{
    if (given->track >= slot_count) return fail(caretaker, ENOENT);
    const auto record = load_memento<sample_size_memento>(given);
    if (record.len == 0) return fail(caretaker, EINVAL);
    pending_queue &queue = caretaker->slots[given->track];
    pending_sample *target = queue.cursor ? queue.cursor->next : queue.first;
    if (!target) return fail(caretaker, ENOENT);
    target->len = record.len;
    queue.cursor = target;
    return 0;
}

int add_chunk(mediafile_caretaker *caretaker, const memento *given)
{
    if (given->track >= slot_count) return fail(caretaker, ENOENT);
    const auto record = load_memento<chunk_memento>(given);
    if (record.offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    if (record.count <= 0) return fail(caretaker, EINVAL);

    pending_queue &queue = caretaker->slots[given->track];
    uint32_t offset = record.offset;
    for (int32_t i = 0; i < record.count; ++i) {
        if (!queue.first || queue.first->len == 0) return fail(caretaker, ENOENT);
        const pending_sample &sample = take_first(caretaker, queue);
        if (store_sample(caretaker, given->track, offset, sample.len, sample) != 0) return -1;
        offset += sample.len;
    }
    return 0;
}

int add_sample_written(mediafile_caretaker *caretaker, const memento *given)
{
    if (given->track >= slot_count) return fail(caretaker, ENOENT);
    const auto record = load_memento<sample_written_memento>(given);
    if (record.offset < caretaker->next_offset) return fail(caretaker, EILSEQ);
    if (record.len == 0) return fail(caretaker, EINVAL);
    pending_queue &queue = caretaker->slots[given->track];
    if (!queue.first) return fail(caretaker, ENOENT);
    return store_sample(caretaker, given->track, record.offset, record.len, take_first(caretaker, queue));
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

// Whether a whole record lies at the read position. false also for a record
// that cannot be, with error set.
bool whole_record(mediafile_caretaker *caretaker)
{
    const uint32_t there = caretaker->length - caretaker->read_pos;
    if (there < sizeof(memento)) return false;
    const uint32_t size = record_size(at_read_pos(caretaker)->length);
    if (size > MEMENTO_MAX_SIZE) {
        if (log_enabled(log_warning))
            __printLog(log_warning, "len(%d) > MEMENTO_MAX_SIZE(%d)\n", static_cast<int>(size), MEMENTO_MAX_SIZE);
        fail(caretaker, EBADMSG);
        return false;
    }
    return size <= there;
}

// Brings a whole record to the read position. false at the end of the
// journal, where a record that the end cuts is dropped, and on failure.
bool next_record(mediafile_caretaker *caretaker)
{
    if (caretaker->read_pos == caretaker->length && !refill(caretaker)) return false;
    if (whole_record(caretaker)) return true;
    if (caretaker->error != 0) return false;

    caretaker->length -= caretaker->read_pos;
    memmove(caretaker->buffer, caretaker->buffer + caretaker->read_pos, caretaker->length);
    caretaker->read_pos = 0;
    if (refill(caretaker) && whole_record(caretaker)) return true;
    if (caretaker->error == 0) caretaker->length = caretaker->read_pos = 0;
    return false;
}

bool accept(mediafile_caretaker *caretaker, const memento *record)
{
    if (record->kind >= kind_count || !kinds[record->kind].stored) return false;
    const int length = kinds[record->kind].length;
    if (length != any_length && record->length != length) return false;
    if (record->kind == MEMENTO_SAMPLE) {
        const auto sample = load_memento<sample_memento>(record);
        if (sample.offset < caretaker->next_offset || sample.len == 0) return false;
        caretaker->next_offset = sample.offset + sample.len;
    }
    return true;
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
    if (is_reader(caretaker)) return refuse(EACCES);
    if (caretaker->error != 0) return refuse(caretaker->error);
    if (record->kind >= kind_count) return fail(caretaker, EBADRQC);
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
        errno = EACCES;
        return nullptr;
    }
    if (!count) {
        errno = EINVAL;
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
    if (is_reader(caretaker) && lseek(caretaker->fd, 0, SEEK_SET) == -1) fail(caretaker, errno);
}

const memento *mediafile_caretaker_pop(mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker)) {
        errno = EACCES;
        return nullptr;
    }
    if (caretaker->error != 0) {
        errno = caretaker->error;
        return nullptr;
    }
    if (!next_record(caretaker)) return nullptr;

    const memento *record = at_read_pos(caretaker);
    if (!accept(caretaker, record)) {
        if (log_enabled(log_failure))
            __printLog(log_failure, "bad_msg [%s:%s:%d]: %s\n", log_path, __func__, log_line_bad_message,
                       strerror(errno));
        fail(caretaker, EBADMSG);
        return nullptr;
    }
    caretaker->read_pos += record_size(record->length);
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
