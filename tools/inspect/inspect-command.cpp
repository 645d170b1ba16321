#include <algorithm>
#include <array>
#include <filesystem>
#include <new>

#include <fcntl.h>

#include <mediafiles/recovery.h>

#include "tools/command.h"
#include "tools/console.h"
#include "tools/failure.h"
#include "tools/inspect/inspect.h"
#include "tools/json.h"

namespace tools {

namespace {

constexpr const char *cannot_read = "cannot read";

/* The options as given on the command line. */
struct inspect_line {
    std::vector<std::string> paths;
    bool json = false;
    bool check = false;
};

constexpr const char *examples = R"(Examples:
  mediafiles inspect out.mp4
  mediafiles inspect out.mp4.journal | tail
  mediafiles inspect out.mp4 --check --json
  mediafiles inspect /media/card --check

Of several files, and of a directory, there is a line for each. Exit codes: 0 it
was shown, 1 it cannot be read or, with --check, has a fault, 2 wrong usage.)";

void describe(CLI::App &line, inspect_line &given)
{
    line.footer(examples);
    line.add_option("PATH", given.paths, "MP4 files, journals, or directories to search for them")->required();
    line.add_flag("--json", given.json, "Print a JSON object instead of text");
    line.add_flag("--check", given.check, "End with 1 when the file has a fault");
}

/* By the type of its first box: those that ISO/IEC 14496-12 has in a file, and two that QuickTime adds. */
bool begins_mp4(std::span<const uint8_t> begin)
{
    constexpr std::array<const char *, 14> types = {"ftyp", "styp", "moov", "mdat", "moof", "free", "skip",
                                                    "meta", "sidx", "ssix", "pdin", "uuid", "wide", "pnot"};
    return begin.size() >= 8 &&
           std::ranges::any_of(types, [&](const char *type) { return std::equal(type, type + 4, begin.begin() + 4); });
}

bool inspect(const std::string &path, inspect_form form, std::FILE *to)
{
    const open_file file(cannot_read, path, O_RDONLY);
    std::vector<uint8_t> begin(std::min<uint64_t>(file.size(), 1 << 16));
    if (begin.empty()) throw failure(cannot_read, path, "it is empty");
    if (!file.read(0, begin)) throw failure(cannot_read, path, "it became shorter while it was read");
    if (mediafiles_is_journal(begin.data(), begin.size())) return inspect_journal(file, form, to);
    if (begins_mp4(begin)) return inspect_mp4(file, form, to);
    throw failure(cannot_read, path,
                  std::ranges::count(begin, 0) == static_cast<ptrdiff_t>(begin.size())
                      ? "it begins with zeros, as a file does that a power cut has emptied; is there a copy?"
                      : "it begins neither as an MP4 file nor as a journal; is it the right file?");
}

void print_error(const std::string &path, const char *error, inspect_form form, std::FILE *to)
{
    const ordered_json result = {{"path", path}, {"kind", nullptr}, {"error", error}};
    std::fprintf(to, "%s\n", json_text(result, form.one_line ? one_line : 2).c_str());
}

/* By their names: what else is in a directory is passed over. */
bool is_searched_for(const std::filesystem::path &path)
{
    constexpr std::array<const char *, 4> ends = {".mp4", ".m4v", ".mov", ".journal"};
    return std::ranges::find(ends, path.extension()) != ends.end();
}

/* The files that a path stands for, in the order of their names. */
std::vector<std::string> files_of(const std::string &path)
{
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) return {path};
    std::vector<std::string> found;
    using all = std::filesystem::recursive_directory_iterator;
    for (all each(path, std::filesystem::directory_options::skip_permission_denied, error); !error && each != all();
         each.increment(error))
        if (is_searched_for(each->path()) && each->is_regular_file(error)) found.push_back(each->path());
    if (error) throw failure(cannot_read, path, error.value());
    std::ranges::sort(found);
    return found;
}

/* @return whether it was shown and, where that is asked for, has no fault */
bool show(const std::string &path, inspect_form form, bool check, console &console, std::FILE *to)
{
    std::string why;
    try {
        return inspect(path, form, to) || !check;
    } catch (const failure &cause) {
        why = cause.what();
    } catch (const std::bad_alloc &) {
        why = failure(cannot_read, path, "there is not enough memory for it").what();
    }
    console.problem(why);
    if (form.json) print_error(path, why.c_str(), form, to);
    return false;
}

int run(const inspect_line &given, int result_descriptor)
{
    console console("inspect", false);
    std::FILE *const to = fdopen(result_descriptor, "w");
    if (!to) {
        console.lose_result();
        return failed;
    }
    bool is_well = true;
    std::error_code error;
    const bool several = given.paths.size() > 1 || std::filesystem::is_directory(given.paths.front(), error);
    for (const std::string &path : given.paths) {
        try {
            const std::vector<std::string> files = files_of(path);
            if (files.empty()) console.note(path + ": no MP4 file and no journal in it");
            for (const std::string &file : files)
                is_well &= show(file, {given.json, several}, given.check, console, to);
        } catch (const failure &cause) {
            console.problem(cause.what());
            is_well = false;
        }
    }
    const bool is_lost = std::ferror(to) != 0;
    if (std::fclose(to) != 0 || is_lost) {
        console.lose_result();
        return failed;
    }
    return is_well ? done : failed;
}

} // namespace

command add_inspect_command(CLI::App &program)
{
    CLI::App *line = program.add_subcommand("inspect", "Show what an MP4 file or a journal holds, and its faults");
    auto given = std::make_shared<inspect_line>();
    describe(*line, *given);
    return {line, [given](int result_descriptor) { return run(*given, result_descriptor); }};
}

} // namespace tools
