// The reader of a journal file: hands out records in place, from a window of
// the file whose start is always on a record.

#include <cstring>

#include <mediafiles/support/io.h>

#include "mediafiles/journal/caretaker.h"
#include "mediafiles/journal/take-sample.h"
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

// The size of the record at the read position, when it is valid and the window
// holds all of it; else 0.
inline uint32_t whole_record(const mediafile_caretaker *caretaker)
{
    const uint32_t available = caretaker->length - caretaker->read_pos;
    if (available < sizeof(memento)) return 0;
    const uint32_t size = record_size(at_read_pos(caretaker)->length);
    if (size > MEMENTO_MAX_SIZE || size > available) return 0;
    return size;
}

// Fails when the header at the read position gives more than the largest size.
bool too_large(mediafile_caretaker *caretaker)
{
    if (caretaker->length - caretaker->read_pos < sizeof(memento)) return false;
    const uint32_t size = record_size(at_read_pos(caretaker)->length);
    if (size <= MEMENTO_MAX_SIZE) return false;
    if (log_enabled(log_warning))
        __printLog(log_warning, "len(%d) > MEMENTO_MAX_SIZE(%d)\n", static_cast<int>(size), MEMENTO_MAX_SIZE);
    fail(caretaker, EBADMSG);
    return true;
}

const memento *bad_message(mediafile_caretaker *caretaker)
{
    if (log_enabled(log_failure))
        __printLog(log_failure, "bad_msg [%s:%s:%d]: %s\n", log_path, log_function_bad_message, log_line_bad_message,
                   strerror(errno));
    fail(caretaker, EBADMSG);
    return nullptr;
}

// Whether a journal file may hold a record of this kind and length.
bool valid(uint8_t kind, uint16_t length)
{
    if (kind >= std::size(memento_kinds)) return false;
    const memento_kind &row = memento_kinds[kind];
    return row.read && (row.length == any_length || row.length == length);
}

bool accept(mediafile_caretaker *caretaker, const memento *record)
{
    if (!valid(record->kind, record->length)) return false;
    return record->kind != MEMENTO_SAMPLE || accept_sample(caretaker, whole_memento<sample_memento>(record));
}

// Hands out the record at the read position, of which the window holds all;
// NULL with error set when it is invalid.
const memento *take(mediafile_caretaker *caretaker, uint32_t size)
{
    const memento *record = at_read_pos(caretaker);
    if (!accept(caretaker, record)) return bad_message(caretaker);
    caretaker->read_pos += size;
    return record;
}

// Refills the buffer and looks again. NULL at the end of the journal, and on
// failure. Separate, so that the common path saves no registers (4 instructions
// a record).
[[gnu::noinline]] const memento *take_after_refill(mediafile_caretaker *caretaker)
{
    if (too_large(caretaker)) return nullptr;
    caretaker->length -= caretaker->read_pos;
    memmove(caretaker->buffer, caretaker->buffer + caretaker->read_pos, caretaker->length);
    caretaker->read_pos = 0;
    if (refill(caretaker)) {
        if (const uint32_t size = whole_record(caretaker); size != 0) return take(caretaker, size);
        if (too_large(caretaker)) return nullptr;
    }
    // A record that the end of the file cuts is no damage: the power failed
    // while it was appended. Everything before it is whole, and only its own
    // sample is lost. It is dropped, and the journal ends here.
    if (caretaker->error == 0) caretaker->length = caretaker->read_pos = 0;
    return nullptr;
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
    if (const memento *sample = take_sample(caretaker)) return sample; // 11 instructions less than through take
    const uint32_t size = whole_record(caretaker);
    return size != 0 ? take(caretaker, size) : take_after_refill(caretaker);
}

int mediafile_caretaker_eof(mediafile_caretaker *caretaker)
{
    return caretaker->eof && caretaker->read_pos == caretaker->length;
}
