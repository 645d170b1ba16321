#include "tools/record/recorded-files.h"

#include <algorithm>

#include <sys/stat.h>

#include "tools/journal-name.h"
#include "tools/seconds.h"

namespace tools {

std::string recorded_files::path_of(const mediafiles_recorder_event &event) const
{
    return directory_ + event.path;
}

void recorded_files::note(const mediafiles_recorder_event &event)
{
    if (!event.path) return;
    const auto is_it = [&](const recorded_file &each) { return each.number == event.number; };
    if (event.kind == MEDIAFILES_EVENT_DELETED) std::erase_if(files_, is_it);
    if (event.kind == MEDIAFILES_EVENT_BEGUN) files_.push_back({.path = path_of(event), .number = event.number});
    if (event.kind != MEDIAFILES_EVENT_FINISHED) return;
    const auto found = std::ranges::find_if(files_.rbegin(), files_.rend(), is_it); // further recorders count again
    if (found == files_.rend()) return;
    found->bytes = event.count;
    found->duration = seconds(event.to - event.from);
    found->journal_kept = keeps_journal_;
}

std::vector<recorded_file> recorded_files::list() const
{
    std::vector<recorded_file> all;
    for (recorded_file each : files_) {
        struct stat status;
        if (!each.duration) { // recovery may have completed or removed it
            if (stat(each.path.c_str(), &status) != 0) continue;
            each.bytes = static_cast<uint64_t>(status.st_size);
            each.journal_kept = stat(journal_of(each.path).c_str(), &status) == 0;
        }
        all.push_back(std::move(each));
    }
    return all;
}

} // namespace tools
