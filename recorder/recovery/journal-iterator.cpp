// The public iterator of a journal's records.

#include <cerrno>
#include <cstring>
#include <new>

#include <mediafiles/recovery.h>

#include "codec.h"
#include "journal-scan.h"

using namespace mediafiles::recovery;

namespace {
constexpr size_t largest_begin = 64u << 10;
}

struct mediafiles_journal {
    mediafiles_journal(const mediafiles_source &journal, const mediafiles_source *given_media)
        : media(given_media ? *given_media : mediafiles_source{}), scan(journal, given_media ? &media : nullptr)
    {
    }
    mediafiles_source media;
    journal_scan scan;
};

mediafiles_journal *mediafiles_journal_open(const mediafiles_source *journal, const mediafiles_source *media)
{
    auto *opened = new (std::nothrow) mediafiles_journal(*journal, media);
    const bool out_of_memory = !opened || opened->scan.out_of_memory();
    if (!out_of_memory && (journal->size == 0 || opened->scan.readable_size() != 0)) return opened;
    delete opened;
    errno = out_of_memory ? ENOMEM : EIO;
    return nullptr;
}

int mediafiles_journal_next(mediafiles_journal *journal, mediafiles_journal_record *out)
{
    record next;
    if (!journal->scan.next(next)) return 0;
    const mediafiles_journal_record given = {out->size,   next.header.kind, next.header.track, next.header.length,
                                             next.offset, next.end(),       next.payload};
    memset(out, 0, given.size);
    memcpy(out, &given, given.size < sizeof given ? given.size : sizeof given);
    return 1;
}

void mediafiles_journal_get_summary(const mediafiles_journal *journal, mediafiles_journal_summary *out)
{
    const journal_scan &scan = journal->scan;
    mediafiles_journal_summary summary = {};
    summary.size = out->size;
    summary.ending = scan.ending;
    summary.end = scan.at;
    summary.lost = scan.journal_size() - scan.at;
    summary.damage = scan.damage;
    summary.tracks = scan.tracks;
    summary.rounds = scan.bounds().rounds;
    summary.samples = scan.samples;
    summary.media_end = scan.media_end;
    for (uint32_t i = 0; i < scan.tracks; ++i) {
        summary.track[i] = scan.track[i];
        summary.track[i].type &= ~MP4_TRACK_RAW;
    }
    memset(out, 0, summary.size);
    memcpy(out, &summary, summary.size < sizeof summary ? summary.size : sizeof summary);
}

void mediafiles_journal_close(mediafiles_journal *journal)
{
    delete journal;
}

int mediafiles_is_journal(const void *begin, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(begin);
    if (size > largest_begin) size = largest_begin;
    for (size_t at = 0; size - at >= sizeof(memento);) {
        memento header;
        memcpy(&header, bytes + at, sizeof header);
        const size_t step = sizeof header + ((header.length + size_t{3}) & ~size_t{3});
        if (step > MEMENTO_MAX_SIZE || step > size - at) return 0;
        if (header.kind == MEMENTO_TRACK) {
            const record first = {header, at, bytes + at + sizeof header};
            return header.length == sizeof(mp4_track_desc) && codec_of(first.as_track().type);
        }
        if (header.kind != MEMENTO_USER) return 0;
        at += step;
    }
    return 0;
}
