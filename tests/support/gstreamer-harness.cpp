#include "gstreamer-harness.h"

#include <gtest/gtest.h>

#include "gstreamer/sink.h"

namespace {

constexpr GstClockTime patience = 10 * GST_SECOND;

/* An error of the element is what the test asks for; those of GLib end it, by G_DEBUG. */
class framework : public testing::Environment {
public:
    void SetUp() override
    {
        gst_init(nullptr, nullptr);
        ASSERT_TRUE(GST_ELEMENT_REGISTER(mediafilessink, nullptr));
        gst_element_factory_find("mediafilessink"); // outlives the list of what is alive, which releases what it names
    }

    /* With GST_TRACERS=leaks: nothing that the tests made is left. */
    void TearDown() override
    {
        GList *const tracers = gst_tracing_get_active_tracers();
        for (GList *each = tracers; each; each = each->next) {
            GstStructure *info = nullptr;
            g_signal_emit_by_name(each->data, "get-live-objects", &info);
            const GValue *const list = info ? gst_structure_get_value(info, "live-objects-list") : nullptr;
            for (guint i = 0; list && i < gst_value_list_get_size(list); ++i) {
                char *const text = g_strdup_value_contents(gst_value_list_get_value(list, i));
                EXPECT_TRUE(strstr(text, "GstElementFactory")) << "leaked: " << text; // the registry's
                g_free(text);
            }
            if (info) gst_structure_free(info);
        }
        g_list_free_full(tracers, gst_object_unref);
    }
};
const testing::Environment *const installed = testing::AddGlobalTestEnvironment(new framework);

void add(said &to, GstMessage *message)
{
    GError *error = nullptr;
    for (const GstMessageType plain : {GST_MESSAGE_EOS, GST_MESSAGE_STREAM_START})
        if (GST_MESSAGE_TYPE(message) == plain) to.messages.emplace(gst_message_type_get_name(plain), "");
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) gst_message_parse_error(message, &error, nullptr);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) gst_message_parse_warning(message, &error, nullptr);
    if (error) to.messages.emplace(GST_MESSAGE_TYPE_NAME(message), error->message);
    g_clear_error(&error);
    const GstStructure *const structure = gst_message_get_structure(message);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT && structure) {
        char *const text = gst_structure_to_string(structure);
        to.messages.emplace(gst_structure_get_name(structure), text);
        g_free(text);
    }
    gst_message_unref(message);
}

} // namespace

std::string said::text(const std::string &name) const
{
    const auto found = messages.find(name);
    return found == messages.end() ? "" : found->second;
}

sink_under_test::sink_under_test(const std::string &properties)
{
    const bool has_place =
        properties.find("location=") != properties.npos || properties.find("pattern=") != properties.npos;
    const std::string place = has_place ? "" : " location=" + on / "%08d.mp4";
    element = gst_parse_launch(("mediafilessink keep-free=0 " + properties + place).c_str(), nullptr);
    gst_object_ref_sink(element);
    bus_ = gst_bus_new();
    gst_element_set_bus(element, bus_);
}

sink_under_test::~sink_under_test()
{
    for (GstHarness *pad : pads_) gst_harness_teardown(pad);
    gst_element_set_state(element, GST_STATE_NULL);
    gst_element_set_bus(element, nullptr);
    gst_object_unref(element);
    gst_object_unref(bus_);
}

GstHarness *sink_under_test::add_pad(const std::string &name, const char *caps, bool is_live)
{
    GstHarness *const pad = gst_harness_new_with_element(element, name.c_str(), nullptr);
    gst_harness_set_live(pad, is_live);
    if (caps) gst_harness_set_src_caps_str(pad, caps);
    pads_.push_back(pad);
    return pad;
}

void sink_under_test::remove_pad(GstHarness *pad)
{
    std::erase(pads_, pad);
    GstPad *const ours = gst_pad_get_peer(pad->srcpad);
    gst_pad_unlink(pad->srcpad, ours);
    gst_element_release_request_pad(element, ours);
    gst_object_unref(ours);
    gst_harness_teardown(pad);
    gst_element_set_state(element, GST_STATE_PLAYING); // a harness takes its element along
}

GstBuffer *buffer_of(const frame &given)
{
    GstBuffer *const buffer = gst_buffer_new_memdup(given.data.data(), given.data.size());
    GST_BUFFER_PTS(buffer) = GstClockTime(given.time);
    if (!given.key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    return buffer;
}

GstFlowReturn sink_under_test::push(GstHarness *pad, const frame &given, GstBufferFlags flags) const
{
    GstBuffer *const buffer = buffer_of(given);
    GST_BUFFER_FLAG_SET(buffer, flags);
    return gst_harness_push(pad, buffer);
}

void sink_under_test::record(const std::vector<std::pair<GstHarness *, const stream *>> &all)
{
    std::vector<size_t> next(all.size());
    for (;;) {
        size_t first = all.size();
        const auto time = [&](size_t i) { return (*all[i].second)[next[i]].time; };
        for (size_t i = 0; i < all.size(); ++i)
            if (next[i] < all[i].second->size() && (first == all.size() || time(i) < time(first))) first = i;
        if (first == all.size()) break;
        ASSERT_EQ(GST_FLOW_OK, push(all[first].first, (*all[first].second)[next[first]++]));
    }
    end_all();
}

void sink_under_test::end_all()
{
    for (GstHarness *pad : pads_) gst_harness_push_event(pad, gst_event_new_eos());
    EXPECT_TRUE(hears("eos"));
}

void sink_under_test::listen(GstClockTime wait)
{
    if (GstMessage *const message = gst_bus_timed_pop(bus_, wait)) add(heard_, message);
}

bool sink_under_test::hears(const std::string &name)
{
    const gint64 end = g_get_monotonic_time() + gint64(patience / 1000);
    while (heard_.count(name) == 0 && g_get_monotonic_time() < end) listen(GST_SECOND / 20);
    return heard_.count(name) != 0;
}

said &sink_under_test::heard()
{
    while (gst_bus_have_pending(bus_)) listen(0);
    return heard_;
}

uint64_t sink_under_test::statistic(const char *name, const char *pad) const
{
    GstStructure *stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = 0;
    const GValue *const of_pad = pad ? gst_structure_get_value(stats, pad) : nullptr;
    gst_structure_get_uint64(of_pad ? gst_value_get_structure(of_pad) : stats, name, &value);
    gst_structure_free(stats);
    return value;
}

said run_pipeline(const std::string &description, buffer_probe probe)
{
    said all;
    GError *error = nullptr;
    GstElement *const pipeline = gst_parse_launch(description.c_str(), &error);
    EXPECT_EQ(error, nullptr) << description << ": " << error->message;
    if (error) return all;
    GstElement *const sink = probe.see ? gst_bin_get_by_name(GST_BIN(pipeline), "s") : nullptr;
    if (sink) {
        gst_element_foreach_sink_pad(
            sink,
            [](GstElement *, GstPad *pad, gpointer of) -> gboolean {
                const auto &asked = *static_cast<buffer_probe *>(of);
                return gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, asked.see, asked.data, nullptr) != 0;
            },
            &probe);
        gst_object_unref(sink);
    }
    GstBus *const bus = gst_element_get_bus(pipeline);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    const gint64 end = g_get_monotonic_time() + gint64(3 * patience / 1000);
    while (all.count("eos") + all.count("error") == 0 && g_get_monotonic_time() < end)
        if (GstMessage *const message = gst_bus_timed_pop(bus, GST_SECOND / 20)) add(all, message);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return all;
}
