#include "tools/program.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <mediafiles/version.h>

#include "tools/print.h"

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

/* How many letters are to be changed, added or left out. */
size_t distance(std::string_view from, std::string_view to)
{
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (from[i] != to[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/* " Did you mean X?", or nothing when none is near. A letter stands for the first option that begins with it. */
std::string suggestion(const std::string &given, const std::vector<std::string> &known)
{
    const auto far = [&](const std::string &each) { return distance(given, each); };
    const auto begins = [&](const std::string &each) { return given.size() == 2 && each.starts_with('-' + given); };
    auto nearest = std::ranges::find_if(known, begins);
    const bool is_letter = nearest != known.end();
    if (!is_letter) nearest = std::ranges::min_element(known, {}, far);
    const bool is_near = is_letter || (nearest != known.end() && far(*nearest) <= 1 + given.size() / 4);
    return is_near ? " Did you mean " + *nearest + "?" : "";
}

std::vector<std::string> options_of(const CLI::App &line)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : line.get_options())
        for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
    return names;
}

/* The command that the line names, or the program. */
const CLI::App &chosen_line(const CLI::App &program)
{
    const auto chosen = program.get_subcommands();
    return chosen.empty() ? program : *chosen.front();
}

int complain(const CLI::App &program, const std::string &what)
{
    const std::string &name = program.get_name(), &command = chosen_line(program).get_name();
    const bool has_command = command != name;
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", (has_command ? name + ": " + command : name).c_str(),
                 printable(what).c_str(), (has_command ? name + " " + command : name).c_str());
    return wrong_usage;
}

/* What is wrong with the line; an option that is not known is named, with the nearest that is. */
std::string explain(const CLI::App &program, const CLI::ParseError &error)
{
    const CLI::App &line = chosen_line(program);
    for (const std::string &left : program.remaining(true)) {
        if (!left.starts_with("-")) continue;
        const std::string option = left.substr(0, left.find('='));
        return "there is no option " + option + "." + suggestion(option, options_of(line));
    }
    std::string what = error.what();
    const std::string subject = what.substr(0, what.find_first_of(": "));
    const CLI::Option *option = line.get_option_no_throw(subject);
    if (error.get_name() == "ArgumentMismatch" && option) return subject + " needs a value: " + option->get_type_name();
    if (error.get_name() != "RequiredError") return what;
    return option ? subject + " is missing" : "a command is missing: record, repair or inspect";
}

/* Empty for a line that begins with a command, or with an option. */
std::string unknown_command(const CLI::App &program, const std::vector<std::string> &line)
{
    if (program.get_require_subcommand_min() == 0 || line.empty() || line[0].starts_with("-")) return {};
    std::vector<std::string> known = {"help"};
    for (const CLI::App *each : program.get_subcommands([](const CLI::App *) { return true; }))
        known.push_back(each->get_name());
    if (std::ranges::find(known, line[0]) != known.end()) return {};
    return "there is no command " + line[0] + "." + suggestion(line[0], known);
}

} // namespace

int run_program(CLI::App &program, std::span<const command> commands, std::vector<std::string> line)
{
    fill_standard_descriptors();
    program.set_version_flag("--version", program.get_name() + " " MEDIAFILES_VERSION);
    if (!line.empty() && line[0] == "help" && program.get_require_subcommand_min() > 0) {
        line.erase(line.begin());
        line.emplace_back("--help");
    }
    if (const std::string what = unknown_command(program, line); !what.empty()) return complain(program, what);
    try {
        std::ranges::reverse(line); // as it is taken
        program.parse(line);
        const int result_descriptor = reserve_output();
        for (const command &each : commands)
            if (each.line->parsed()) return each.run(result_descriptor);
    } catch (const CLI::Success &wanted) {
        return program.exit(wanted); // --help, --version
    } catch (const CLI::ParseError &error) {
        return complain(program, explain(program, error));
    }
    return wrong_usage;
}

} // namespace tools
