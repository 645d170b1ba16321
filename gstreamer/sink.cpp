#include "sink.h"

#include <exception>
#include <mutex>
#include <string>

#include <gst/video/video.h>

#include "debug.h"
#include "recording.h"
#include "sink-pad.h"

GST_DEBUG_CATEGORY(mediafiles_sink_debug);

using namespace mediafiles::gstreamer;

namespace {

/* What an element has beside its pads. */
struct contents {
    std::recursive_mutex pads; // none comes or goes while it is held; an application may ask for one in "pad-added"
    std::mutex lock;
    settings options;
    std::shared_ptr<recording> running; // from READY to PAUSED and back
};

} // namespace

struct MediafilesSink {
    GstElement element;
    contents *has;
};

struct MediafilesSinkClass {
    GstElementClass parent;
};

G_DEFINE_TYPE(MediafilesSink, mediafiles_sink, GST_TYPE_ELEMENT)
GST_ELEMENT_REGISTER_DEFINE(mediafilessink, "mediafilessink", GST_RANK_NONE, mediafiles_sink_get_type())

namespace {

constexpr guint most_pads = MP4_MAX_TRACKS;

#define VIDEO_CAPS \
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au; " \
    "video/x-h265, stream-format=(string)byte-stream, alignment=(string)au"
#define AUDIO_CAPS "audio/mpeg, mpegversion=(int)4, stream-format=(string){ raw, adts }"

/* A link that names no pad gets the first that fits, so the one that there is once comes last. */
GstStaticPadTemplate templates[] = {
    GST_STATIC_PAD_TEMPLATE("video_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(VIDEO_CAPS)),
    GST_STATIC_PAD_TEMPLATE("audio_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(AUDIO_CAPS)),
    GST_STATIC_PAD_TEMPLATE("video", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(VIDEO_CAPS)),
};

contents &contents_of(gpointer object)
{
    return *reinterpret_cast<MediafilesSink *>(object)->has;
}

std::shared_ptr<recording> running(gpointer object)
{
    contents &all = contents_of(object);
    const std::lock_guard guard(all.lock);
    return all.running;
}

/* ---- Properties ---- */

enum property : guint {
    no_property,
    location,
    max_size_time,
    max_size_bytes,
    send_keyframe_requests,
    pattern,
    quota,
    keep_free,
    sync_interval,
    queue_bytes,
    pre_event,
    pre_event_bytes,
    patience,
    stats
};

constexpr auto usual_flags =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
constexpr uint64_t largest_memory = G_MAXINT32 / 2;   // that a recorder allocates
constexpr uint64_t longest_patience = G_MAXINT64 / 2; // that can be added to the clock

/* Properties that are a number: sizes in bytes, times in nanoseconds. */
const struct number_property {
    property id;
    const char *name, *nick, *blurb;
    uint64_t least, most;
    uint64_t settings::*member;
} numbers[] = {
    {max_size_time, "max-size-time", "Longest file",
     "Time after which the next key frame begins a file, in nanoseconds. 0: no limit but the format's, 3.75 GB. Where "
     "no "
     "key frame comes the file goes on; see send-keyframe-requests",
     0, G_MAXINT64, &settings::max_size_time},
    {max_size_bytes, "max-size-bytes", "Largest file",
     "Size after which the next key frame begins a file, in bytes. 0: no limit but the format's, 3.75 GB", 0,
     G_MAXINT64, &settings::max_size_bytes},
    {quota, "quota", "Quota",
     "For all files of the location or pattern together, in bytes: the oldest finished ones that are not protected are "
     "deleted, by their number. It stands where splitmuxsink has max-files. 0: as many as the file system holds, see "
     "keep-free",
     0, G_MAXINT64, &settings::quota},
    {keep_free, "keep-free", "Room for others",
     "Room that is left free on the file system, in bytes: where there is less, the oldest finished files of the "
     "location or pattern that are not protected are deleted, by their number, and when none can go the running file "
     "is finished. 0: no room for others; when the file system is full the oldest files are deleted all the same. "
     "Files of a pattern without {number} are never deleted",
     0, G_MAXINT64, &settings::keep_free},
    {sync_interval, "sync-interval", "Time between syncs",
     "Time between two rounds of syncs, in nanoseconds. What was recorded before the last round survives a power cut, "
     "so "
     "this is what can be lost. 0: one round after the other",
     0, G_MAXINT64, &settings::sync_interval},
    {queue_bytes, "queue-bytes", "Queue",
     "Memory for frames while the medium stalls, in bytes; allocated when the recording begins. It is also the largest "
     "frame. When it is full, whole groups of pictures are dropped, counted and reported; a source that is not live "
     "waits",
     4096, largest_memory, &settings::queue_bytes},
    {pre_event, "pre-event", "Time before an event",
     "Above 0: files are made by the signal trigger alone, each with so much of what came before it, in nanoseconds. "
     "0: everything is recorded",
     0, G_MAXINT64, &settings::pre_event},
    {pre_event_bytes, "pre-event-bytes", "Memory of what comes before an event",
     "Memory for pre-event, in bytes; allocated beside queue-bytes when the recording begins, unless pre-event is 0", 1,
     largest_memory, &settings::pre_event_bytes},
    {patience, "patience", "Patience with the medium",
     "How long the end of the stream, or the change to READY, waits for a medium that does not answer, in nanoseconds. "
     "After that files are left as they are and completed when their directory is recorded into again. So long the "
     "beginning waits for a directory that another recorder holds, too",
     0, longest_patience, &settings::patience},
};

void install_properties(GObjectClass *of)
{
    const auto text = [of](property id, const char *name, const char *nick, const char *blurb) {
        g_object_class_install_property(of, id, g_param_spec_string(name, nick, blurb, nullptr, usual_flags));
    };
    text(location, "location", "Location of the files",
         "Path of the files with exactly one %d or %0Nd, which is the number, like /media/card/%05d.mp4. The directory "
         "exists; numbers go up from the highest that is found there. Either this or pattern");
    text(pattern, "pattern", "Pattern of the files",
         "Path of the files with {number} or {number:DIGITS} and %Y %m %d %H %M %S, the time in UTC at which a file "
         "begins, like /media/card/%Y-%m-%d/{number}.mp4. It stands where splitmuxsink has the signal format-location. "
         "Without {number} it is the name of one recording. Either this or location");
    const settings usual;
    for (const number_property &each : numbers)
        g_object_class_install_property(of, each.id,
                                        g_param_spec_uint64(each.name, each.nick, each.blurb, each.least, each.most,
                                                            usual.*each.member, usual_flags));
    g_object_class_install_property(
        of, send_keyframe_requests,
        g_param_spec_boolean("send-keyframe-requests", "Ask for key frames",
                             "Ask upstream for a key frame when a file waits for one, so that files have the length of "
                             "max-size-time whatever the encoder's groups are",
                             FALSE, usual_flags));
    g_object_class_install_property(
        of, stats,
        g_param_spec_boxed("stats", "Statistics",
                           "Counts since READY, sizes in bytes, times in nanoseconds: files, frames-in, frames-out, "
                           "frames-dropped, frames-refused, unsafe-time (of media that a power cut would take now), "
                           "queue-used, queue-most, worst-push, worst-write, worst-sync and more, and a structure for "
                           "each pad: frames, key-frames, bytes, refused, safe (frames that survive a power cut now)",
                           GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

const number_property *number_of(guint id)
{
    for (const number_property &each : numbers)
        if (each.id == id) return &each;
    return nullptr;
}

std::string text_of(const GValue *value)
{
    const char *const text = g_value_get_string(value);
    return text ? text : "";
}

void set_text(GValue *value, const std::string &text)
{
    g_value_set_string(value, text.empty() ? nullptr : text.c_str());
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    contents &all = contents_of(object);
    const std::lock_guard guard(all.lock);
    if (const number_property *const number = number_of(id))
        all.options.*number->member = g_value_get_uint64(value);
    else if (id == location)
        all.options.location = text_of(value);
    else if (id == pattern)
        all.options.pattern = text_of(value);
    else if (id == send_keyframe_requests)
        all.options.send_keyframe_requests = g_value_get_boolean(value);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

owner<GstStructure> stats_of(gpointer object)
{
    const auto of = running(object);
    return of ? of->stats() : owner<GstStructure>(gst_structure_new_empty("mediafiles-stats"));
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    if (id == stats) return g_value_take_boxed(value, stats_of(object).release());
    contents &all = contents_of(object);
    const std::lock_guard guard(all.lock);
    if (const number_property *const number = number_of(id))
        g_value_set_uint64(value, all.options.*number->member);
    else if (id == location)
        set_text(value, all.options.location);
    else if (id == pattern)
        set_text(value, all.options.pattern);
    else if (id == send_keyframe_requests)
        g_value_set_boolean(value, all.options.send_keyframe_requests);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

/* ---- Signals that an application emits ---- */

void split_now(MediafilesSink *sink)
{
    if (const auto of = running(sink)) of->split(true);
}

void split_after(MediafilesSink *sink)
{
    if (const auto of = running(sink)) of->split(false);
}

gboolean trigger(MediafilesSink *sink, guint64 after)
{
    const auto of = running(sink);
    return of && of->trigger(after);
}

gboolean protect(MediafilesSink *sink, guint64 before, guint64 after)
{
    const auto of = running(sink);
    return of && of->protect(before, after);
}

template <class... Types>
void install_action(gpointer of, const char *name, GCallback handler, GType result, Types... types)
{
    g_signal_new_class_handler(name, G_TYPE_FROM_CLASS(of),
                               static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION), handler, nullptr,
                               nullptr, nullptr, result, sizeof...(types), types...);
}

/* ---- Pads ---- */

std::string free_name(GstElement *element, const char *kind)
{
    for (unsigned number = 0;; ++number) {
        std::string name = kind + std::to_string(number);
        if (!owner<GstPad>(gst_element_get_static_pad(element, name.c_str()))) return name;
    }
}

std::string name_for(GstElement *element, const GstPadTemplate *from, const char *asked)
{
    std::string name = GST_PAD_TEMPLATE_NAME_TEMPLATE(from);
    if (!name.ends_with("%u")) return name;
    if (asked && *asked) return asked;
    return free_name(element, name.substr(0, name.size() - 2).c_str());
}

GstPad *request_new_pad(GstElement *element, GstPadTemplate *from, const char *asked, const GstCaps *)
{
    const std::lock_guard pads_stay(contents_of(element).pads);
    GST_OBJECT_LOCK(element);
    const guint pads = element->numsinkpads;
    GST_OBJECT_UNLOCK(element);
    const std::string name = name_for(element, from, asked);
    if (pads >= most_pads || owner<GstPad>(gst_element_get_static_pad(element, name.c_str()))) {
        GST_WARNING_OBJECT(element, "no pad %s: %u of at most %u are there", name.c_str(), pads, most_pads);
        return nullptr;
    }
    GstPad *const pad = make_sink_pad(from, name.c_str());
    if (const auto to = running(element)) {
        join(pad, to);
        gst_pad_set_active(pad, TRUE);
    }
    gst_element_add_pad(element, pad);
    return pad;
}

void release_pad(GstElement *element, GstPad *pad)
{
    const owner<GstPad> own = share(pad);
    {
        const std::lock_guard pads_stay(contents_of(element).pads);
        leave(pad);
        gst_element_remove_pad(element, pad);
    }
    gst_pad_set_active(pad, FALSE);
}

/* ---- States ---- */

void for_each_pad(GstElement *element, void (*act)(GstPad *, const std::shared_ptr<recording> &),
                  const std::shared_ptr<recording> &with)
{
    struct call {
        decltype(act) function;
        const std::shared_ptr<recording> &with;
    } made = {act, with};
    gst_element_foreach_sink_pad(
        element,
        [](GstElement *, GstPad *pad, gpointer data) -> gboolean {
            const call &of = *static_cast<call *>(data);
            of.function(pad, of.with);
            return TRUE;
        },
        &made);
}

bool begin(GstElement *element)
{
    contents &all = contents_of(element);
    settings options;
    {
        const std::lock_guard guard(all.lock);
        options = all.options;
    }
    const std::string objection = objection_to(options);
    if (!objection.empty()) {
        const std::string &given = options.location.empty() ? options.pattern : options.location;
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("Cannot record: %s", objection.c_str()), ("%s", given.c_str()));
        return false;
    }
    try {
        const auto made = std::make_shared<recording>(element, options);
        made->begin();
        const std::scoped_lock guard(all.pads, all.lock);
        for_each_pad(element, join, made);
        all.running = made;
        return true;
    } catch (const std::exception &lacks) { /* descriptors, threads */
        GST_ELEMENT_ERROR(element, RESOURCE, FAILED, ("Cannot record: the system lacks resources."),
                          ("%s", lacks.what()));
        return false;
    }
}

void end(GstElement *element)
{
    const auto ended = running(element);
    if (!ended) return;
    {
        contents &all = contents_of(element);
        const std::scoped_lock guard(all.pads, all.lock);
        all.running.reset();
        for_each_pad(
            element, [](GstPad *pad, const auto &) { leave(pad); }, ended);
    }
    ended->end();
}

/*
 * A sink that keeps every frame has nothing to show while it is PAUSED: it reaches that state at once, without a first
 * buffer, and lets streaming threads wait there.
 */
GstStateChangeReturn change_state(GstElement *element, GstStateChange change)
{
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED && !begin(element)) return GST_STATE_CHANGE_FAILURE;
    const auto of = running(element);
    if (of && change == GST_STATE_CHANGE_PLAYING_TO_PAUSED) of->set_playing(false);
    if (of && change == GST_STATE_CHANGE_PAUSED_TO_READY) of->interrupt();

    const GstStateChangeReturn result = GST_ELEMENT_CLASS(mediafiles_sink_parent_class)->change_state(element, change);

    if (of && change == GST_STATE_CHANGE_PAUSED_TO_PLAYING && result != GST_STATE_CHANGE_FAILURE) of->set_playing(true);
    const bool did_not_begin = change == GST_STATE_CHANGE_READY_TO_PAUSED && result == GST_STATE_CHANGE_FAILURE;
    if (change == GST_STATE_CHANGE_PAUSED_TO_READY || did_not_begin) end(element);
    return result;
}

/* ---- The element as a whole ---- */

/* What was recorded cannot be recorded again: seeks are refused. */
gboolean send_event(GstElement *element, GstEvent *event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK)
        return GST_ELEMENT_CLASS(mediafiles_sink_parent_class)->send_event(element, event);
    gst_event_unref(event);
    return FALSE;
}

gboolean answer(GstElement *element, GstQuery *query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_SEEKING)
        return GST_ELEMENT_CLASS(mediafiles_sink_parent_class)->query(element, query);
    GstFormat format = GST_FORMAT_UNDEFINED;
    gst_query_parse_seeking(query, &format, nullptr, nullptr, nullptr);
    gst_query_set_seeking(query, format, FALSE, 0, -1);
    return TRUE;
}

void finalize(GObject *object)
{
    delete reinterpret_cast<MediafilesSink *>(object)->has;
    G_OBJECT_CLASS(mediafiles_sink_parent_class)->finalize(object);
}

} // namespace

static void mediafiles_sink_init(MediafilesSink *sink)
{
    sink->has = new contents;
    GST_OBJECT_FLAG_SET(sink, GST_ELEMENT_FLAG_SINK);
}

static void mediafiles_sink_class_init(MediafilesSinkClass *of)
{
    GST_DEBUG_CATEGORY_INIT(mediafiles_sink_debug, "mediafilessink", 0, "recorder of MP4 files");

    GObjectClass *const object = G_OBJECT_CLASS(of);
    object->set_property = set_property;
    object->get_property = get_property;
    object->finalize = finalize;
    install_properties(object);

    /* The current group of pictures has been recorded already, so "now" is the key frame that is asked for. */
    install_action(of, "split-now", G_CALLBACK(split_now), G_TYPE_NONE);
    install_action(of, "split-after", G_CALLBACK(split_after), G_TYPE_NONE);
    install_action(of, "trigger", G_CALLBACK(trigger), G_TYPE_BOOLEAN, G_TYPE_UINT64);
    install_action(of, "protect", G_CALLBACK(protect), G_TYPE_BOOLEAN, G_TYPE_UINT64, G_TYPE_UINT64);

    GstElementClass *const element = GST_ELEMENT_CLASS(of);
    element->request_new_pad = request_new_pad;
    element->release_pad = release_pad;
    element->change_state = change_state;
    element->send_event = send_event;
    element->query = answer;
    for (GstStaticPadTemplate &each : templates) gst_element_class_add_static_pad_template(element, &each);
    gst_element_class_set_static_metadata(
        element, "Recorder of MP4 files that survive a power cut", "Sink/File",
        "Records H.264, H.265 and AAC into a directory of MP4 files, each of them safe up to its last round of syncs. "
        "Files that were interrupted are completed beside the new recording. No streaming thread of a live source "
        "waits "
        "for the medium. What happens is posted as element messages: mediafiles-begun, mediafiles-finished and others. "
        "The core prints a line to standard output for some files",
        "The authors of libmediafiles");
}
