#include "sink-pad.h"

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "buffer-times.h"
#include "debug.h"

namespace mediafiles::gstreamer {

namespace {

/* What only the streaming thread of a pad knows of its stream; flushes, after which the times begin anew, come on it. */
struct stream : input {
    using input::input;

    buffer_times times;
    bool knows_liveness = true; // of the source
    bool was_refused = false;   // an error has been posted
};

struct part_of_recording {
    std::shared_ptr<recording> to; // NULL: of none
    std::shared_ptr<stream> as;
};

struct pad_state {
    std::mutex lock;
    part_of_recording part;
};

constexpr const char *key = "mediafiles-pad-state";

part_of_recording exchange(GstPad *pad, part_of_recording part)
{
    auto *const state = static_cast<pad_state *>(g_object_get_data(G_OBJECT(pad), key));
    const std::lock_guard guard(state->lock);
    std::swap(state->part, part);
    return part;
}

part_of_recording part_of(GstPad *pad)
{
    auto *const state = static_cast<pad_state *>(g_object_get_data(G_OBJECT(pad), key));
    const std::lock_guard guard(state->lock);
    return state->part;
}

/* An element error, once; nothing more is taken from the pad. */
GstFlowReturn refuse(GstObject *element, stream &from, const char *text, const char *detail)
{
    if (!from.was_refused)
        GST_ELEMENT_ERROR(element, STREAM, FORMAT, ("%s", text), ("%s: %s", from.name.c_str(), detail));
    from.was_refused = true;
    return GST_FLOW_ERROR;
}

/* Whether the buffers come as they arise, so that nothing can wait for the medium; true where nobody knows. */
bool is_live(GstPad *pad)
{
    const owner<GstQuery> query(gst_query_new_latency());
    if (!gst_pad_peer_query(pad, query.get())) return true;
    gboolean live = TRUE;
    gst_query_parse_latency(query.get(), &live, nullptr, nullptr);
    return live;
}

bool take_caps(const part_of_recording &part, GstObject *element, GstEvent *event)
{
    stream &from = *part.as;
    GstCaps *caps = nullptr;
    gst_event_parse_caps(event, &caps);
    try {
        part.to->describe(from, format_of(caps));
        return true;
    } catch (const std::invalid_argument &why) {
        refuse(element, from, why.what(), "its caps are not supported");
        return false;
    }
}

bool take_segment(stream &from, GstObject *element, GstEvent *event)
{
    const GstSegment *segment = nullptr;
    gst_event_parse_segment(event, &segment);
    if (segment->format != GST_FORMAT_TIME || segment->rate <= 0) {
        refuse(element, from, "Only segments of time that run forwards can be recorded.", "its segment is another");
        return false;
    }
    from.times.set_segment(*segment);
    return true;
}

void take_gap(const part_of_recording &part, GstEvent *event)
{
    GstClockTime begin = GST_CLOCK_TIME_NONE, length = GST_CLOCK_TIME_NONE;
    gst_event_parse_gap(event, &begin, &length);
    if (GST_CLOCK_TIME_IS_VALID(length)) begin += length;
    if (const auto time = part.as->times.running_time(begin)) part.to->move_on(*part.as, *time);
}

/* As of an end there is one message of it for all pads: a bin waits for that of each sink. */
void take_start(const part_of_recording &part, GstObject *element, GstEvent *event)
{
    part.as->knows_liveness = false;
    if (!part.to->start_stream(*part.as)) return;
    GstMessage *const message = gst_message_new_stream_start(element);
    gst_message_set_seqnum(message, gst_event_get_seqnum(event));
    guint group = GST_GROUP_ID_INVALID;
    if (gst_event_parse_group_id(event, &group)) gst_message_set_group_id(message, group);
    gst_element_post_message(GST_ELEMENT_CAST(element), message);
}

gboolean take_event(GstPad *pad, GstObject *element, GstEvent *event)
{
    const owner<GstEvent> owned(event);
    const part_of_recording part = part_of(pad);
    if (!part.to) return FALSE;
    stream &from = *part.as;
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
        take_start(part, element, event);
        return TRUE;
    case GST_EVENT_CAPS:
        return take_caps(part, element, event);
    case GST_EVENT_SEGMENT:
        return take_segment(from, element, event);
    case GST_EVENT_GAP:
        take_gap(part, event);
        return TRUE;
    case GST_EVENT_EOS:
        part.to->end_stream(from, gst_event_get_seqnum(event));
        return TRUE;
    case GST_EVENT_FLUSH_START:
        part.to->flush(from, true);
        return TRUE;
    case GST_EVENT_FLUSH_STOP:
        from.times.reset();
        part.to->flush(from, false);
        return TRUE;
    default: /* tags, a table of contents: a recording has no place for them */
        return TRUE;
    }
}

GstFlowReturn take_buffer(GstPad *pad, GstObject *element, GstBuffer *buffer)
{
    const owner<GstBuffer> owned(buffer);
    const part_of_recording part = part_of(pad);
    if (!part.to) return GST_FLOW_FLUSHING;
    stream &from = *part.as;
    if (from.was_refused) return GST_FLOW_ERROR;
    if (!from.carries) return GST_FLOW_NOT_NEGOTIATED;
    if (gst_buffer_get_size(buffer) == 0) return GST_FLOW_OK;
    if (!from.knows_liveness) part.to->set_can_wait(from, !is_live(pad));
    from.knows_liveness = true;
    if (from.times.goes_back(buffer))
        return refuse(
            element, from,
            "B-frames cannot be recorded: set the encoder so that it makes none, for example x264enc bframes=0, "
            "x265enc option-string=\"bframes=0\".",
            "a picture came that is shown before an earlier one; a recording keeps one time for each picture");
    const auto time = from.times.time_of(buffer);
    if (!time)
        return refuse(element, from,
                      "The stream has no times: take it from a container, from RTP, or from a live source with "
                      "do-timestamp=true.",
                      "a buffer has neither a presentation nor a decoding time");
    return part.to->push(from, buffer, *time);
}

} // namespace

GstPad *make_sink_pad(GstPadTemplate *from, const char *name)
{
    GstPad *const pad = gst_pad_new_from_template(from, name);
    g_object_set_data_full(G_OBJECT(pad), key, new pad_state,
                           [](gpointer state) { delete static_cast<pad_state *>(state); });
    gst_pad_set_event_function(pad, take_event);
    gst_pad_set_chain_function(pad, take_buffer);
    return pad;
}

void join(GstPad *pad, const std::shared_ptr<recording> &to)
{
    const part_of_recording part = {to, std::make_shared<stream>(pad)};
    to->add(part.as);
    exchange(pad, part);
}

void leave(GstPad *pad)
{
    const part_of_recording part = exchange(pad, {});
    if (part.to) part.to->remove(part.as);
}

} // namespace mediafiles::gstreamer
