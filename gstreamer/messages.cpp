#include "messages.h"

#include <algorithm>
#include <iterator>

namespace mediafiles::gstreamer {

namespace {

enum field : uint32_t {
    has_number = 1,
    has_count = 2,
    has_from = 4,
    has_to = 8,
    has_pad = 16,
    has_refusal = 32,
    has_result = 64,
};

/* As the kinds in mediafiles/recorder.h say; path and error are there when they are set. */
uint32_t fields_of(uint32_t kind)
{
    switch (kind) {
    case MEDIAFILES_EVENT_BEGUN:
        return has_number | has_from;
    case MEDIAFILES_EVENT_FINISHED:
        return has_number | has_from | has_to | has_count;
    case MEDIAFILES_EVENT_RECOVERED:
        return has_result | has_count;
    case MEDIAFILES_EVENT_NOT_RECOVERED:
        return has_result;
    case MEDIAFILES_EVENT_DELETED:
        return has_number | has_count;
    case MEDIAFILES_EVENT_DROPPED:
        return has_pad | has_count | has_from | has_to;
    case MEDIAFILES_EVENT_REFUSED:
        return has_pad | has_refusal;
    case MEDIAFILES_EVENT_WRITE_ERROR:
    case MEDIAFILES_EVENT_PROTECTED:
        return has_number;
    case MEDIAFILES_EVENT_CLOCK:
        return has_pad | has_from | has_to;
    case MEDIAFILES_EVENT_KEY_WANTED:
        return has_pad;
    case MEDIAFILES_EVENT_LOST:
        return has_count;
    default:
        return 0;
    }
}

void set(GstStructure *to, const char *name, const char *text)
{
    gst_structure_set(to, name, G_TYPE_STRING, text, nullptr);
}

void set(GstStructure *to, const char *name, uint64_t number)
{
    gst_structure_set(to, name, G_TYPE_UINT64, static_cast<guint64>(number), nullptr);
}

void set_signed(GstStructure *to, const char *name, int64_t number)
{
    gst_structure_set(to, name, G_TYPE_INT64, static_cast<gint64>(number), nullptr);
}

/* By MEDIAFILES_REPAIRED and those that follow it. */
constexpr const char *results[] = {"",         "repaired", "salvaged", "finished", "empty removed",
                                   "not ours", "refused",  "failed"};
static_assert(std::size(results) == MEDIAFILES_FAILED + 1);

std::string name_of(uint32_t kind)
{
    std::string name = std::string("mediafiles-") + mediafiles_event_text(kind);
    std::ranges::replace(name, ' ', '-');
    return name;
}

} // namespace

GstMessage *message_of(GstElement *element, const mediafiles_recorder_event &event, const std::string &directory,
                       const std::string &pad)
{
    const uint32_t has = fields_of(event.kind);
    GstStructure *const made = gst_structure_new_empty(name_of(event.kind).c_str());
    if (event.path)
        set(made, "location", text_ptr(g_filename_display_name((directory + "/" + event.path).c_str())).get());
    if (has & has_number) set(made, "number", event.number);
    if (has & has_from) set_signed(made, "running-time", event.from);
    if (has & has_to) set_signed(made, "running-time-end", event.to);
    if (has & has_count) set(made, "count", event.count);
    if (has & has_pad) set(made, "pad", pad.c_str());
    if (has & has_result && event.result < std::size(results)) set(made, "result", results[event.result]);
    if (has & has_result && event.reason != 0) set(made, "reason", mediafiles_reason_text(event.reason));
    if (has & has_refusal) set(made, "reason", mediafiles_refused_text(event.reason));
    if (event.error != 0) {
        gst_structure_set(made, "errno", G_TYPE_INT, event.error, nullptr);
        set(made, "error", g_strerror(event.error));
    }
    return gst_message_new_element(GST_OBJECT_CAST(element), made);
}

owner<GstStructure> structure_of(const mediafiles_recorder_stats &stats)
{
    owner<GstStructure> made(gst_structure_new_empty("mediafiles-stats"));
    const struct {
        const char *name;
        uint64_t value;
    } counts[] = {
        {"files", stats.files},
        {"frames-in", stats.frames_in},
        {"frames-out", stats.frames_out},
        {"frames-dropped", stats.frames_dropped},
        {"frames-refused", stats.frames_refused},
        {"frames-let-go", stats.frames_let_go},
        {"bytes-in", stats.bytes_in},
        {"bytes-out", stats.bytes_out},
        {"queue-used", stats.queue_used},
        {"queue-most", stats.queue_most},
    };
    for (const auto &each : counts) set(made.get(), each.name, each.value);
    const struct {
        const char *name;
        int64_t value;
    } measured[] = {
        {"unsafe-time", stats.unsafe_ns},   {"made-up-time", stats.made_up_ns}, {"worst-push", stats.worst_push},
        {"worst-write", stats.worst_write}, {"worst-sync", stats.worst_sync},   {"free-bytes", stats.free_bytes},
    };
    for (const auto &each : measured) set_signed(made.get(), each.name, each.value);
    return made;
}

owner<GstStructure> structure_of(const mediafiles_recorder_track_stats &stats, uint64_t safe)
{
    owner<GstStructure> made(gst_structure_new_empty("mediafiles-pad-stats"));
    set(made.get(), "frames", stats.frames);
    set(made.get(), "key-frames", stats.key_frames);
    set(made.get(), "bytes", stats.bytes);
    set(made.get(), "refused", stats.refused);
    set(made.get(), "safe", safe);
    return made;
}

void add(mediafiles_recorder_stats &to, const mediafiles_recorder_stats &later)
{
    to.files += later.files;
    to.frames_in += later.frames_in;
    to.frames_out += later.frames_out;
    to.frames_dropped += later.frames_dropped;
    to.frames_refused += later.frames_refused;
    to.frames_let_go += later.frames_let_go;
    to.bytes_in += later.bytes_in;
    to.bytes_out += later.bytes_out;
    to.unsafe_ns = later.unsafe_ns;
    to.made_up_ns += later.made_up_ns;
    to.queue_used = later.queue_used;
    to.queue_most = std::max(to.queue_most, later.queue_most);
    to.worst_push = std::max(to.worst_push, later.worst_push);
    to.worst_write = std::max(to.worst_write, later.worst_write);
    to.worst_sync = std::max(to.worst_sync, later.worst_sync);
    to.free_bytes = later.free_bytes;
}

void add(mediafiles_recorder_track_stats &to, const mediafiles_recorder_track_stats &later)
{
    to.frames += later.frames;
    to.key_frames += later.key_frames;
    to.bytes += later.bytes;
    to.refused += later.refused;
}

} // namespace mediafiles::gstreamer
