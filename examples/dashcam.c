/*
 * A dashcam: camera and microphone go to files of one minute. The oldest files make room for new ones, and what a power
 * cut has interrupted is completed while the next recording runs.
 *
 *     dashcam DIRECTORY video.h264 video.units.tsv audio.aac audio.units.tsv [SPEED]
 *
 * SIGUSR1 is the driver's button: it keeps what was recorded from half a minute before until half a minute after it.
 * SIGTERM and SIGINT end the recording. The streams stand for the encoders: a .units.tsv lists the frames of one, as an
 * encoder delivers them (index, offset, length, capture time in nanoseconds). They come SPEED times as fast.
 */
#define _GNU_SOURCE
#include <err.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <mediafiles/recorder.h>

#define SECOND INT64_C(1000000000) /* times are nanoseconds */

struct encoder {
    FILE *media, *frames;
    int64_t time; /* of the next frame, counted from the start */
    size_t size;
    uint8_t frame[1 << 20];
};

static void encode_next(struct encoder *e)
{
    long offset;
    if (fscanf(e->frames, "%*s %ld %zu %" SCNd64 "%*[^\n]", &offset, &e->size, &e->time) != 3 ||
        e->size > sizeof e->frame || fseek(e->media, offset, SEEK_SET) != 0 ||
        fread(e->frame, 1, e->size, e->media) != e->size)
        e->time = INT64_MAX; /* the end */
}

static void open_encoder(struct encoder *e, const char *media, const char *frames)
{
    e->media = fopen(media, "rb");
    e->frames = fopen(frames, "r");
    if (!e->media || !e->frames || fscanf(e->frames, "%*[^\n]") == EOF) err(1, "%s", frames);
    encode_next(e);
}

static int64_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

static void print_events(mediafiles_recorder *recorder)
{
    mediafiles_recorder_event event = {.size = sizeof event};
    while (mediafiles_recorder_next_event(recorder, &event, 0) == 1)
        fprintf(stderr, "%s: %s, count %" PRIu64 "%s%s\n", mediafiles_event_text(event.kind),
                event.path ? event.path : "", event.count, event.error ? ": " : "",
                event.error ? strerror(event.error) : "");
}

int main(int argc, char **argv)
{
    static struct encoder encoders[2];
    if (argc < 6) return 2;
    if (!freopen("/dev/null", "w", stdout)) err(1, "/dev/null"); /* the core's lines about its tracks */
    const int64_t speed = argc > 6 ? atoi(argv[6]) : 1;
    for (int i = 0; i < 2; i++) open_encoder(&encoders[i], argv[2 + 2 * i], argv[3 + 2 * i]);

    /* A signal handler may not call the recorder. Signals are blocked, in its threads as well, and read. */
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    const int signals_read = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);

    const mp4_track_desc tracks[] = {{.type = MP4_TRACK_H264}, {.type = MP4_TRACK_AAC, .audio = {2, 16, 48000}}};
    mediafiles_recorder_options options = {.size = sizeof options, .track_count = 2, .tracks = tracks};
    options.directory = argv[1];
    options.pattern = "{number}_%Y-%m-%d_%H-%M-%S.mp4";
    options.segment_ns = 60 * SECOND;
    options.quota_bytes = INT64_C(8) << 30;
    mediafiles_recorder *recorder = mediafiles_recorder_start(&options);
    if (!recorder || signals_read < 0) err(1, "%s", argv[1]);

    struct pollfd waits[] = {{signals_read, POLLIN, 0}, {mediafiles_recorder_event_descriptor(recorder), POLLIN, 0}};
    const int64_t start = now();
    for (;;) {
        const uint32_t track = encoders[1].time < encoders[0].time; /* whose frame is next */
        struct encoder *next = &encoders[track];
        if (next->time == INT64_MAX) break;
        const int64_t wait = start + next->time / speed - now();
        if (poll(waits, 2, wait > 0 ? (int)(wait / 1000000) + 1 : 0) > 0) {
            struct signalfd_siginfo signal;
            if (waits[0].revents != 0 && read(waits[0].fd, &signal, sizeof signal) == sizeof signal) {
                if (signal.ssi_signo != SIGUSR1) break;
                if (mediafiles_recorder_protect(recorder, 30 * SECOND, 30 * SECOND) != 0) warn("protect");
            }
            print_events(recorder);
            continue;
        }
        if (mediafiles_recorder_push(recorder, track, next->frame, next->size, start + next->time, 0) < 0) warn("push");
        encode_next(next);
    }
    const int result = mediafiles_recorder_stop(recorder, 5 * SECOND); /* of patience for a card that stalls */
    if (result != 0) warn("stop");
    print_events(recorder);
    mediafiles_recorder_destroy(recorder);
    return result != 0;
}
