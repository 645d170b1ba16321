/**
 * Options of the command record in a file, one in a line as the command line
 * has them: "--segment 60s", "--segment=60s" or, for an input, its name alone.
 * What stands in a file is not in the list of processes.
 */
#ifndef TOOLS_RECORD_CONFIG_FILE_H
#define TOOLS_RECORD_CONFIG_FILE_H

#include <string>
#include <vector>

#include "tools/failure.h"

namespace tools {

/** What a line of the file holds is wrong usage, and stays so. */
struct wrong_line : failure {
    using failure::failure;
};

/** The command line with the lines of each "--config FILE" in its place. Throws failure where it cannot be read. */
std::vector<std::string> with_config(const std::vector<std::string> &line);

} // namespace tools

#endif
