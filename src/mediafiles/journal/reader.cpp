// The reader of a journal file: hands out records in place, from a window of
// the file whose start is always on a record.

#include <cstring>

#include <mediafiles/support/io.h>

#include "mediafiles/journal/caretaker.h"
#include "mediafiles/log.h"

namespace mediafiles {
namespace {

// These appear in log lines, which are part of the interface.
constexpr const char *log_path = "src/mediafiles/caretaker";
constexpr const char *log_function_bad_message = "mediafile_caretaker_pop";
constexpr int log_line_bad_message = 579;

// Appends more of the file to the window. false at the end of the file; also
// on failure, with error set.
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

uint32_t too_large(mediafile_caretaker *caretaker, uint32_t size)
{
    if (log_enabled(log_warning))
        __printLog(log_warning, "len(%d) > MEMENTO_MAX_SIZE(%d)\n", static_cast<int>(size), MEMENTO_MAX_SIZE);
    fail(caretaker, EBADMSG);
    return 0;
}

// The size of the record at the read position. 0 when the window does not hold
// all of it; also when its header is invalid, with error set.
inline uint32_t whole_record(mediafile_caretaker *caretaker)
{
    const uint32_t available = caretaker->length - caretaker->read_pos;
    if (available < sizeof(memento)) return 0;
    const uint32_t size = record_size(at_read_pos(caretaker)->length);
    if (size > MEMENTO_MAX_SIZE) return too_large(caretaker, size);
    return size <= available ? size : 0;
}

// Refills the buffer and looks again. 0 at the end of the journal, and on
// failure.
uint32_t refilled_record(mediafile_caretaker *caretaker)
{
    if (caretaker->error != 0) return 0;
    caretaker->length -= caretaker->read_pos;
    memmove(caretaker->buffer, caretaker->buffer + caretaker->read_pos, caretaker->length);
    caretaker->read_pos = 0;
    const uint32_t size = refill(caretaker) ? whole_record(caretaker) : 0;
    // A record that the end of the file cuts is no damage: the power failed
    // while it was appended. Everything before it is whole, and only its own
    // sample is lost. It is dropped, and the journal ends here.
    if (size == 0 && caretaker->error == 0) caretaker->length = caretaker->read_pos = 0;
    return size;
}

void bad_message(mediafile_caretaker *caretaker)
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

// Whether a journal file may hold a record of this kind and length.
bool valid(uint8_t kind, uint16_t length)
{
    if (kind >= std::size(memento_kinds)) return false;
    const memento_kind &row = memento_kinds[kind];
    return row.read && (row.length == any_length || row.length == length);
}

inline bool accept(mediafile_caretaker *caretaker, const memento *record)
{
    if (record->kind == MEMENTO_SAMPLE) [[likely]]
        return valid(MEMENTO_SAMPLE, record->length) && accept_sample(caretaker, whole_memento<sample_memento>(record));
    return valid(record->kind, record->length);
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

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
    if (size == 0 && (size = refilled_record(caretaker)) == 0) return nullptr;

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
