/** What the programs share: they describe their command line, and run with standard output reserved for the result. */
#ifndef TOOLS_PROGRAM_H
#define TOOLS_PROGRAM_H

#include <span>

#include "tools/command.h"

namespace tools {

/**
 * Parses the command line and runs the command that it names. What the
 * libraries print to descriptor 1 is discarded from here on.
 *
 * @return the exit code of the process
 */
int run_program(CLI::App &program, std::span<const command> commands, int argc, char **argv);

} // namespace tools

#endif
