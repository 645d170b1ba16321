/** The subcommands of the program: each has its part of the command line and a function that runs it. */
#ifndef TOOLS_COMMAND_H
#define TOOLS_COMMAND_H

#include <functional>

#include <CLI/CLI.hpp>

namespace tools {

/** Exit codes; 3 is that of a repair that had nothing to do. */
enum exit_code { done = 0, failed = 1, wrong_usage = 2, source_lost = 4 };

struct command {
    CLI::App *line; // owned by the program's line

    /**
     * @param result_descriptor  the caller's standard output; descriptor 1
     *                           itself leads nowhere, because the libraries print to it
     * @return an exit code
     */
    std::function<int(int result_descriptor)> run;
};

/** Each is defined in the folder of its name, and adds its part to the program's command line. */
command add_record_command(CLI::App &program);
command add_repair_command(CLI::App &program);
command add_inspect_command(CLI::App &program);

/** The repair as a program of its own: its options on the program's own line. */
command describe_repair(CLI::App &program);

} // namespace tools

#endif
