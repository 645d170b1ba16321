/** The element mediafilessink: what comes is recorded, whatever happens to its pads, and nobody waits for a card. */
#include <gtest/gtest.h>

#include "support/gstreamer-harness.h"

namespace {

struct pad_case {
    const char *name, *caps;
    source from;
};

stream without_adts(stream all)
{
    for (frame &each : all) each.data.erase(each.data.begin(), each.data.begin() + 7);
    return all;
}

TEST(GStreamer, RecordsWhatComes)
{
    const stream base = load("h264_base_640x360_25", ".h264"), hevc = load("h265_aud_sei_640x360_25", ".h265"),
                 slices = load("h264_high_aud_4slices_640x360_30", ".h264"), sound = load("aac_lc_48000_2", ".aac");
    const struct {
        const char *what, *properties;
        std::vector<pad_case> pads;
        size_t files;
    } cases[] = {
        {"H.264", "", {{"video", h264_caps, {h264(), base}}}, 1},
        {"four slices, with ADTS",
         "",
         {{"video_0", h264_caps, {h264(), slices}}, {"audio_0", adts_caps, {aac(48000), sound}}},
         1},
        {"files of a second, with raw AAC",
         "max-size-time=1000000000",
         {{"video", h264_caps, {h264(), base}}, {"audio_0", raw_caps, {aac(48000), without_adts(sound)}}},
         4},
        {"two cameras", "", {{"video", h264_caps, {h264(), base}}, {"video_3", h265_caps, {h265(0, 0), hevc}}}, 1},
        {"sound alone", "max-size-time=2000000000", {{"audio_0", adts_caps, {aac(48000), sound}}}, 3},
    };
    for (const auto &c : cases)
        for (const bool is_live : {true, false}) {
            SCOPED_TRACE(std::string(c.what) + (is_live ? ", live" : ", from a file"));
            sink_under_test sink(c.properties);
            std::vector<std::pair<GstHarness *, const stream *>> fed;
            std::vector<source> sources;
            for (const pad_case &pad : c.pads) {
                fed.emplace_back(sink.add_pad(pad.name, pad.caps, is_live), &pad.from.frames);
                sources.push_back(pad.from);
            }
            sink.record(fed);
            const played all = play(sink.on);
            EXPECT_EQ(all.files.size(), c.files);
            expect_all_samples(all, sources);
            expect_times(all, sources);
            EXPECT_EQ(sink.heard().count("mediafiles-finished"), c.files);
        }
}

} // namespace
