#include <algorithm>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/parseutils.h>
}

#include "tools/command.h"
#include "tools/print.h"
#include "tools/record/output.h"
#include "tools/record/record.h"
#include "tools/record/units.h"

namespace tools {

namespace {

constexpr int64_t longest_time = 1'000'000'000 * second;
constexpr int64_t mebibyte = 1 << 20;
constexpr int64_t most_bytes = int64_t{1} << 62;
constexpr const char *a_time = "a time; write 90, 90s, 2m or 1:30";

std::string is_not(const std::string &text, const char *what)
{
    return "'" + text + "' is not " + what;
}

/* The options as given on the command line. */
struct record_line {
    record_options options;
    std::vector<std::string> inputs;
    /* For every input, or given as often as there are inputs. */
    std::vector<std::string> formats, frame_rates, transports, timeouts, offsets, timestamps;
    /* With the number of an input before it, or for all. */
    std::vector<std::string> input_options, streams;
    bool no_audio = false, no_video = false;
    bool quiet = false;
    bool json = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles record camera.h264 microphone.aac -o out.mp4 --fps 30000/1001
  mediafiles record broadcast.ts -o out.mp4 --sync 0.5 --keep-journal
  mediafiles record rtsp://camera/1 -o /media/card/{number}.mp4 --segment 60s --quota 20GB
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
        {"--journal", "the journal is always OUT.mp4.journal", true},
        {"--no-journal", "the journal is removed when the recording is finished; a longer --sync writes it less often",
         false},
        {"--buffer",
         "the write cache has a fixed size; --queue sets the memory for frames that wait, --sync how much a power cut "
         "may cost",
         true},
    };
    for (const auto &each : former) {
        const auto refuse = [each](const std::string &) {
            throw CLI::ValidationError(each.name, std::string("this option no longer exists; ") + each.instead);
        };
        if (each.has_value)
            line.add_option_function<std::string>(each.name, refuse)->group("");
        else
            line.add_flag_callback(each.name, [refuse] { refuse({}); })->group("");
    }
}

enum class quantity { time, size };

/* Of a limit, which is a whole number of KiB, as an option takes it. */
std::string size_text(int64_t bytes)
{
    return bytes % mebibyte == 0 ? print("%jdM", intmax_t{bytes / mebibyte}) : print("%jdK", intmax_t{bytes / 1024});
}

void check_range(const std::string &option, const std::string &text, quantity kind, int64_t value, int64_t least,
                 int64_t most)
{
    if (value >= least && value <= most) return;
    const int64_t limit = value < least ? least : most;
    const std::string shown = limit == 1               ? "more than 0"
                              : kind == quantity::time ? print("%.9g s", seconds(limit))
                                                       : size_text(limit);
    const char *what = limit == 1      ? "' is too little; "
                       : value < least ? "' is too little; at least "
                                       : "' is too much; at most ";
    throw CLI::ValidationError(option, "'" + text + what + shown);
}

/* An option whose value is a time or a size. */
template <quantity Kind, class Number>
CLI::Option *add_quantity(CLI::App &line, const char *name, Number &value, int64_t least, int64_t most,
                          const char *what)
{
    constexpr bool is_time = Kind == quantity::time;
    const auto take = [name = std::string(name).substr(std::string_view(name).find("--")), &value, least,
                       most](const std::string &text) {
        const auto given = Kind == quantity::time ? time_of(text) : size_of(text);
        if (!given)
            throw CLI::ValidationError(
                name, is_not(text, is_time ? a_time : "a size; write 20000000, 512M, 500MB, 20GB or 512MiB"));
        check_range(name, text, Kind, *given, least, most);
        value = *given;
    };
    return line.add_option_function<std::string>(name, take, what)->type_name(is_time ? "TIME" : "BYTES");
}

/* A segment ends by its length or its size, or by both when it is given twice. */
void take_segment(record_options &options, const std::vector<std::string> &given)
{
    for (const std::string &text : given) {
        const auto time = text.ends_with('M') ? std::nullopt : time_of(text), size = size_of(text); // 5m is a time
        const auto value = time ? time : size;
        if (!value) throw CLI::ValidationError("--segment", is_not(text, "a time (60s) or a size (500MB)"));
        check_range("--segment", text, time ? quantity::time : quantity::size, *value, 1,
                    time ? longest_time : most_bytes);
        (time ? options.segment : options.segment_bytes) = *value;
    }
}

void describe_files(CLI::App &line, record_options &options)
{
    line.add_option("-o,--output", options.output,
                    "The MP4 file to make; with {number} a pattern, of files that go on from the highest number found")
        ->required()
        ->type_name("OUT.mp4");
    line.add_flag("--keep-journal", options.keep_journal, "Keep the journal of a finished recording");
    add_quantity<quantity::time>(line, "--sync", options.sync_interval, 0, longest_time,
                                 "Sync media and journal at this interval (default: 1s)");
    line.add_option_function<std::vector<std::string>>(
            "--segment", [&options](const std::vector<std::string> &given) { take_segment(options, given); },
            "Begin a new file, at a key frame, after this much media: a time (60s) or a size (500MB)")
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false)
        ->type_name("TIME|BYTES");
    add_quantity<quantity::size>(line, "--segment-bytes", options.segment_bytes, 1, most_bytes,
                                 "The same as --segment with a size");
    add_quantity<quantity::size>(line, "--quota", options.quota, 1, most_bytes,
                                 "Delete the oldest numbered files beyond so many");
    add_quantity<quantity::size>(line, "--keep-free", options.keep_free, 0, most_bytes,
                                 "Leave so many free on the file system (default: 0; for numbered files 64M)");
    add_quantity<quantity::size>(
        line, "--queue", options.queue, 4096, largest_queue,
        "Memory for frames that wait for the medium (default: 8M, or a picture of the tracks if it is larger)");
    add_quantity<quantity::time>(line, "--pre-event", options.pre_event, 1, longest_time,
                                 "Make files by events (SIGUSR1) alone, each with so much from before the event");
    add_quantity<quantity::size>(line, "--pre-event-memory", options.pre_event_bytes, 65536, largest_queue,
                                 "Memory for that (default: 64M)");
    add_quantity<quantity::time>(line, "--protect-before", options.protect_before, 0, longest_time,
                                 "An event (SIGUSR1) protects files of so much time before it (default: 30s)");
    add_quantity<quantity::time>(line, "--protect-after", options.protect_after, 0, longest_time,
                                 "Likewise after it; with --pre-event its file lasts so long (default: 30s)");
    line.add_flag("-y,--overwrite", options.overwrite, "Replace an existing output and journal");
}

