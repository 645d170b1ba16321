/** The program mediafiles-repair: the repair alone, for devices, without what recording needs. */
#include "tools/program.h"

int main(int argc, char **argv)
{
    CLI::App program("Makes recordings that were cut off play again", "mediafiles-repair");
    const tools::command commands[] = {tools::describe_repair(program)};
    return tools::run_program(program, commands, tools::arguments_of(argc, argv));
}
