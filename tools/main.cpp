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
    const auto end = [](const tools::failure &cause, int result) {
        std::fprintf(stderr, "mediafiles: record: %s\n%s", tools::printable(cause.what()).c_str(),
                     result == tools::wrong_usage ? "Try 'mediafiles record --help'.\n" : "");
        return result;
    };
    try {
        line = tools::with_config(line);
    } catch (const tools::wrong_line &cause) {
        return end(cause, tools::wrong_usage);
    } catch (const tools::failure &cause) {
        return end(cause, tools::failed);
    }
    return tools::run_program(program, commands, std::move(line));
}