void describe_inputs(CLI::App &line, record_line &given)
{
    line.add_option("INPUT", given.inputs, "File or URL that libavformat opens; - is standard input")->required();
    line.add_option_function<std::string>(
            "--retry",
            [&given](const std::string &when) {
                if (when != "forever" && when != "never")
                    throw CLI::ValidationError("--retry", is_not(when, "one of forever, never"));
                given.options.retry = when == "forever";
            },
            "Whether sources that come and go are waited for and opened again (default: forever)")
        ->type_name("forever|never");
    const auto add = [&line](const char *name, std::vector<std::string> &values, const char *type, const char *what) {
        line.add_option(name, values, what)->expected(1)->take_all()->allow_extra_args(false)->type_name(type);
    };
    add("--format", given.formats, "NAME", "Input format; once for all inputs, or once for each in turn");
    add("--fps", given.frame_rates, "N", "Frame rate of video without timestamps (29.97, 30000/1001); likewise");
    add("--rtsp-transport", given.transports, "tcp|udp|http", "How RTSP brings the media (default: tcp); likewise");
    add("--timeout", given.timeouts, "TIME",
        "Without data for so long, that is reported and a connection opened again (default: 5s); likewise");
    add("--input-offset", given.offsets, "TIME", "Record its frames so much later, or earlier; likewise");
    add("--timestamps", given.timestamps, "input|arrival",
        "Where the times of frames are from (default: input); likewise");
    add("--input-option", given.input_options, "[N:]KEY=VALUE",
        "An option of libavformat, for input N (from 0) or for all; may be repeated");
    add("--map", given.streams, "[N:]STREAM",
        "Record this stream of input N (from 0), or of all: a number, v, a, v:0 ...; may be repeated");
    line.add_flag("--no-audio", given.no_audio, "Record no sound");
    line.add_flag("--no-video", given.no_video, "Record no video");
}

