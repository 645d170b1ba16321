/** The command line of "mediafiles inspect". */
#ifndef TOOLS_INSPECT_INSPECT_COMMAND_H
#define TOOLS_INSPECT_INSPECT_COMMAND_H

#include "tools/command.h"

namespace tools {

command add_inspect_command(CLI::App &program);

} // namespace tools

#endif
