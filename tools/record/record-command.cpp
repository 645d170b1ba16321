#include <algorithm>
#include <cmath>
#include <csignal>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/parseutils.h>
}

#include "tools/command.h"
#include "tools/journal-name.h"
#include "tools/record/record.h"

namespace tools {

namespace {

/* Set by the signals that end a recording. */
std::atomic<bool> stop_requested = false;
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr double longest_time = 1e9; // seconds

/* The options as given on the command line. */
struct record_line {
    std::vector<std::string> inputs;
    std::string output;
    std::string journal;
    bool no_journal = false;
    bool keep_journal = false;
    uint64_t buffer = 65536;
    double sync_interval = 1;
    double duration = 0;
    bool realtime = false;
    std::vector<std::string> formats;
    std::vector<std::string> frame_rates;
    bool overwrite = false;
    bool quiet = false;
    bool json = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles record camera.h264 microphone.aac -o out.mp4 --fps 30000/1001
  mediafiles record broadcast.ts -o out.mp4 --sync 0.5 --keep-journal
  encoder | mediafiles record - --format h264 --fps 25 -o out.mp4 --json

While it runs, out.mp4.journal beside the output names every frame that has
reached the medium: with it an interrupted recording can be repaired.)";

void describe(CLI::App &line, record_line &given)
{
    line.footer(examples);
    line.add_option("INPUT", given.inputs, "File or URL that libavformat opens; - is standard input")->required();
    line.add_option("-o,--output", given.output, "The MP4 file to make")->required()->type_name("OUT.mp4");
    auto *journal = line.add_option("--journal", given.journal, "The journal file (default: OUT.mp4.journal)");
    journal->type_name("FILE");
    auto *none = line.add_flag("--no-journal", given.no_journal, "Keep no journal: an interrupted recording is lost");
    auto *keep = line.add_flag("--keep-journal", given.keep_journal, "Keep the journal of a finished recording");
    none->excludes(journal)->excludes(keep);
    line.add_option("--buffer", given.buffer, "Size of the write cache, 0 for none (default: 65536)")
        ->check(CLI::Range(uint64_t{0}, uint64_t{1} << 31))
        ->type_name("BYTES");
    line.add_option("--sync", given.sync_interval, "Sync media and journal at this interval (default: 1)")
        ->check(CLI::Range(0.0, longest_time))
        ->type_name("SECONDS");
    line.add_option("--duration", given.duration, "Stop after this much media")
        ->check(CLI::Range(1e-9, longest_time))
        ->type_name("SECONDS");
    line.add_flag("--realtime", given.realtime, "Record no faster than the frames' times");
    /* These two are for every input, or given as often as there are inputs. */
    line.add_option("--format", given.formats, "Input format; once for all inputs, or once for each in turn")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false)
        ->type_name("NAME");
    line.add_option("--fps", given.frame_rates, "Frame rate of video without timestamps (29.97, 30000/1001); likewise")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false)
        ->type_name("N");
    line.add_flag("--overwrite", given.overwrite, "Replace an existing output and journal");
    line.add_flag("--quiet", given.quiet, "Print errors only");
    line.add_flag("--json", given.json, "Print the summary as a JSON object on standard output");
}

/* What was given for one of the inputs. */
const std::string *value_for(size_t input, size_t inputs, const std::vector<std::string> &values, const char *option)
{
    if (values.empty()) return nullptr;
    if (values.size() != 1 && values.size() != inputs)
        throw CLI::ValidationError(option, "give it once for all inputs or once for each");
    return &values[values.size() == 1 ? 0 : input];
}

input_options input_of(const record_line &given, size_t index)
{
    input_options result;
    result.name = given.inputs[index];
    if (const auto *format = value_for(index, given.inputs.size(), given.formats, "--format")) {
        result.format = av_find_input_format(format->c_str());
        if (!result.format) throw CLI::ValidationError("--format", "unknown format " + *format);
    }
    if (const auto *text = value_for(index, given.inputs.size(), given.frame_rates, "--fps")) {
        AVRational rate;
        if (av_parse_video_rate(&rate, text->c_str()) < 0)
            throw CLI::ValidationError("--fps", "not a frame rate: " + *text);
        result.frame_rate = rational{rate.num, rate.den};
    }
    return result;
}

record_options checked(const record_line &given)
{
    if (given.output == "-") throw CLI::ValidationError("--output", "an MP4 cannot be written to standard output");
    if (std::ranges::count(given.inputs, "-") > 1) throw CLI::ValidationError("INPUT", "- can be given once");
    if (std::isnan(given.sync_interval) || std::isnan(given.duration))
        throw CLI::ValidationError("SECONDS", "not a number");

    record_options options;
    for (size_t i = 0; i < given.inputs.size(); ++i) options.inputs.push_back(input_of(given, i));
    options.output = given.output;
    if (!given.no_journal) options.journal = given.journal.empty() ? journal_of(given.output) : given.journal;
    options.keep_journal = given.keep_journal;
    options.buffer = static_cast<uint32_t>(given.buffer);
    options.sync_interval = std::chrono::nanoseconds(std::llround(given.sync_interval * 1e9));
    if (given.duration > 0) options.duration = std::llround(given.duration * 1e9);
    options.realtime = given.realtime;
    options.overwrite = given.overwrite;
    return options;
}

void handle_signals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { stop_requested = true; };
    for (const int ends : {SIGINT, SIGTERM}) sigaction(ends, &action, nullptr);
    /* A full or broken output shows as an error of the write. */
    action.sa_handler = SIG_IGN;
    for (const int ignored : {SIGXFSZ, SIGPIPE}) sigaction(ignored, &action, nullptr);
}

int run(const record_line &given, int result_descriptor)
{
    const record_options options = checked(given);
    handle_signals();
    av_log_set_level(AV_LOG_FATAL); // its errors come back as results

    console console("record", given.quiet);
    const recording_summary summary = record(options, console, stop_requested);
    if (!given.json && summary.bytes != 0) console.note(to_text(summary));
    if (given.json && !console.result(result_descriptor, to_json(summary))) return failed;
    return summary.error ? failed : done;
}

} // namespace

command add_record_command(CLI::App &program)
{
    CLI::App *line = program.add_subcommand("record", "Record encoded audio and video into an MP4 file");
    auto given = std::make_shared<record_line>();
    describe(*line, *given);
    return {line, [given](int result_descriptor) { return run(*given, result_descriptor); }};
}

} // namespace tools