void describe(CLI::App &line, record_line &given)
{
    line.footer(examples);
    describe_inputs(line, given);
    describe_files(line, given.options);
    add_quantity<quantity::time>(line, "-t,--duration", given.options.duration, 1, longest_time,
                                 "Stop after this much media");
    line.add_flag("--realtime", given.options.realtime, "Record no faster than the frames' times");
    line.add_option(
            "--status", given.options.status,
            "Write a line of JSON on what it is doing: into FILE, which holds the latest, or to standard output")
        ->type_name("FILE|-");
    add_quantity<quantity::time>(line, "--status-interval", given.options.status_interval, second / 10, longest_time,
                                 "How often (default: 5s)");
    line.add_option_function<std::string>(
            "--config", [](const std::string &) {}, "Read options from FILE, one in a line as they stand here")
        ->type_name("FILE"); // they are in the line already
    line.add_flag("--quiet", given.quiet, "Print errors only");
    line.add_flag("--json", given.json, "Print the summary as a JSON object on standard output");
    refuse_former_options(line);
}

/* What was given for one of the inputs. */
const std::string *value_for(size_t input, size_t inputs, const std::vector<std::string> &values, const char *option)
{
    if (values.empty()) return nullptr;
    if (values.size() != 1 && values.size() != inputs)
        throw CLI::ValidationError(option,
                                   print("%zu values for %zu %s; give it once for all, or once for each in turn",
                                         values.size(), inputs, inputs == 1 ? "input" : "inputs"));
    return &values[values.size() == 1 ? 0 : input];
}

/* "2:VALUE" is for the input 2: how many digits that number has. A value for all begins with a letter, or has no colon. */
size_t digits_of_input(const std::string &value)
{
    const size_t digits = value.find_first_not_of("0123456789");
    return digits == std::string::npos || value[digits] != ':' ? 0 : digits;
}

std::optional<std::string> if_for(size_t input, const std::string &value)
{
    const size_t digits = digits_of_input(value);
    if (digits == 0) return value;
    if (value.substr(0, digits) != std::to_string(input)) return std::nullopt;
    return value.substr(digits + 1);
}

void check_inputs_of(const char *option, const std::vector<std::string> &values, size_t inputs)
{
    for (const std::string &value : values) {
        const std::string number = value.substr(0, digits_of_input(value));
        if (!number.empty() && (number.size() > 4 || std::stoul(number) >= inputs))
            throw CLI::ValidationError(option, "'" + value + "' is for input " + number + "; the last one is " +
                                                   std::to_string(inputs - 1));
    }
}

/* A field that is not replaced would stand in the file's name. */
void check_fields(const std::string &output)
{
    for (const char *field : {"%Y", "%m", "%d", "%H", "%M", "%S", "{n", "{N"})
        if (output.find(field) != std::string::npos)
            throw CLI::ValidationError("--output", "'" + output + "' has " + field + (field[0] == '{' ? "...}" : "") +
                                                       ", but no {number}; fields are for numbered files");
}

void take_input_option(input_options &options, const std::string &text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        throw CLI::ValidationError("--input-option", is_not(text, "KEY=VALUE; write it as rtsp_flags=prefer_tcp"));
    options.options[text.substr(0, equals)] = text.substr(equals + 1);
}

void take_stream(input_options &options, const std::string &text)
{
    const bool is_kind = text == "v" || text == "a" || text.starts_with("v:") || text.starts_with("a:");
    const std::string number = !is_kind ? text : text.size() > 2 ? text.substr(2) : "0";
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos)
        throw CLI::ValidationError("--map", is_not(text, "a stream; write its number, v, a, v:0 or a:0"));
    options.streams.push_back(text);
}

