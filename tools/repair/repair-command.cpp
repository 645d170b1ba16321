#include <algorithm>
#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "tools/command.h"
#include "tools/journal.h"
#include "tools/repair/repair-report.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr int nothing_to_do = 3; // exit code

/* The options as given on the command line. */
struct repair_line {
    std::vector<std::string> paths;
    std::string journal;
    std::string output;
    repair_options options;
    bool json = false;
    bool quiet = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles repair out.mp4
  mediafiles repair /media/card --json
  mediafiles repair out.mp4 --output /tmp --drop-last-frame
  mediafiles repair out.mp4 --dry-run

A repair can be interrupted at any moment and repeated. Exit codes: 0 all is well, 1 a
file could not be repaired, 2 wrong usage, 3 there was nothing to do.)";

void describe(CLI::App &line, repair_line &given)
{
    repair_options &options = given.options;
    line.footer(examples);
    line.add_option("PATH", given.paths, "A recording that was cut off, or a directory to search for them")->required();
    line.add_option("--journal", given.journal, "The journal of the one PATH (default: PATH.journal)")
        ->type_name("FILE");
    line.add_option("--output", given.output, "Repair a copy in this directory; file and journal stay as they are")
        ->type_name("DIR");
    line.add_flag("--drop-last-frame", options.drop_last_frame,
                  "Leave out the last video frame, which may be incomplete, and what was recorded after it");
    line.add_flag("--salvage", options.salvage, "Where the journal is damaged, use what is before that");
    line.add_flag("--force", options.force, "Repair even when more than half of the media will be cut off or added");
    line.add_flag("--dry-run", options.dry_run, "Change nothing; show what the result would be");
    line.add_flag("--keep-journal", options.keep_journal, "Keep the journal of a repaired file");
    line.add_flag("--json", given.json, "Print the results as a JSON object on standard output");
    line.add_flag("--quiet", given.quiet, "Print errors only");
}

repair_options checked(const repair_line &given)
{
    std::error_code ignored;
    if (!given.journal.empty() && (given.paths.size() != 1 || fs::is_directory(given.paths[0], ignored)))
        throw CLI::ValidationError("--journal", "it is for one file");
    repair_options options = given.options;
    if (!given.journal.empty()) options.journal = given.journal;
    if (!given.output.empty()) {
        if (!fs::is_directory(given.output, ignored))
            throw CLI::ValidationError("--output", "not a directory: " + given.output);
        options.output = given.output;
    }
    return options;
}

struct found_file {
    std::string path;
    fs::file_time_type time; // of its last change; the earliest when that is unknown
};

found_file dated(const fs::path &path)
{
    std::error_code error;
    const auto time = fs::last_write_time(path, error);
    return {path, error ? fs::file_time_type::min() : time};
}

bool is_recording(const fs::directory_entry &entry)
{
    std::error_code error;
    if (!entry.is_regular_file(error)) return false;
    std::string extension = entry.path().extension();
    const auto lower = [](unsigned char c) { return static_cast<char>(std::tolower(c)); };
    std::ranges::transform(extension, extension.begin(), lower);
    return extension == ".mp4" || fs::is_regular_file(journal_of(entry.path()), error);
}

/* Every file that may need a repair, newest first. A directory that cannot be read is reported. */
std::vector<found_file> find(const std::vector<std::string> &paths, console &console, bool &unsearched)
{
    std::vector<found_file> found;
    for (const std::string &path : paths) {
        std::error_code error;
        if (!fs::is_directory(path, error)) {
            found.push_back(dated(path));
            continue;
        }
        for (fs::recursive_directory_iterator at(path, fs::directory_options::skip_permission_denied, error), end;
             !error && at != end; at.increment(error))
            if (is_recording(*at)) found.push_back(dated(at->path()));
        if (!error) continue;
        console.problem("cannot search: " + path + ": " + error.message());
        unsearched = true;
    }
    std::ranges::stable_sort(found, std::ranges::greater{}, &found_file::time);
    return found;
}

int run(const repair_line &given, int result_descriptor)
{
    const repair_options options = checked(given);
    /* A full medium or broken output shows as an error of the write. */
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    for (const int number : {SIGXFSZ, SIGPIPE}) sigaction(number, &ignore, nullptr);

    console console("repair", given.quiet);
    bool failures = false;
    const std::vector<found_file> files = find(given.paths, console, failures);
    std::vector<repair_report> reports;
    for (const found_file &file : files) {
        if (console.wants_progress())
            console.progress("file " + std::to_string(reports.size() + 1) + " of " + std::to_string(files.size()) +
                             ": " + file.path);
        const repair_report &report = reports.emplace_back(repair(file.path, options, console));
        if (!report.problem.empty())
            console.problem(report.problem);
        else
            console.note(to_text(report, options.dry_run));
        failures = failures || !report.problem.empty();
    }
    console.note(total_of(reports, options.dry_run));
    if (given.json && !console.result(result_descriptor, to_json(reports, options.dry_run))) return failed;
    if (failures) return failed;
    const auto repaired = std::ranges::count(reports, repair_result::repaired, &repair_report::result);
    return repaired == 0 ? nothing_to_do : done;
}

} // namespace

command add_repair_command(CLI::App &program)
{
    CLI::App *line = program.add_subcommand("repair", "Make recordings that were cut off play again");
    auto given = std::make_shared<repair_line>();
    describe(*line, *given);
    return {line, [given](int result_descriptor) { return run(*given, result_descriptor); }};
}

} // namespace tools
