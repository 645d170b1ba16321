/** The pads of the element: what upstream says and sends goes to the recording in which they take part. */
#pragma once

#include <memory>

#include <gst/gst.h>

#include "recording.h"

namespace mediafiles::gstreamer {

/** Owned by the caller, floating. */
GstPad *make_sink_pad(GstPadTemplate *from, const char *name);

/** From now on the pad brings a stream of it, and forgets what it has brought to another one. */
void join(GstPad *pad, const std::shared_ptr<recording> &to);

/** The pad takes part in none. What has come from it stays. */
void leave(GstPad *pad);

} // namespace mediafiles::gstreamer
