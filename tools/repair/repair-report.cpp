#include "tools/repair/repair-report.h"

#include <algorithm>

#include "tools/print.h"
#include "tools/seconds.h"
#include "tools/track-description.h"

namespace tools {

namespace {

const char *name(repair_result result)
{
    switch (result) {
    case repair_result::repaired:
        return "repaired";
    case repair_result::finished:
        return "finished";
    case repair_result::refused:
        return "refused";
    case repair_result::failed:
        return "failed";
    }
    return "";
}

std::span<const mp4_fix_track> tracks_of(const repair_report &report)
{
    return std::span(report.info.tracks).first(report.info.trackCount);
}

size_t count(std::span<const repair_report> reports, repair_result result)
{
    return static_cast<size_t>(std::ranges::count(reports, result, &repair_report::result));
}

ordered_json object(size_t index, const mp4_fix_track &track)
{
    ordered_json result = {{"index", index}};
    add_description(result, track.desc);
    result["frames"] = track.frameCount;
    result["duration"] = seconds(track.timespan);
    return result;
}

ordered_json object(const repair_report &report)
{
    ordered_json result = {
        {"path", report.path},           {"journal", or_null(report.journal)}, {"journal_kept", report.journal_kept},
        {"result", name(report.result)}, {"output", or_null(report.output)},   {"error", or_null(report.problem)}};
    if (report.result != repair_result::repaired) return result;
    ordered_json tracks = ordered_json::array();
    for (const mp4_fix_track &track : tracks_of(report)) tracks.push_back(object(tracks.size(), track));
    result["duration"] = seconds(report.info.timespan);
    result["bytes"] = report.info.fileSize;
    result["cut_bytes"] = report.cut;
    result["journal_lost_bytes"] = report.journal_lost;
    result["journal_damage"] = or_null(report.journal_damage);
    result["tracks"] = tracks;
    return result;
}

} // namespace

std::string to_text(const repair_report &report, bool dry_run)
{
    if (report.result == repair_result::finished) return report.path + ": finished properly, left as it is";
    if (report.result != repair_result::repaired) return "";
    std::string text = report.path + (dry_run ? ": can be repaired" : ": repaired");
    if (report.output && *report.output != report.path) text += " as " + *report.output;
    text += print(": %.3f s", seconds(report.info.timespan));
    for (const mp4_fix_track &track : tracks_of(report))
        text += print(", %s %u frames %.3f s", codec_name(track.desc.type), track.frameCount, seconds(track.timespan));
    text += print("; %ju bytes cut off, %u bytes", uintmax_t{report.cut}, report.info.fileSize);
    if (report.journal_lost != 0) text += print("; %ju bytes of the journal lost", uintmax_t{report.journal_lost});
    if (!report.journal_damage.empty()) text += " (" + report.journal_damage + ")";
    return text;
}

std::string total_of(std::span<const repair_report> reports, bool dry_run)
{
    const size_t repaired = count(reports, repair_result::repaired), finished = count(reports, repair_result::finished);
    return print("%zu files: %zu %s, %zu finished properly, %zu not repaired", reports.size(), repaired,
                 dry_run ? "can be repaired" : "repaired", finished, reports.size() - repaired - finished);
}

std::string to_json(std::span<const repair_report> reports, bool dry_run)
{
    ordered_json files = ordered_json::array();
    for (const repair_report &report : reports) files.push_back(object(report));
    const ordered_json result = {
        {"dry_run", dry_run},
        {"files", files},
        {"repaired", count(reports, repair_result::repaired)},
        {"finished", count(reports, repair_result::finished)},
        {"refused", count(reports, repair_result::refused)},
        {"failed", count(reports, repair_result::failed)},
    };
    return json_text(result) + "\n";
}

} // namespace tools