int64_t time_for(const std::string &text, const char *option, int64_t least)
{
    const auto time = time_of(text);
    if (!time) throw CLI::ValidationError(option, is_not(text, a_time));
    check_range(option, text, quantity::time, *time, least, longest_time);
    return *time;
}

input_options input_of(const record_line &given, size_t index)
{
    const auto value = [&](const std::vector<std::string> &values, const char *option) {
        return value_for(index, given.inputs.size(), values, option);
    };
    input_options result;
    result.name = given.inputs[index];
    result.no_audio = given.no_audio;
    result.no_video = given.no_video;
    if (const auto *format = value(given.formats, "--format")) {
        result.format = av_find_input_format(format->c_str());
        if (!result.format)
            throw CLI::ValidationError(
                "--format", is_not(*format, "an input format of libavformat; examples: h264, hevc, aac, mpegts"));
    }
    if (const auto *text = value(given.frame_rates, "--fps")) {
        AVRational rate;
        if (av_parse_video_rate(&rate, text->c_str()) < 0)
            throw CLI::ValidationError("--fps", is_not(*text, "a frame rate; write 25, 29.97 or 30000/1001"));
        result.frame_rate = rational{rate.num, rate.den};
    }
    if (const auto *transport = value(given.transports, "--rtsp-transport")) {
        if (*transport != "tcp" && *transport != "udp" && *transport != "http")
            throw CLI::ValidationError("--rtsp-transport", is_not(*transport, "one of tcp, udp, http"));
        if (result.name.starts_with("rtsp")) result.options["rtsp_transport"] = *transport;
    }
    if (const auto *text = value(given.timeouts, "--timeout"))
        result.timeout = std::chrono::nanoseconds(time_for(*text, "--timeout", second / 10));
    if (const auto *text = value(given.offsets, "--input-offset"))
        result.offset = time_for(*text, "--input-offset", -longest_time);
    if (const auto *text = value(given.timestamps, "--timestamps")) {
        if (*text != "input" && *text != "arrival")
            throw CLI::ValidationError("--timestamps", is_not(*text, "one of input, arrival"));
        result.by_arrival = *text == "arrival";
    }
    for (const std::string &each : given.input_options)
        if (const auto own = if_for(index, each)) take_input_option(result, *own);
    for (const std::string &each : given.streams)
        if (const auto own = if_for(index, each)) take_stream(result, *own);
    return result;
}

record_options checked(const record_line &given)
{
    record_options options = given.options;
    if (options.output == "-")
        throw CLI::ValidationError("--output", "an MP4 file cannot be written to standard output; name a file");
    if (std::ranges::count(given.inputs, "-") > 1)
        throw CLI::ValidationError("INPUT", "standard input (-) can be read by one input only");
    const bool is_numbered = place_of(options.output).is_numbered;
    if (options.quota != 0 && !is_numbered)
        throw CLI::ValidationError("--quota",
                                   "only numbered files are deleted; write {number} into the name of --output");
    if (options.overwrite && is_numbered)
        throw CLI::ValidationError(
            "--overwrite", "numbered files never replace others; leave it out, or name one file without {number}");
    if (!is_numbered) check_fields(options.output);
    check_inputs_of("--input-option", given.input_options, given.inputs.size());
    check_inputs_of("--map", given.streams, given.inputs.size());
    if (given.no_audio && given.no_video)
        throw CLI::ValidationError("--no-audio", "with --no-video as well nothing is left to record");
    for (size_t i = 0; i < given.inputs.size(); ++i) options.inputs.push_back(input_of(given, i));
    return options;
}

int run(const record_line &given, int result_descriptor)
{
    const record_options options = checked(given);
    console console("record", given.quiet);
    signals signals;                // before any thread is started
    av_log_set_level(AV_LOG_QUIET); // its errors come back as results
    avformat_network_init();

    const recording_summary summary = record(options, console, signals, result_descriptor);
    if (!given.json && !summary.files.empty()) console.note(to_text(summary));
    if (given.json && !console.result(result_descriptor, to_json(summary))) return failed;
    if (summary.stopped_by == stop_reason::lost) return source_lost;
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
