/**
 * The program mediafiles. Each subcommand describes its part of the command
 * line and then runs with standard output reserved for its result: the
 * library prints to descriptor 1, which goes to standard error from here on.
 */
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include <mediafiles/version.h>

#include "tools/command.h"

namespace {

/* When the caller has closed a descriptor below 3, it must not become a media file: lines are printed to it. */
void fill_standard_descriptors()
{
    int descriptor;
    do descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) close(descriptor);
}

int complain(const CLI::ParseError &error)
{
    std::fprintf(stderr, "mediafiles: %s\nTry 'mediafiles --help' or 'mediafiles COMMAND --help'.\n", error.what());
    return tools::wrong_usage;
}

} // namespace

int main(int argc, char **argv)
{
    fill_standard_descriptors();
    CLI::App program("Records encoded audio and video into MP4 files that survive a power cut", "mediafiles");
    program.set_version_flag("--version", "mediafiles " MEDIAFILES_VERSION);
    program.require_subcommand(1);
    program.footer("'mediafiles COMMAND --help' explains a command, with examples.");
    const tools::command commands[] = {tools::add_record_command(program), tools::add_repair_command(program),
                                       tools::add_inspect_command(program)};

    try {
        program.parse(argc, argv);
        const int result_descriptor = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        for (const tools::command &each : commands)
            if (each.line->parsed()) return each.run(result_descriptor);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted); // --help, --version
    } catch (const CLI::ParseError &error) {
        return complain(error);
    }
    return tools::wrong_usage;
}
