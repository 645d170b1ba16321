/** What came of a repair, for a person and for a program. */
#ifndef TOOLS_REPAIR_REPORT_H
#define TOOLS_REPAIR_REPORT_H

#include <string>

#include <mediafiles/recovery.h>

#include "tools/json.h"

namespace tools {

/** How many files had which result. */
struct repair_counts {
    uint64_t of[MEDIAFILES_FAILED + 1] = {}; // by MEDIAFILES_REPAIRED to MEDIAFILES_FAILED

    uint64_t changed() const
    {
        return of[MEDIAFILES_REPAIRED] + of[MEDIAFILES_SALVAGED] + of[MEDIAFILES_EMPTY_REMOVED];
    }
    uint64_t troubled() const { return of[MEDIAFILES_REFUSED] + of[MEDIAFILES_FAILED]; }
};

/** Why a file was refused or failed, as "WHAT: FILE: WHY; WHAT HELPS"; empty for the others. */
std::string problem_of(const mediafiles_report &);

/** One line for any other result. */
std::string to_text(const mediafiles_report &, bool dry_run);

/** One line over all. */
std::string total_of(const repair_counts &, bool dry_run);

ordered_json to_json(const mediafiles_report &);

/** All of it, with a line end. */
std::string to_json(const ordered_json &files, const repair_counts &, bool dry_run);

} // namespace tools

#endif
