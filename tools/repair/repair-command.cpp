#include <cerrno>
#include <csignal>
#include <filesystem>

#include <mediafiles/recovery.h>

#include "tools/command.h"
#include "tools/console.h"
#include "tools/failure.h"
#include "tools/print.h"
#include "tools/repair/repair-report.h"

namespace tools {

namespace {

constexpr int nothing_to_do = 3; // exit code

/* The options as they stand on the command line. */
struct repair_line {
    std::vector<std::string> paths;
    std::string journal;
    std::string output;
    uint32_t flags = 0; // MEDIAFILES_
    bool json = false;
    bool quiet = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles repair out.mp4
  mediafiles repair /media/card --json
  mediafiles repair /media/card --output /home/me/evidence --hash
  mediafiles repair out.mp4 --dry-run

It can be cut off at any moment and repeated. Exit codes: 0 all is well, 1 a
file could not be repaired, 2 wrong usage, 3 there was nothing to do.)";

struct flag {
    const char *name;
    uint32_t value;
    const char *text;
};

constexpr flag flags[] = {
    {"--drop-last-frame", MEDIAFILES_DROP_LAST_FRAME,
     "Leave out the last video frame, which may be incomplete, and what was recorded after it"},
    {"--salvage", MEDIAFILES_SALVAGE, "Where journal or media is damaged, keep what stands before that"},
    {"--keep-damaged", MEDIAFILES_KEEP_DAMAGED,
     "Keep all frames that the journal names, and list those that are damaged"},
    {"--force", MEDIAFILES_FORCE, "Cut off or add even more than 64 MiB and half of the media"},
    {"--check-all", MEDIAFILES_CHECK_ALL, "Look into every video frame, not only into 256 of them"},
    {"--dry-run", MEDIAFILES_DRY_RUN, "Change nothing; say what would come out"},
    {"--keep-journal", MEDIAFILES_KEEP_JOURNAL, "Keep the journal of a repaired file"},
    {"--hash", MEDIAFILES_HASH, "Report the SHA-256 of what was read and of what was made"},
};

void describe(CLI::App &line, repair_line &given)
{
    line.footer(examples);
    line.add_option("PATH", given.paths, "A recording that was cut off, or a directory to search for them")->required();
    line.add_option("--journal", given.journal, "The journal of the one PATH (default: PATH.journal)")
        ->type_name("FILE");
    line.add_option("--output", given.output, "Repair copies in this directory; nothing is written elsewhere")
        ->type_name("DIR");
    for (const flag &each : flags) {
        const uint32_t value = each.value;
        line.add_flag_callback(
            each.name, [&given, value] { given.flags |= value; }, each.text);
    }
    line.add_flag("--json", given.json, "Print the results as a JSON object on standard output");
    line.add_flag("--quiet", given.quiet, "Say nothing but what went wrong");
}

void check(const repair_line &given)
{
    std::error_code ignored;
    if (!given.journal.empty() && (given.paths.size() != 1 || std::filesystem::is_directory(given.paths[0], ignored)))
        throw CLI::ValidationError("--journal", "it is for one file; give one PATH, which is not a directory");
    if (!given.output.empty() && !std::filesystem::is_directory(given.output, ignored))
        throw CLI::ValidationError("--output", "'" + given.output + "' is not a directory; make it first");
}

/* Set by a signal: the copy that is being made goes away, then the program ends. */
volatile std::sig_atomic_t stopped = 0;

void handle_signals()
{
    struct sigaction action = {};
    action.sa_handler = SIG_IGN; // a full medium or broken output shows as an error of the write
    for (const int number : {SIGXFSZ, SIGPIPE}) sigaction(number, &action, nullptr);
    action.sa_handler = [](int) { stopped = 1; };
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

struct repair_run {
    explicit repair_run(const repair_line &line) : given(line), out("repair", line.quiet) {}

    const repair_line &given;
    console out;
    repair_counts counts;
    ordered_json files = ordered_json::array();

    bool dry_run() const { return given.flags & MEDIAFILES_DRY_RUN; }

    void take(const mediafiles_report &report)
    {
        ++counts.of[report.result];
        if (const std::string problem = problem_of(report); !problem.empty())
            out.problem(problem);
        else
            out.note(printable(to_text(report, dry_run())));
        if (given.json) files.push_back(to_json(report));
    }

    void show(uint64_t done, uint64_t total)
    {
        if (total != 0 && out.wants_progress()) out.progress("copying: " + std::to_string(done * 100 / total) + " %");
    }
};

int follow(void *context, uint64_t done, uint64_t total)
{
    static_cast<repair_run *>(context)->show(done, total);
    return stopped;
}

int take_report(void *context, const mediafiles_report *report)
{
    static_cast<repair_run *>(context)->take(*report);
    return stopped;
}

int run(const repair_line &given, int result_descriptor)
{
    check(given);
    handle_signals();
    repair_run all(given);
    const mediafiles_recover_options options = {
        .size = sizeof options,
        .flags = given.flags,
        .journal = given.journal.empty() ? nullptr : given.journal.c_str(),
        .output = given.output.empty() ? nullptr : given.output.c_str(),
        .progress = follow,
        .progress_context = &all,
    };
    std::vector<const char *> paths;
    for (const std::string &path : given.paths) paths.push_back(path.c_str());
    const int error = mediafiles_recover(paths.data(), paths.size(), &options, take_report, &all) == 0 ? 0 : errno;
    if (stopped)
        all.out.problem("stopped by a signal: it can be repeated; what was repaired stays so");
    else if (error == ENOMEM || (error != 0 && all.counts.troubled() == 0)) // others were reported
        all.out.problem(std::string("cannot search: ") + std::strerror(error));

    all.out.note(total_of(all.counts, all.dry_run()));
    if (given.json && !all.out.result(result_descriptor, to_json(all.files, all.counts, all.dry_run()))) return failed;
    if (error != 0 || all.counts.troubled() != 0) return failed;
    return all.counts.changed() == 0 ? nothing_to_do : done;
}

} // namespace

command describe_repair(CLI::App &line)
{
    auto given = std::make_shared<repair_line>();
    describe(line, *given);
    return {&line, [given](int result_descriptor) { return run(*given, result_descriptor); }};
}

command add_repair_command(CLI::App &program)
{
    return describe_repair(*program.add_subcommand("repair", "Make recordings that were cut off play again"));
}

} // namespace tools
