/**
 * Options of the command record in a file, one in a line as the command line
 * has them: "--segment 60s", "--segment=60s" or, for an input, its name alone.
 * What stands in a file is not in the list of processes.
 */
#ifndef TOOLS_RECORD_CONFIG_FILE_H
#define TOOLS_RECORD_CONFIG_FILE_H

#include <string>
#include <vector>

namespace tools {

/** The command line with the lines of each "--config FILE" in its place. Throws failure. */
std::vector<std::string> with_config(const std::vector<std::string> &line);

} // namespace tools

#endif
