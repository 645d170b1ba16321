/** The element mediafilessink. */
#pragma once

#include <gst/gst.h>

GType mediafiles_sink_get_type();
GST_ELEMENT_REGISTER_DECLARE(mediafilessink)
