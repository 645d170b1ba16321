/** The program mediafiles: a subcommand for each task. */
#include <cstdio>

#include "tools/failure.h"
#include "tools/print.h"
#include "tools/program.h"
#include "tools/record/config-file.h"

int main(int argc, char **argv)
{
    CLI::App program("Records encoded audio and video into MP4 files that survive a power cut", "mediafiles");
    program.require_subcommand(1);
    program.footer("'mediafiles COMMAND --help' explains a command, with examples.");
    const tools::command commands[] = {tools::add_record_command(program), tools::add_repair_command(program),
                                       tools::add_inspect_command(program)};
    std::vector<std::string> line = tools::arguments_of(argc, argv);
    try {
        line = tools::with_config(line);
    } catch (const tools::failure &cause) {
        std::fprintf(stderr, "mediafiles: record: %s\n", tools::printable(cause.what()).c_str());
        return tools::failed;
    }
    return tools::run_program(program, commands, std::move(line));
}
