/*
 * Notes (notes.c) of a program that is linked with the recorder's shared
 * library: LD_PRELOAD puts this before it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <err.h>
#include <string.h>

#include <mediafiles/recorder.h>

mediafiles_recorder *__wrap_mediafiles_recorder_start(const mediafiles_recorder_options *options);
int __wrap_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags);
int __wrap_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms);
mediafiles_recorder *__real_mediafiles_recorder_start(const mediafiles_recorder_options *options);
int __real_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags);
int __real_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms);

/* ISO C has no conversion from what dlsym gives. */
static void look_up(const char *name, void *function)
{
    void *const found = dlsym(RTLD_NEXT, name);
    if (!found) errx(3, "%s", dlerror());
    memcpy(function, &found, sizeof found);
}

mediafiles_recorder *mediafiles_recorder_start(const mediafiles_recorder_options *options)
{
    return __wrap_mediafiles_recorder_start(options);
}

mediafiles_recorder *__real_mediafiles_recorder_start(const mediafiles_recorder_options *options)
{
    mediafiles_recorder *(*start)(const mediafiles_recorder_options *);
    look_up("mediafiles_recorder_start", &start);
    return start(options);
}

int mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len, int64_t time,
                             uint32_t flags)
{
    return __wrap_mediafiles_recorder_push(recorder, track, data, len, time, flags);
}

int __real_mediafiles_recorder_push(mediafiles_recorder *recorder, uint32_t track, const void *data, size_t len,
                                    int64_t time, uint32_t flags)
{
    int (*push)(mediafiles_recorder *, uint32_t, const void *, size_t, int64_t, uint32_t);
    look_up("mediafiles_recorder_push", &push);
    return push(recorder, track, data, len, time, flags);
}

int mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event, int32_t timeout_ms)
{
    return __wrap_mediafiles_recorder_next_event(recorder, event, timeout_ms);
}

int __real_mediafiles_recorder_next_event(mediafiles_recorder *recorder, mediafiles_recorder_event *event,
                                          int32_t timeout_ms)
{
    int (*next_event)(mediafiles_recorder *, mediafiles_recorder_event *, int32_t);
    look_up("mediafiles_recorder_next_event", &next_event);
    return next_event(recorder, event, timeout_ms);
}
