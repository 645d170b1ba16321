/** The program mediafiles: a subcommand for each task. */
#include "tools/program.h"

int main(int argc, char **argv)
{
    CLI::App program("Records encoded audio and video into MP4 files that survive a power cut", "mediafiles");
    program.require_subcommand(1);
    program.footer("'mediafiles COMMAND --help' explains a command, with examples.");
    const tools::command commands[] = {tools::add_record_command(program), tools::add_repair_command(program),
                                       tools::add_inspect_command(program)};
    return tools::run_program(program, commands, tools::arguments_of(argc, argv));
}
