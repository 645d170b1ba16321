/**
 * Whatever bytes a journal holds, its reader hands out the whole records before the first invalid one, twice the same,
 * and both repairs end as the journal's rules say, with files whose boxes and sample tables are sound.
 *
 * Two bytes say how large the media file is, the rest is the journal.
 */
#include <algorithm>

#include <mediafiles/caretaker.h>

#include "fuzz.h"

using namespace fuzz;

static void check_reader(const model::journal &content, std::span<const uint8_t> journal)
{
    const descriptor file;
    fill(file, journal);
    mediafile_caretaker *reader = mediafile_caretaker_load(path_of(file).c_str());
    for (int pass = 0; pass < 2; pass++) {
        for (const model::record &record : content.records) {
            const memento *next = mediafile_caretaker_pop(reader);
            REQUIRE(next && next->kind == record.kind && next->track == record.track);
            const auto *payload = reinterpret_cast<const uint8_t *>(next + 1);
            REQUIRE(std::ranges::equal(record.payload, std::span(payload, next->length)));
        }
        for (int again = 0; again < 2; again++) REQUIRE(!mediafile_caretaker_pop(reader));
        REQUIRE(mediafile_caretaker_errcode(reader) == content.error);
        REQUIRE(content.error || mediafile_caretaker_eof(reader));
        mediafile_caretaker_reset2(reader);
    }
    mediafile_caretaker_destroy(reader);
}

/** A writer that is given these bytes as mementos stores what a reader takes; once it fails, it stays so. */
static void check_writer(std::span<const uint8_t> mementos)
{
    const journal_ptr writer(mediafile_caretaker_create());
    bytes stored;
    for (int error = 0; mementos.size() >= 4;) {
        const size_t length = mementos[2] + mementos[3] * 256u, size = 4 + (length + 3) / 4 * 4;
        constexpr size_t payloads[] = {0, 16, 24, 4, 8, 8};
        const size_t kind = mementos[0];
        if (size > mementos.size() || (kind > 0 && kind < 6 && length != payloads[kind])) break; // the caller's fault
        const exact record(bytes(mementos.begin(), mementos.begin() + static_cast<ptrdiff_t>(size)));
        const int result = mediafile_caretaker_add(writer.get(), reinterpret_cast<const memento *>(record.data.get()));
        REQUIRE(result == 0 || (result == -1 && errno == mediafile_caretaker_errcode(writer.get())));
        REQUIRE(error ? errno == error : true);
        if (result != 0) error = errno;
        mementos = mementos.subspan(size);
        if (length & 1) continue;
        const bytes drained = drain(writer);
        stored.insert(stored.end(), drained.begin(), drained.end());
    }
    REQUIRE(model::read(stored).error == 0);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    bytes media(data[0] + data[1] * 256u);
    for (size_t i = 0; i < media.size(); i++) media[i] = static_cast<uint8_t>(i * 7 + 1);
    const std::span<const uint8_t> journal(data + 2, size - 2);
    const model::journal content = model::read(journal);
    check_reader(content, journal);
    check_writer(journal);
    for (const int version : {1, 2})
        REQUIRE(sound_but_for(check_repair(version, content, journal, media), any_content));
    return 0;
}
