/** The plugin: what GStreamer's registry knows of it. */
#include <gst/gst.h>

#include <mediafiles/version.h>

#include "sink.h"

#define PACKAGE "libmediafiles"

namespace {

gboolean init(GstPlugin *plugin)
{
    return GST_ELEMENT_REGISTER(mediafilessink, plugin);
}

} // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, mediafiles, "Records MP4 files that survive a power cut", init,
                  MEDIAFILES_VERSION, "MIT/X11", "libmediafiles", "Unknown package origin")
