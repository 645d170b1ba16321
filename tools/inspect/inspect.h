/**
 * Prints what a file holds, as text or as one JSON object. Nothing is changed.
 *
 * @return whether the file has no fault. Throws failure when it cannot be read.
 */
#ifndef TOOLS_INSPECT_INSPECT_H
#define TOOLS_INSPECT_INSPECT_H

#include <cstdio>

#include "tools/open-file.h"

namespace tools {

struct inspect_form {
    bool json;
    bool one_line; // the most important alone
};

bool inspect_mp4(const open_file &, inspect_form form, std::FILE *to);

/** Prints the records one by one as it reads them: a journal may hold millions. */
bool inspect_journal(const open_file &, inspect_form form, std::FILE *to);

} // namespace tools

#endif
