/** The step from a buffer to the recorder, which copies it. */
#pragma once

#include <cstdint>

#include <gst/gst.h>

#include <mediafiles/recorder.h>

namespace mediafiles::gstreamer {

/** As mediafiles_recorder_push; EIO: its memory cannot be read. Memories of a buffer are not joined for it. */
int push_buffer(mediafiles_recorder *to, uint32_t track, GstBuffer *buffer, int64_t time);

} // namespace mediafiles::gstreamer
