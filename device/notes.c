/*
 * Notes what the recorder says on the disk on which it records, in a partition
 * of its own: a sector for each note, so that a note stands in the order of the
 * disk's writes. What a sector says was true before any later write began.
 *
 * Linked with a program whose calls of the recorder are wrapped (ld --wrap), or
 * with preload.c. A note is a line of JSON. The environment has the partition
 * (NOTES) and what the rig wants otherwise than the program: SEGMENT_NS, SYNC_NS,
 * QUOTA_BYTES; EVENT_NS: event mode, so much from before an event and after it.
 */
#define _GNU_SOURCE
#include <err.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mediafiles/recorder.h>

mediafiles_recorder *__real_mediafiles_recorder_start(const mediafiles_recorder_options *options);
int __real_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags);
int __real_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms);
mediafiles_recorder *__wrap_mediafiles_recorder_start(const mediafiles_recorder_options *options);
int __wrap_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags);
int __wrap_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms);

enum { first_event = 250, between_events = 500 }; /* frames that are pushed: three and seven seconds */

static int notes = -1;
static int64_t event_ns;
static off_t place;
static _Alignas(4096) char sector[512]; /* the partition is written without the kernel's cache */

static void write_note(void)
{
    if (pwrite(notes, sector, sizeof sector, place) != (ssize_t)sizeof sector) err(3, "a note");
    place += (off_t)sizeof sector;
}

static void set(int64_t *option, const char *name)
{
    const char *text = getenv(name);
    if (text) *option = strtoll(text, NULL, 10);
}

mediafiles_recorder *__wrap_mediafiles_recorder_start(const mediafiles_recorder_options *options)
{
    const char *path = getenv("NOTES");
    notes = path ? open(path, O_WRONLY | O_DIRECT | O_CLOEXEC) : -1;
    if (notes < 0) err(3, "%s", path ? path : "NOTES");
    mediafiles_recorder_options changed = *options;
    set(&changed.segment_ns, "SEGMENT_NS");
    set(&changed.sync_ns, "SYNC_NS");
    set(&changed.quota_bytes, "QUOTA_BYTES");
    set(&event_ns, "EVENT_NS");
    if (event_ns > 0) {
        changed.pre_event_ns = event_ns;
        changed.pre_event_bytes = 4 << 20;
    }
    changed.keep_free_bytes = 1 << 20; /* the card is small */
    return __real_mediafiles_recorder_start(&changed);
}

/* What has become safe is noted after each frame. */
int __wrap_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags)
{
    static uint64_t noted = UINT64_MAX, pushed;
    const int result = __real_mediafiles_recorder_push(recorder, track, data, len, time, flags);
    mediafiles_recorder_stats stats = {.size = sizeof stats};
    mediafiles_recorder_get_stats(recorder, &stats);
    if (event_ns > 0 && pushed % between_events == first_event) mediafiles_recorder_trigger(recorder, event_ns);
    if (pushed++ == 0) {
        snprintf(sector, sizeof sector, "{\"note\": \"start\", \"time\": %" PRId64 "}\n", time);
        write_note();
    }
    if (stats.safe[0] + stats.safe[1] != noted) {
        noted = stats.safe[0] + stats.safe[1];
        snprintf(sector, sizeof sector,
                 "{\"note\": \"safe\", \"frames\": [%" PRIu64 ", %" PRIu64 "], \"pushed\": %" PRIu64
                 ", \"dropped\": %" PRIu64 "}\n",
                 stats.safe[0], stats.safe[1], pushed, stats.frames_dropped);
        write_note();
    }
    return result;
}

int __wrap_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms)
{
    const int result = __real_mediafiles_recorder_next_event(recorder, event, timeout_ms);
    if (result == 1) {
        snprintf(sector, sizeof sector,
                 "{\"note\": \"%s\", \"number\": %" PRIu64 ", \"path\": \"%s\", \"from\": %" PRId64 ", \"to\": %" PRId64
                 ", \"error\": %" PRId32 "}\n",
                 mediafiles_event_text(event->kind), event->number, event->path ? event->path : "", event->from,
                 event->to, event->error);
        write_note();
    }
    return result;
}
