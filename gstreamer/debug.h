/** The category of the plugin's debugging messages: GST_DEBUG=mediafilessink:5 shows them. */
#pragma once

#include <gst/gst.h>

extern GstDebugCategory *mediafiles_sink_debug;
#define GST_CAT_DEFAULT mediafiles_sink_debug
