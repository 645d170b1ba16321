/** Owners of what GStreamer and GLib count or allocate. */
#pragma once

#include <memory>

#include <gst/gst.h>

namespace mediafiles::gstreamer {

struct releases {
    void operator()(char *text) const { g_free(text); }
    void operator()(GstBuffer *buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstEvent *event) const { gst_event_unref(event); }
    void operator()(GstElement *element) const { gst_object_unref(element); }
    void operator()(GstPad *pad) const { gst_object_unref(pad); }
    void operator()(GstQuery *query) const { gst_query_unref(query); }
    void operator()(GstStructure *structure) const { gst_structure_free(structure); }
};

template <class Object>
using owner = std::unique_ptr<Object, releases>;
using text_ptr = owner<char>;

template <class Object>
owner<Object> share(Object *object)
{
    return owner<Object>(static_cast<Object *>(gst_object_ref(object)));
}

} // namespace mediafiles::gstreamer
