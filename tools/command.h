/** A subcommand of the program: its part of the command line, and what it does. */
#ifndef TOOLS_COMMAND_H
#define TOOLS_COMMAND_H

#include <functional>

#include <CLI/CLI.hpp>

namespace tools {

/** Exit codes of every subcommand. */
enum exit_code { done = 0, failed = 1, wrong_usage = 2 };

struct command {
    CLI::App *line; // owned by the program's line

    /**
     * @param result_descriptor  the caller's standard output; descriptor 1
     *                           itself goes to standard error, for the library prints there
     * @return an exit code
     */
    std::function<int(int result_descriptor)> run;
};

} // namespace tools

#endif
