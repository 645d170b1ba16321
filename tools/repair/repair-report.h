/** The result of a repair, as text and as JSON. */
#ifndef TOOLS_REPAIR_REPAIR_REPORT_H
#define TOOLS_REPAIR_REPAIR_REPORT_H

#include <span>
#include <string>

#include "tools/repair/repair.h"

namespace tools {

/** One line; empty for a file that could not be repaired, which has a problem instead. */
std::string to_text(const repair_report &, bool dry_run);

/** One line about all files. */
std::string total_of(std::span<const repair_report>, bool dry_run);

/** One JSON object, with a line end. */
std::string to_json(std::span<const repair_report>, bool dry_run);

} // namespace tools

#endif
