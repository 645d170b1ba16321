#include "tools/program.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include <mediafiles/version.h>

namespace tools {

namespace {

/* When the caller has closed a descriptor below 3, it must not become a media file: lines are printed to it. */
void fill_standard_descriptors()
{
    int descriptor;
    do descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) close(descriptor);
}

/* The caller's standard output, for the result; -1 with errno. What the libraries print to descriptor 1 is discarded. */
int reserve_output()
{
    const int result = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null >= 0 ? null : STDERR_FILENO, STDOUT_FILENO);
    if (null >= 0) close(null);
    return result;
}

int complain(const CLI::App &program, const CLI::ParseError &error)
{
    const char *name = program.get_name().c_str();
    std::fprintf(stderr, "%s: %s\nTry '%s --help'%s.\n", name, error.what(), name,
                 program.get_require_subcommand_min() > 0 ? " or 'mediafiles COMMAND --help'" : "");
    return wrong_usage;
}

} // namespace

int run_program(CLI::App &program, std::span<const command> commands, int argc, char **argv)
{
    fill_standard_descriptors();
    program.set_version_flag("--version", program.get_name() + " " MEDIAFILES_VERSION);
    try {
        program.parse(argc, argv);
        const int result_descriptor = reserve_output();
        for (const command &each : commands)
            if (each.line->parsed()) return each.run(result_descriptor);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted); // --help, --version
    } catch (const CLI::ParseError &error) {
        return complain(program, error);
    }
    return wrong_usage;
}

} // namespace tools
