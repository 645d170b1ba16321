/** The command line of "mediafiles repair". */
#ifndef TOOLS_REPAIR_REPAIR_COMMAND_H
#define TOOLS_REPAIR_REPAIR_COMMAND_H

#include "tools/command.h"

namespace tools {

command add_repair_command(CLI::App &program);

} // namespace tools

#endif
