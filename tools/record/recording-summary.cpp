#include "tools/record/recording-summary.h"

#include "tools/print.h"
#include "tools/track-description.h"

namespace tools {

namespace {

const char *name(stop_reason reason)
{
    switch (reason) {
    case stop_reason::end:
        return "end";
    case stop_reason::signal:
        return "signal";
    case stop_reason::duration:
        return "duration";
    case stop_reason::limit:
        return "limit";
    case stop_reason::error:
        return "error";
    }
    return "";
}

std::string line(size_t index, const track_summary &track)
{
    std::string text = print("  track %zu: ", index) + describe(track.description);
    text += ", from " + track.source + print(" stream %d: ", track.stream);
    text += print("%ju frames, %ju key, %ju bytes", uintmax_t{track.frames}, uintmax_t{track.key_frames},
                  uintmax_t{track.bytes});
    if (track.dropped != 0) text += print(", %ju dropped", uintmax_t{track.dropped});
    if (track.backwards != 0) text += print(", %ju backwards in time", uintmax_t{track.backwards});
    if (track.damaged != 0) text += print(", %ju damaged", uintmax_t{track.damaged});
    return text + "\n";
}

ordered_json object(size_t index, const track_summary &track)
{
    ordered_json result = {{"index", index}, {"source", track.source}, {"stream", track.stream}};
    add_description(result, track.description);
    result["frames"] = track.frames;
    result["key_frames"] = track.key_frames;
    result["bytes"] = track.bytes;
    result["dropped"] = track.dropped;
    result["backwards"] = track.backwards;
    result["damaged"] = track.damaged;
    return result;
}

} // namespace

std::string to_text(const recording_summary &summary)
{
    std::string text = summary.output + print(": %.3f s, %ju bytes, stopped by: %s\n", summary.duration,
                                              uintmax_t{summary.bytes}, name(summary.stopped_by));
    for (size_t i = 0; i < summary.tracks.size(); ++i) text += line(i, summary.tracks[i]);
    if (summary.journal_error) text += "  journal incomplete: " + *summary.journal_error + "\n";
    if (summary.journal_kept) text += "  journal kept: " + *summary.journal + "\n";
    text.pop_back();
    return text;
}

std::string to_json(const recording_summary &summary)
{
    ordered_json tracks = ordered_json::array();
    for (size_t i = 0; i < summary.tracks.size(); ++i) tracks.push_back(object(i, summary.tracks[i]));
    const ordered_json result = {
        {"output", summary.output},
        {"journal", or_null(summary.journal)},
        {"journal_kept", summary.journal_kept},
        {"duration", summary.duration},
        {"bytes", summary.bytes},
        {"tracks", tracks},
        {"journal_error", or_null(summary.journal_error)},
        {"stopped_by", name(summary.stopped_by)},
        {"error", or_null(summary.error)},
    };
    return json_text(result) + "\n";
}

} // namespace tools
