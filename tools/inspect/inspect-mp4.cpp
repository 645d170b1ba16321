#include "tools/inspect/inspect.h"

#include <algorithm>

#include <fcntl.h>

#include <mediafiles/recovery.h>

#include "tools/failure.h"
#include "tools/journal-name.h"
#include "tools/json.h"
#include "tools/print.h"
#include "tools/reader/reader.h"
#include "tools/track-description.h"

namespace tools {

namespace {

/* How far a file got from the first frame to a whole movie. */
enum class file_state {
    finished,
    fragmented,  // as far as moov goes: the fragments are not read
    cut,         // moov is whole, a box after it is not
    interrupted, // there is no whole moov
};

const char *name(file_state state)
{
    switch (state) {
    case file_state::finished:
        return "finished";
    case file_state::fragmented:
        return "fragmented";
    case file_state::cut:
        return "cut";
    case file_state::interrupted:
        return "interrupted";
    }
    return "";
}

/* Text in a file may be anything: control characters must not reach the terminal. */
std::string harmless(const std::string &text)
{
    std::string result;
    for (const char c : text)
        if (c == '\xA9')
            result += "\u00A9"; // begins the types of QuickTime's annotations
        else
            result += c >= ' ' && c <= '~' ? c : '.';
    return result;
}

double seconds(uint64_t ticks, uint32_t timescale)
{
    return timescale == 0 ? 0 : static_cast<double>(ticks) / timescale;
}

struct track_view {
    uint32_t id;
    std::string codec, entry, handler;
    uint32_t width = 0, height = 0;  // of video
    uint32_t channels = 0, rate = 0; // of audio; 0 when the sample entry is not read
    uint32_t timescale;
    double duration, delay; // seconds
    uint64_t samples, sync_samples = 0, chunks, bytes = 0;
    double longest_step = 0, longest_step_at = 0; // seconds
};

std::string codec_of(const mp4::track &track)
{
    if (track.avc) return codec_name(MP4_TRACK_H264);
    if (track.hevc) return codec_name(MP4_TRACK_H265);
    const int type = track.es ? track.es->object_type : 0; // registered at mp4ra.org
    return type == 0x40 ? codec_name(MP4_TRACK_AAC) : type == 0x69 || type == 0x6B ? "mp3" : harmless(track.entry);
}

/* Of AAC as its own configuration says: the sample entry often states 2 for everything. */
uint32_t channels_of(const mp4::track &track)
{
    if (!track.es || track.es->object_type != 0x40 || track.es->config.size() < 2) return track.channels;
    const uint32_t layout = track.es->config[1] >> 3 & 15; // ISO/IEC 14496-3, 1.6.2.1 and table 1.19
    return layout == 0 ? track.channels : layout == 7 ? 8 : layout;
}

track_view view(const mp4::track &track, uint32_t movie_timescale)
{
    const bool delayed = !track.edits.empty() && track.edits[0].media_time == -1;
    track_view result = {.id = track.id,
                         .codec = codec_of(track),
                         .entry = harmless(track.entry),
                         .handler = harmless(track.handler),
                         .timescale = track.timescale,
                         .duration = seconds(track.media_duration, track.timescale),
                         .delay = delayed ? seconds(track.edits[0].duration, movie_timescale) : 0,
                         .samples = track.samples.size(),
                         .chunks = track.chunk_offsets.size()};
    if (track.handler == "vide") {
        result.width = track.entry_width != 0 ? track.entry_width : track.width >> 16;
        result.height = track.entry_height != 0 ? track.entry_height : track.height >> 16;
    } else if (track.handler == "soun") {
        result.channels = channels_of(track);
        result.rate = track.sample_rate >> 16;
    }
    const mp4::sample *longest = nullptr;
    for (const mp4::sample &sample : track.samples) {
        result.sync_samples += sample.sync;
        result.bytes += sample.size;
        if (!longest || sample.duration > longest->duration) longest = &sample;
    }
    if (!longest) return result;
    result.longest_step = seconds(longest->duration, track.timescale);
    result.longest_step_at = seconds(longest->time, track.timescale);
    return result;
}

struct movie_view {
    std::string path;
    file_state state = file_state::finished;
    std::optional<std::string> journal; // beside the file
    std::string advice;                 // a hint for the user
    double duration;                    // seconds
    std::vector<track_view> tracks;
};

file_state state_of(const mp4::file &file)
{
    const auto is = [](const char *type) { return [type](const mp4::box &box) { return box.type == type; }; };
    const auto moov = std::ranges::find_if(file.boxes, is("moov"));
    const bool has_moov = moov != file.boxes.end();
    if (std::ranges::any_of(file.boxes, is("moof")) || (has_moov && std::ranges::any_of(moov->children, is("mvex"))))
        return file_state::fragmented;
    if (!has_moov || moov->cut) return file_state::interrupted;
    return std::ranges::any_of(file.boxes, &mp4::box::cut) ? file_state::cut : file_state::finished;
}

/* The journal beside a file, when it begins as one. */
std::optional<std::string> journal_beside(const std::string &media, bool &exists)
{
    const std::string path = journal_of(media);
    exists = false;
    try {
        const open_file file("", path, O_RDONLY);
        exists = true;
        std::vector<uint8_t> begin(std::min<uint64_t>(file.size(), 4096));
        return file.read(0, begin) && mediafiles_is_journal(begin.data(), begin.size()) != 0 ? std::optional(path)
                                                                                             : std::nullopt;
    } catch (const failure &) {
        return {};
    }
}

std::string advice_for(const movie_view &movie, const open_file &file, const std::string &brand, bool beside)
{
    const std::string &path = movie.path, journal = journal_of(path);
    switch (movie.state) {
    case file_state::finished:
        if (brand != "qt  ") return "";
        return "It is a QuickTime file: its boxes differ in details, which are no faults of it.";
    case file_state::fragmented:
        return "It is a movie in fragments, which are not read: the tracks are shown as moov alone has them.";
    case file_state::cut:
        return "Its end is missing: copy it again from where it came.";
    case file_state::interrupted:
        break;
    }
    if (file.is_locked()) return "It is being recorded or repaired right now.";
    const std::string what = "It was interrupted: the movie header (moov), without which it does not play, is " +
                             std::string("missing or incomplete. ");
    if (movie.journal)
        return what + "Its journal stands beside it: 'mediafiles repair " + path +
               "' makes it play, and with "
               "--dry-run says what will be kept.";
    return what +
           (beside ? journal + " stands beside it, but is no journal. "
                   : "There is no journal " + journal + " beside it. ") +
           "Only a journal lists where the frames are. If you have it elsewhere: 'mediafiles repair " + path +
           " --journal FILE'.";
}

movie_view view(const open_file &file, const mp4::file &content)
{
    movie_view movie = {.path = file.path(),
                        .state = state_of(content),
                        .journal = {},
                        .advice = {},
                        .duration = seconds(content.duration, content.timescale),
                        .tracks = {}};
    bool beside;
    movie.journal = journal_beside(file.path(), beside);
    movie.advice = advice_for(movie, file, content.major_brand, beside);
    for (const mp4::track &track : content.tracks) movie.tracks.push_back(view(track, content.timescale));
    return movie;
}

void print_boxes(const std::vector<mp4::box> &boxes, int depth, std::FILE *to)
{
    for (const mp4::box &box : boxes) {
        std::fprintf(to, "%12ju %12ju  %*s%s\n", uintmax_t{box.offset}, uintmax_t{box.size}, 2 * depth, "",
                     harmless(box.type).c_str());
        print_boxes(box.children, depth + 1, to);
    }
}

std::string to_text(const track_view &track)
{
    std::string text = print("track %u: ", track.id) + track.codec;
    if (track.codec != track.entry) text += " (" + track.entry + ")";
    if (track.width != 0) text += print(" %ux%u", track.width, track.height);
    if (track.rate != 0) text += print(" %u Hz, %u channels", track.rate, track.channels);
    text += print(", %.3f s", track.duration);
    if (track.delay > 0) text += print(" with a delay of %.3f s", track.delay);
    text += print(", %ju samples, %ju sync, in %ju chunks, %ju bytes", uintmax_t{track.samples},
                  uintmax_t{track.sync_samples}, uintmax_t{track.chunks}, uintmax_t{track.bytes});
    if (track.samples != 0) text += print(", longest step %.3f s at %.3f s", track.longest_step, track.longest_step_at);
    return text;
}

void print_text(const movie_view &movie, const mp4::file &file, std::FILE *to)
{
    std::fprintf(to, "%s: MP4, %ju bytes, %s, %.3f s\n", movie.path.c_str(), uintmax_t{file.size}, name(movie.state),
                 movie.duration);
    if (!movie.advice.empty()) std::fprintf(to, "%s\n", movie.advice.c_str());
    std::fprintf(to, "\n%12s %12s  box\n", "offset", "size");
    print_boxes(file.boxes, 0, to);
    std::fputs("\n", to);
    for (const track_view &track : movie.tracks) std::fprintf(to, "%s\n", to_text(track).c_str());
    for (const mp4::problem &problem : file.problems)
        std::fprintf(to, "%s at %ju: %s\n", problem.fault ? "fault" : "remark", uintmax_t{problem.offset},
                     harmless(problem.text).c_str());
    if (file.sound()) std::fputs("no faults\n", to);
}

ordered_json to_json(const std::vector<mp4::box> &boxes)
{
    ordered_json result = ordered_json::array();
    for (const mp4::box &box : boxes)
        result.push_back({{"type", harmless(box.type)},
                          {"offset", box.offset},
                          {"size", box.size},
                          {"children", to_json(box.children)}});
    return result;
}

ordered_json to_json(const track_view &track)
{
    ordered_json result = {
        {"id", track.id}, {"codec", track.codec}, {"entry", track.entry}, {"handler", track.handler}};
    if (track.handler == "vide") {
        result["width"] = track.width;
        result["height"] = track.height;
    } else if (track.rate != 0) {
        result["channels"] = track.channels;
        result["rate"] = track.rate;
    }
    result["timescale"] = track.timescale;
    result["duration_s"] = track.duration;
    result["delay_s"] = track.delay;
    result["samples"] = track.samples;
    result["sync_samples"] = track.sync_samples;
    result["chunks"] = track.chunks;
    result["bytes"] = track.bytes;
    result["longest_step_s"] = track.longest_step;
    result["longest_step_at_s"] = track.longest_step_at;
    return result;
}

ordered_json problems(const mp4::file &file, bool faults)
{
    ordered_json result = ordered_json::array();
    for (const mp4::problem &problem : file.problems)
        if (problem.fault == faults) result.push_back({{"offset", problem.offset}, {"text", harmless(problem.text)}});
    return result;
}

ordered_json to_json(const movie_view &movie, const mp4::file &file)
{
    ordered_json brands = ordered_json::array(), tracks = ordered_json::array();
    for (const std::string &brand : file.compatible_brands) brands.push_back(harmless(brand));
    for (const track_view &track : movie.tracks) tracks.push_back(to_json(track));
    return {
        {"path", movie.path},
        {"kind", "mp4"},
        {"error", nullptr},
        {"bytes", file.size},
        {"state", name(movie.state)},
        {"journal", or_null(movie.journal)},
        {"advice", or_null(movie.advice)},
        {"major_brand", harmless(file.major_brand)},
        {"compatible_brands", brands},
        {"duration_s", movie.duration},
        {"boxes", to_json(file.boxes)},
        {"tracks", tracks},
        {"sound", file.sound()},
        {"faults", problems(file, true)},
        {"remarks", problems(file, false)},
    };
}

void print_line(const movie_view &movie, const mp4::file &file, bool json, std::FILE *to)
{
    const size_t faults = problems(file, true).size(), remarks = problems(file, false).size();
    if (json) {
        const ordered_json line = {{"path", movie.path},
                                   {"kind", "mp4"},
                                   {"error", nullptr},
                                   {"bytes", file.size},
                                   {"state", name(movie.state)},
                                   {"duration_s", movie.duration},
                                   {"tracks", movie.tracks.size()},
                                   {"sound", file.sound()},
                                   {"faults", faults},
                                   {"remarks", remarks}};
        std::fprintf(to, "%s\n", json_text(line, one_line).c_str());
        return;
    }
    std::string text = printable(movie.path) +
                       print(": MP4, %ju bytes, %s, %.3f s", uintmax_t{file.size}, name(movie.state), movie.duration);
    for (const track_view &track : movie.tracks) text += ", " + track.codec;
    if (faults != 0) text += print(", %zu %s", faults, faults == 1 ? "fault" : "faults");
    std::fprintf(to, "%s\n", text.c_str());
}

} // namespace

bool inspect_mp4(const open_file &file, inspect_form form, std::FILE *to)
{
    const mp4::file content = mp4::read(file.path());
    const movie_view movie = view(file, content);
    if (form.one_line)
        print_line(movie, content, form.json, to);
    else if (form.json)
        std::fprintf(to, "%s\n", json_text(to_json(movie, content)).c_str());
    else
        print_text(movie, content, to);
    return content.sound();
}

} // namespace tools
