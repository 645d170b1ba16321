/** The element mediafilessink under test: pads that a test feeds, pipelines, and what the bus said. */
#pragma once

#include <optional>

#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include "recorder-harness.h"

inline constexpr const char *h264_caps =
    "video/x-h264, stream-format=byte-stream, alignment=au, width=640, height=360, framerate=25/1";
inline constexpr const char *h265_caps =
    "video/x-h265, stream-format=byte-stream, alignment=au, width=640, height=360, framerate=25/1";
inline constexpr const char *adts_caps = "audio/mpeg, mpegversion=4, stream-format=adts, rate=48000, channels=2";
inline constexpr const char *raw_caps =
    "audio/mpeg, mpegversion=4, stream-format=raw, rate=48000, channels=2, codec_data=(buffer)1190";

/** What a bus said since it was asked last. */
struct said {
    /* The name of an element message, "stream-start", "eos", "error", "warning": its text. */
    std::multimap<std::string, std::string> messages;
    size_t count(const std::string &name) const { return messages.count(name); }
    std::string text(const std::string &name) const;
};

class sink_under_test {
public:
    /** Its properties as gst-launch-1.0 takes them; without a location it has one in the card. */
    explicit sink_under_test(const std::string &properties = "");
    ~sink_under_test();
    sink_under_test(const sink_under_test &) = delete;
    sink_under_test &operator=(const sink_under_test &) = delete;

    /** It plays from then on. The source is live, unless it is said that it is not. */
    GstHarness *add_pad(const std::string &name, const char *caps, bool is_live = true);
    void remove_pad(GstHarness *pad);
    GstFlowReturn push(GstHarness *pad, const frame &given, GstBufferFlags flags = GstBufferFlags(0)) const;
    /** All frames of the pads, in the order in which they come; ends the streams, and waits for the message. */
    void record(const std::vector<std::pair<GstHarness *, const stream *>> &all);
    void end_all();

    /** Waits until one of that name comes. */
    bool hears(const std::string &name);
    said &heard();
    /** Of the recording, or of one of its pads. */
    uint64_t statistic(const char *name, const char *pad = nullptr) const;

    card on;
    GstElement *element;

private:
    void listen(GstClockTime patience);

    GstBus *bus_;
    std::vector<GstHarness *> pads_;
    said heard_;
};

/** Runs until the end of the stream or an error. The probe sees what comes to the pads of "s". @return what the bus said */
struct buffer_probe {
    GstPadProbeCallback see = nullptr;
    gpointer data = nullptr;
};
said run_pipeline(const std::string &description, buffer_probe probe = {});

GstBuffer *buffer_of(const frame &given);
