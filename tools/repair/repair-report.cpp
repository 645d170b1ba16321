#include "tools/repair/repair-report.h"

#include <cerrno>
#include <cstring>
#include <span>

#include "tools/print.h"
#include "tools/seconds.h"
#include "tools/track-description.h"

namespace tools {

namespace {

constexpr const char *names[] = {"",         "repaired", "salvaged", "finished", "empty_removed",
                                 "not_ours", "refused",  "failed"};
static_assert(std::size(names) == MEDIAFILES_FAILED + 1);

bool has_movie(const mediafiles_report &report)
{
    return report.plan && (report.result == MEDIAFILES_REPAIRED || report.result == MEDIAFILES_SALVAGED);
}

std::span<const mp4_fix_track> tracks_of(const mediafiles_plan_info &plan)
{
    return std::span(plan.info.tracks).first(plan.info.trackCount);
}

std::span<const mediafiles_range> ranges_of(const mediafiles_report &report)
{
    return {report.ranges, report.plan ? report.plan->ranges : 0};
}

uint64_t bytes_of(std::span<const mediafiles_range> ranges)
{
    uint64_t bytes = 0;
    for (const mediafiles_range &range : ranges) bytes += range.end - range.begin;
    return bytes;
}

ordered_json text_or_null(const char *text)
{
    return text ? ordered_json(text) : ordered_json(nullptr);
}

/* The options that would help. */
std::string help_for(const mediafiles_report &report)
{
    struct {
        uint32_t option;
        const char *text;
    } static constexpr helps[] = {
        {MEDIAFILES_SALVAGE, "--salvage keeps what stands before that"},
        {MEDIAFILES_KEEP_DAMAGED, "--keep-damaged keeps all that the journal names"},
        {MEDIAFILES_FORCE, "--force does it all the same"},
    };
    std::string text;
    if (report.plan)
        for (const auto &each : helps)
            if (report.plan->help & each.option) text += std::string("; ") + each.text;
    switch (report.reason) {
    case MEDIAFILES_REASON_JOURNAL_DAMAGED:
        return !text.empty() ? text : "; --journal FILE takes one from elsewhere";
    case MEDIAFILES_REASON_MEDIA_DAMAGED:
        return !text.empty() ? text : "; no frame that the journal names is left in it";
    case MEDIAFILES_REASON_NO_JOURNAL:
    case MEDIAFILES_REASON_NO_SAMPLES:
    case MEDIAFILES_REASON_FOREIGN_JOURNAL:
        return text + "; --journal FILE takes one from elsewhere";
    case MEDIAFILES_REASON_NO_FRAME_LEFT:
        return text + "; without --drop-last-frame all frames are kept";
    case MEDIAFILES_REASON_IN_USE:
    case MEDIAFILES_REASON_CHANGED:
        return text + "; repeat when that has ended";
    case MEDIAFILES_REASON_EXISTS:
        return text + "; choose another directory, or remove it";
    case MEDIAFILES_REASON_NO_MEDIA:
        return text + "; put the two beside each other";
    default:
        return text;
    }
}

/* What helps after a system call has failed. */
std::string help_after(int error)
{
    if (error == ENOENT) return "";
    if (error == EROFS || error == ENOSPC) return "; --output DIR repairs a copy on another medium";
    if (error == EIO) return "; the medium fails: copy the file elsewhere, then repair the copy";
    return "; repeat when that is mended";
}

/* Where and how a journal is damaged. */
std::string place_of(const mediafiles_report &report)
{
    const mediafiles_plan_info *plan = report.plan;
    if (report.reason != MEDIAFILES_REASON_JOURNAL_DAMAGED || !plan || !plan->damage) return "";
    return print(" at byte %ju of %ju (%s)", uintmax_t{plan->journal_end},
                 uintmax_t{plan->journal_end + plan->journal_lost}, plan->damage);
}

ordered_json object(size_t index, const mp4_fix_track &track)
{
    ordered_json result = {{"index", index}};
    add_description(result, track.desc);
    result["frames"] = track.frameCount;
    result["duration"] = seconds(track.timespan);
    return result;
}

} // namespace

std::string problem_of(const mediafiles_report &report)
{
    if (report.result != MEDIAFILES_REFUSED && report.result != MEDIAFILES_FAILED) return "";
    const char *file = report.problem_path ? report.problem_path : report.path;
    const bool system = report.reason == MEDIAFILES_REASON_SYSTEM;
    std::string text = std::string("cannot repair: ") + file + ": ";
    text += system ? std::strerror(report.error) : mediafiles_reason_text(report.reason) + place_of(report);
    if (report.reason == MEDIAFILES_REASON_CANNOT_REPLAY) text += std::string(" (") + std::strerror(report.error) + ")";
    text += help_for(report);
    return text + (report.result == MEDIAFILES_FAILED ? help_after(report.error) : "");
}

std::string to_text(const mediafiles_report &report, bool dry_run)
{
    const std::string path = report.path;
    if (report.result == MEDIAFILES_FINISHED)
        return path + ": finished properly, left as it is" +
               (report.plan && report.plan->foreign ? "; the journal beside it is not its own" : "");
    if (report.result == MEDIAFILES_EMPTY_REMOVED)
        return path + (dry_run ? ": holds no frame, can be removed" : ": held no frame, removed");
    if (report.result == MEDIAFILES_NOT_OURS) return path + ": no recording of this kind, left as it is";
    if (!has_movie(report)) return "";

    const mediafiles_plan_info &plan = *report.plan;
    std::string text = path + (dry_run ? ": can be " : ": ") + names[report.result];
    if (report.output && path != report.output) text += std::string(" as ") + report.output;
    text += print(": %.3f s", seconds(plan.info.timespan));
    for (const mp4_fix_track &track : tracks_of(plan))
        text += print(", %s %u frames %.3f s", codec_name(track.desc.type), track.frameCount, seconds(track.timespan));
    text += print("; %ju bytes cut off, %ju bytes", uintmax_t{plan.cut}, uintmax_t{plan.file_size});
    if (const auto ranges = ranges_of(report); !ranges.empty())
        text += print("; damaged ranges: %zu, %ju bytes", ranges.size(), uintmax_t{bytes_of(ranges)});
    if (plan.journal_lost != 0) text += print("; %ju bytes of the journal lost", uintmax_t{plan.journal_lost});
    if (plan.damage) text += std::string(" (") + plan.damage + ")";
    return text;
}

std::string total_of(const repair_counts &counts, bool dry_run)
{
    uint64_t all = 0;
    for (const uint64_t count : counts.of) all += count;
    const auto count = [&](int result) { return uintmax_t{counts.of[result]}; };
    std::string text =
        print("%ju %s: %ju %s", uintmax_t{all}, all == 1 ? "file" : "files",
              count(MEDIAFILES_REPAIRED) + count(MEDIAFILES_SALVAGED), dry_run ? "can be repaired" : "repaired");
    if (counts.of[MEDIAFILES_SALVAGED] != 0) text += print(" (%ju with damage)", count(MEDIAFILES_SALVAGED));
    text +=
        print(", %ju finished properly, %ju not repaired", count(MEDIAFILES_FINISHED), uintmax_t{counts.troubled()});
    if (counts.of[MEDIAFILES_EMPTY_REMOVED] != 0)
        text += print(", %ju without a frame", count(MEDIAFILES_EMPTY_REMOVED));
    if (counts.of[MEDIAFILES_NOT_OURS] != 0) text += print(", %ju of another kind", count(MEDIAFILES_NOT_OURS));
    return text;
}

ordered_json to_json(const mediafiles_report &report)
{
    const std::string problem = problem_of(report);
    ordered_json result = {
        {"path", report.path},
        {"journal", text_or_null(report.journal)},
        {"journal_kept", report.journal_kept != 0},
        {"result", names[report.result]},
        {"output", text_or_null(report.output)},
        {"error", problem.empty() ? ordered_json(nullptr) : ordered_json(problem)},
        {"writers_known", report.lease_unknown == 0},
    };
    if (report.result == MEDIAFILES_FINISHED) result["journal_foreign"] = report.plan && report.plan->foreign;
    if (!has_movie(report)) return result;
    const mediafiles_plan_info &plan = *report.plan;
    ordered_json tracks = ordered_json::array(), ranges = ordered_json::array();
    for (const mp4_fix_track &track : tracks_of(plan)) tracks.push_back(object(tracks.size(), track));
    for (const mediafiles_range &range : ranges_of(report)) ranges.push_back({range.begin, range.end});
    result["duration"] = seconds(plan.info.timespan);
    result["bytes"] = plan.file_size;
    result["cut_bytes"] = plan.cut;
    result["journal_lost_bytes"] = plan.journal_lost;
    result["journal_damage"] = text_or_null(plan.damage);
    result["bad_ranges"] = ranges;
    result["tracks"] = tracks;
    if (report.hash_read) result["sha256_read"] = report.hash_read;
    if (report.hash_made) result["sha256_made"] = report.hash_made;
    return result;
}

std::string to_json(const ordered_json &files, const repair_counts &counts, bool dry_run)
{
    ordered_json result = {{"dry_run", dry_run}, {"files", files}};
    for (int i = MEDIAFILES_REPAIRED; i <= MEDIAFILES_FAILED; ++i) result[names[i]] = counts.of[i];
    return json_text(result) + "\n";
}

} // namespace tools
