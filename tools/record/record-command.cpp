#include <algorithm>
#include <cmath>
#include <csignal>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/parseutils.h>
}

#include "tools/command.h"
#include "tools/record/output.h"
#include "tools/record/record.h"

namespace tools {

namespace {

/* Set by the signals that end a recording. */
std::atomic<bool> stop_requested = false;
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr double longest_time = 1e9; // seconds
constexpr uint64_t most_bytes = uint64_t{1} << 62;

/* The options as given on the command line. */
struct record_line {
    std::vector<std::string> inputs;
    std::string output;
    bool keep_journal = false;
    double sync_interval = 1;
    double segment = 0;
    uint64_t segment_bytes = 0;
    uint64_t quota = 0;
    std::optional<uint64_t> keep_free;
    uint64_t queue = 0;
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
  mediafiles record rtsp://camera/1 -o /media/card/{number}.mp4 --segment 60 --quota 20G
  encoder | mediafiles record - --format h264 --fps 25 -o out.mp4 --json

While it runs, out.mp4.journal beside the output names every frame that has
reached the medium: with it an interrupted recording can be repaired.)";

/* Options that were removed: what to use instead. They are not shown by --help. */
void refuse_former_options(CLI::App &line)
{
    constexpr struct {
        const char *name, *instead;
        bool has_value;
    } former[] = {
        {"--journal", "the journal is always OUT.mp4.journal: choose its place with --output", true},
        {"--no-journal", "a recording always has a journal until it is finished; --sync makes syncs less frequent",
         false},
        {"--buffer",
         "the write cache has a fixed size; --sync says how much a power cut may cost, --queue how much may wait in "
         "memory",
         true},
    };
    for (const auto &each : former) {
        const auto refuse = [each](const std::string &) {
            throw CLI::ValidationError(each.name, std::string("removed: ") + each.instead);
        };
        if (each.has_value)
            line.add_option_function<std::string>(each.name, refuse)->group("");
        else
            line.add_flag_callback(each.name, [refuse] { refuse({}); })->group("");
    }
}

void describe(CLI::App &line, record_line &given)
{
    line.footer(examples);
    line.add_option("INPUT", given.inputs, "File or URL that libavformat opens; - is standard input")->required();
    line.add_option("-o,--output", given.output,
                    "The MP4 file to make; with {number} a pattern, of files that go on from the highest number found")
        ->required()
        ->type_name("OUT.mp4");
    line.add_flag("--keep-journal", given.keep_journal, "Keep the journal of a finished recording");
    line.add_option("--sync", given.sync_interval, "Sync media and journal at this interval (default: 1)")
        ->check(CLI::Range(0.0, longest_time))
        ->type_name("SECONDS");
    line.add_option("--segment", given.segment, "Begin a new file, at a key frame, after this much media")
        ->check(CLI::Range(1e-9, longest_time))
        ->type_name("SECONDS");
    const auto add_bytes = [&line](const char *name, auto &bytes, uint64_t least, uint64_t most, const char *what) {
        line.add_option(name, bytes, what)
            ->transform(CLI::AsSizeValue(false))
            ->check(CLI::Range(least, most))
            ->type_name("BYTES");
    };
    add_bytes("--segment-bytes", given.segment_bytes, 1, most_bytes, "Likewise after so many; 100M is 100 MiB");
    add_bytes("--quota", given.quota, 1, most_bytes, "Delete the oldest numbered files beyond so many");
    add_bytes("--keep-free", given.keep_free, 0, most_bytes,
              "Leave so many free on the file system (default: 0; for numbered files 64M)");
    add_bytes("--queue", given.queue, 4096, largest_queue,
              "Memory for frames that wait for the medium (default: 8M, or a picture of the tracks if it is larger)");
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
    refuse_former_options(line);
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
    if (std::isnan(given.sync_interval) || std::isnan(given.segment) || std::isnan(given.duration))
        throw CLI::ValidationError("SECONDS", "not a number");

    if (given.quota != 0 && !place_of(given.output).is_numbered)
        throw CLI::ValidationError("--quota", "only numbered files are deleted: write {number} into --output");
    if (given.overwrite && place_of(given.output).is_numbered)
        throw CLI::ValidationError("--overwrite", "numbered files replace none");

    record_options options;
    for (size_t i = 0; i < given.inputs.size(); ++i) options.inputs.push_back(input_of(given, i));
    options.output = given.output;
    options.keep_journal = given.keep_journal;
    options.sync_interval = std::llround(given.sync_interval * 1e9);
    options.segment = std::llround(given.segment * 1e9);
    options.segment_bytes = static_cast<int64_t>(given.segment_bytes);
    options.quota = static_cast<int64_t>(given.quota);
    if (given.keep_free) options.keep_free = static_cast<int64_t>(*given.keep_free);
    options.queue = static_cast<int64_t>(given.queue);
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
    if (!given.json && !summary.files.empty()) console.note(to_text(summary));
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
