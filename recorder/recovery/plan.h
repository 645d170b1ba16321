// What applying a plan needs to know of it, beyond its public description.
#pragma once

#include <cstdint>

#include <mediafiles/recovery.h>

#include "journal-marks.h"

namespace mediafiles::recovery {

// Ends the journal that a repair in place makes of the first journal_end bytes of the old one.
repair_mark mark_of(const mediafiles_plan &plan, bool completed);

const mediafiles_source &media_of(const mediafiles_plan &plan);
const mediafiles_source *journal_of(const mediafiles_plan &plan); // NULL: there is none

// Only the size of mdat is missing in the file: its head is written, nothing else changes.
bool writes_head_alone(const mediafiles_plan &plan);
// Whether an earlier repair has put its journal in place: that has the modification time of the media as it was found.
bool continues_repair(const mediafiles_plan &plan);

} // namespace mediafiles::recovery
