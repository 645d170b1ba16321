/** The command line of "mediafiles record". */
#ifndef TOOLS_RECORD_RECORD_COMMAND_H
#define TOOLS_RECORD_RECORD_COMMAND_H

#include "tools/command.h"

namespace tools {

command add_record_command(CLI::App &program);

} // namespace tools

#endif
