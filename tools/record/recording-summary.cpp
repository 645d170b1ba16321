#include "tools/record/recording-summary.h"

#include <algorithm>

#include "tools/journal-name.h"
#include "tools/print.h"
#include "tools/seconds.h"
#include "tools/track-description.h"

namespace tools {

namespace {

const char *name(stop_reason reason)
{
    switch (reason) {
    case stop_reason::end:
        return "end";
    case stop_reason::lost:
        return "lost";
    case stop_reason::signal:
        return "signal";
    case stop_reason::duration:
        return "duration";
    case stop_reason::error:
        return "error";
    }
    return "";
}

std::string line(size_t index, const track_summary &track)
{
    std::string text = print("  track %zu: ", index) + describe(track.description);
    text += ", from " + track.source + print(" stream %d: ", track.stream);
    text += counted(track.frames, "frame") + print(", %ju key, ", uintmax_t{track.key_frames}) +
            counted(track.bytes, "byte");
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

ordered_json object(const recorded_file &file)
{
    return {{"path", file.path},
            {"duration", or_null(file.duration)},
            {"bytes", file.bytes},
            {"journal_kept", file.journal_kept}};
}

std::string line(const source_summary &source)
{
    if (source.connections < 2 && source.stalls == 0 && source.steps == 0 && source.gaps == 0) return {};
    std::string text = "  " + source.name + ": opened " + counted(source.connections, "time") + ", silent " +
                       counted(source.stalls, "time") + ", " + counted(source.steps, "time jump");
    if (source.gaps != 0)
        text += ", " + counted(source.gaps, "gap") + print(" (%.3f s in all)", seconds(source.gap_time));
    return text + "\n";
}

ordered_json object(const source_summary &source)
{
    return {{"name", source.name},     {"connections", source.connections},
            {"stalls", source.stalls}, {"steps", source.steps},
            {"gaps", source.gaps},     {"gap_duration", seconds(source.gap_time)}};
}

uint64_t bytes_of(const recording_summary &summary)
{
    uint64_t sum = 0;
    for (const recorded_file &each : summary.files) sum += each.bytes;
    return sum;
}

double duration_of(const recording_summary &summary)
{
    double sum = 0;
    for (const recorded_file &each : summary.files) sum += each.duration.value_or(0);
    return sum;
}

} // namespace

std::string to_text(const recording_summary &summary)
{
    std::string text = summary.output + print(": %.3f s in ", duration_of(summary)) +
                       counted(summary.files.size(), "file") +
                       print(", %ju bytes, stopped by: %s\n", uintmax_t{bytes_of(summary)}, name(summary.stopped_by));
    for (size_t i = 0; i < summary.tracks.size(); ++i) text += line(i, summary.tracks[i]);
    for (const source_summary &each : summary.sources) text += line(each);
    if (summary.lost != 0) text += "  lost: " + counted(summary.lost, "frame") + "\n";
    if (summary.files.size() > 1)
        text += print("  %zu files: ", summary.files.size()) + summary.files.front().path + " to " +
                summary.files.back().path + "\n";
    for (const recorded_file &each : summary.files)
        if (each.journal_kept) text += "  journal kept: " + journal_of(each.path) + "\n";
    text.pop_back();
    return text;
}

std::string to_json(const recording_summary &summary)
{
    ordered_json tracks = ordered_json::array();
    for (size_t i = 0; i < summary.tracks.size(); ++i) tracks.push_back(object(i, summary.tracks[i]));
    ordered_json sources = ordered_json::array();
    for (const source_summary &each : summary.sources) sources.push_back(object(each));
    ordered_json files = ordered_json::array();
    for (const recorded_file &each : summary.files) files.push_back(object(each));
    const bool is_kept = std::ranges::any_of(summary.files, &recorded_file::journal_kept);
    const ordered_json result = {
        {"output", summary.output},
        {"journal", or_null(summary.files.empty() ? "" : journal_of(summary.files.front().path))},
        {"journal_kept", is_kept},
        {"duration", duration_of(summary)},
        {"bytes", bytes_of(summary)},
        {"files", files},
        {"sources", sources},
        {"tracks", tracks},
        {"lost", summary.lost},
        {"stopped_by", name(summary.stopped_by)},
        {"error", or_null(summary.error)},
    };
    return json_text(result) + "\n";
}

} // namespace tools
