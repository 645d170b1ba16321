/** What the programs share: they describe their command line, and run with standard output reserved for the result. */
#ifndef TOOLS_PROGRAM_H
#define TOOLS_PROGRAM_H

#include <span>
#include <string>
#include <vector>

#include "tools/command.h"

namespace tools {

/** The arguments of a process, without its name. */
inline std::vector<std::string> arguments_of(int argc, char **argv)
{
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

/**
 * Parses the command line and runs the command that it names. What the
 * libraries print to descriptor 1 is discarded from here on.
 *
 * @return the exit code of the process
 */
int run_program(CLI::App &program, std::span<const command> commands, std::vector<std::string> line);

} // namespace tools

#endif
