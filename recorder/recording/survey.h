/** What a recorder's directory holds when it starts. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kept-files.h"
#include "names.h"

namespace mediafiles::recorder {

struct found_files {
    uint64_t highest = 0;                 // number that another one can follow; 0: none
    std::vector<std::string> interrupted; // files with a journal, newest first
    std::vector<kept_file> finished;      // the others
};

/** Only regular files that the pattern makes are seen. Throws recovery::obstacle where they cannot be. */
found_files find_files(int directory, const name_pattern &names);

} // namespace mediafiles::recorder
