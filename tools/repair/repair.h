/**
 * Repair of one recording that was cut off.
 *
 * Nothing is written before the result is known. Then the journal is replaced
 * by one that holds only what is used, durably, and only then the media is
 * touched: from there on the same repair can be repeated until it completes,
 * however often it is cut off.
 */
#ifndef TOOLS_REPAIR_REPAIR_H
#define TOOLS_REPAIR_REPAIR_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <mediafiles/fix.h>

#include "tools/console.h"

namespace tools {

struct repair_options {
    std::optional<std::string> journal; // none: the media's name and ".journal"
    std::optional<std::string> output;  // directory that receives a repaired copy
    bool drop_last_frame = false;
    bool salvage = false;
    bool force = false;
    bool dry_run = false;
    bool keep_journal = false;
};

enum class repair_result {
    repaired, // or with dry_run: could be
    finished, // it needs none, and was left as it is
    refused,  // nothing was touched
    failed,   // while it was writing; it can be repeated
};

struct repair_report {
    std::string path;
    std::optional<std::string> journal = {}; // none: there is none
    std::optional<std::string> output = {};  // where the repaired file is; none unless repaired
    repair_result result = repair_result::refused;
    std::string problem = {};        // when refused or failed: "WHAT: FILE: WHY"
    mp4_fix_info info = {};          // of a repaired file
    uint64_t cut = 0;                // bytes of media that were left out
    uint64_t journal_lost = 0;       // bytes of the journal that could not be used
    std::string journal_damage = {}; // what was wrong with them; empty for what a power cut leaves
    bool journal_kept = false;
};

repair_report repair(const std::string &media, const repair_options &, console &);

} // namespace tools

#endif
