#include "tools/repair/repair-report.h"

#include <cerrno>
#include <cstring>
#include <span>

#include <sys/stat.h>

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

/* What a file is that is left alone for it; empty for a plain file. */
std::string special_kind(const char *file)
{
    struct stat status;
    if (lstat(file, &status) != 0) return {};
    if (S_ISLNK(status.st_mode)) return "it is a link; give what it leads to";
    if (!S_ISREG(status.st_mode)) return "it is not a regular file";
    return status.st_nlink > 1 ? "it has several hard links; give a copy of it" : "";
}

std::string why_not_ours(const mediafiles_report &report)
{
    if (report.error == EXDEV) return "it is on another file system; name it as a PATH to search it";
    if (report.error == ENAMETOOLONG) return "it is more than 8 directories deep; name it as a PATH to search it";
    const std::string kind = report.reason == MEDIAFILES_REASON_NOT_REGULAR ? special_kind(report.path) : "";
    return kind.empty() ? "not a recording of libmediafiles, or its beginning is lost" : kind;
}

/* With figures, and the one reason that applies of several. */
std::string cause_of(const mediafiles_report &report, const char *file)
{
    std::string text = mediafiles_reason_text(report.reason);
    const mediafiles_plan_info plan = report.plan ? *report.plan : mediafiles_plan_info{};
    const auto megabytes = [](uint64_t bytes) { return static_cast<double>(bytes) / 1e6; };
    switch (report.reason) {
    case MEDIAFILES_REASON_SYSTEM:
        return std::strerror(report.error);
    case MEDIAFILES_REASON_CANNOT_REPLAY:
        return text + " (" + std::strerror(report.error) + ")";
    case MEDIAFILES_REASON_JOURNAL_DAMAGED:
        if (!plan.damage) return text;
        if (plan.journal_end == 0) return text + " from the start";
        return text + print(" after %ju of %ju bytes", uintmax_t{plan.journal_end},
                            uintmax_t{plan.journal_end + plan.journal_lost});
    case MEDIAFILES_REASON_MEDIA_DAMAGED:
        return plan.help != 0 ? text : "it ends before its first frame: nothing can be kept";
    case MEDIAFILES_REASON_LARGE_CUT:
        return text + print(": %.1f of %.1f MB", megabytes(plan.media_end), megabytes(plan.media_end + plan.cut));
    case MEDIAFILES_REASON_LARGE_GROWTH:
        return text + print(": %.1f, not %.1f MB", megabytes(plan.media_end), megabytes(plan.media_end - plan.added));
    case MEDIAFILES_REASON_NOT_REGULAR: {
        const std::string kind = special_kind(file);
        return kind.empty() ? text : kind;
    }
    default:
        return text;
    }
}

const char *help_for(const mediafiles_report &report)
{
    const bool has_option = report.plan && report.plan->help != 0;
    switch (report.reason) {
    case MEDIAFILES_REASON_NO_JOURNAL:
        return "; if you have its journal elsewhere: --journal FILE";
    case MEDIAFILES_REASON_NO_SAMPLES:
        return "; if you have a more complete one: --journal FILE";
    case MEDIAFILES_REASON_JOURNAL_DAMAGED:
        return has_option ? "; --salvage keeps what stands before that"
                          : "; if you have an intact copy: --journal FILE";
    case MEDIAFILES_REASON_MEDIA_DAMAGED:
        return has_option ? "; --keep-damaged keeps all frames and lists the damaged ones; --salvage keeps what stands "
                            "before the damage"
                          : "; is there a copy?";
    case MEDIAFILES_REASON_FOREIGN_JOURNAL:
        return "; if you have its own elsewhere: --journal FILE; --keep-damaged keeps all frames that this one lists";
    case MEDIAFILES_REASON_LARGE_CUT:
        return "; --force cuts off the rest (try it with --output DIR first)";
    case MEDIAFILES_REASON_LARGE_GROWTH:
        return "; --force fills up with zeros (try it with --output DIR first)";
    case MEDIAFILES_REASON_NO_FRAME_LEFT:
        return "; without --drop-last-frame all frames are kept";
    case MEDIAFILES_REASON_TOO_LARGE:
        return "; is it the right file?";
    case MEDIAFILES_REASON_IN_USE:
    case MEDIAFILES_REASON_CHANGED:
        return "; repeat when that has ended";
    case MEDIAFILES_REASON_EXISTS:
        return "; choose another directory, or remove that file";
    case MEDIAFILES_REASON_CANNOT_REPLAY:
        return "; 'mediafiles inspect' shows its journal";
    case MEDIAFILES_REASON_NO_MEDIA:
        return "; put the two beside each other";
    default:
        return "";
    }
}

/* What helps after a system call has failed. */
const char *help_after(int error)
{
    switch (error) {
    case EROFS:
    case ENOSPC:
        return "; --output DIR repairs a copy on another medium";
    case EIO:
        return "; the card fails: copy the file and its .journal elsewhere, then repair the copy";
    case EPERM:
    case EACCES:
        return "; check owner and write protection, or use --output DIR";
    default:
        return "";
    }
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
    return std::string("cannot repair: ") + file + ": " + cause_of(report, file) + help_for(report) +
           (report.result == MEDIAFILES_FAILED ? help_after(report.error) : "");
}

std::string to_text(const mediafiles_report &report, bool dry_run)
{
    const std::string path = report.path;
    if (report.result == MEDIAFILES_FINISHED)
        return path + ": finished properly, left as it is" +
               (report.plan && report.plan->foreign
                    ? "; the journal beside it is of another recording, or damaged, and is kept"
                    : "");
    if (report.result == MEDIAFILES_EMPTY_REMOVED)
        return path + (dry_run ? ": holds no frame, can be removed" : ": held no frame, removed");
    if (report.result == MEDIAFILES_NOT_OURS) return path + ": " + why_not_ours(report) + "; left as it is";
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
        {"journal_damage", text_or_null(report.plan ? report.plan->damage : nullptr)},
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
